// The periodic jobs driven directly: ageing marks silent neighbors offline on its seventh run,
// learning refreshes this AP and probes up to 64 neighbors, IP detection stops for good once
// the driver has confirmed.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/handlers.h"
#include "driver_sink.h"
#include "neighbor/driver_msg.h"
#include "neighbor/periodic_jobs.h"
#include "neighbor_test_util.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"
#include "util/timer.h"

namespace {

using namespace ntest;

const mac_addr A = mac(0x0a);

// The i-th MAC in walk order for i < 70: MAC i lies in bucket min(i, 66), and the few beyond
// share the last bucket behind it.
mac_addr walk_ordered_mac(int i) {
    uint8_t bucket = static_cast<uint8_t>(i < 66 ? i : 66);
    uint8_t low = static_cast<uint8_t>(i < 66 ? 0 : i - 66);  // low nibble: same bucket
    return mac_addr{0x02, 0x11, 0x22, 0x00, bucket, low};
}

// Pending timers, from the service's own listing (the service thread is not started here, so
// nothing fires while a test looks).
int pending_timers() {
    testing::internal::CaptureStdout();
    timer_dump();
    fflush(stdout);
    return count_of(testing::internal::GetCapturedStdout(), "Timer ");
}

// The expiry second of the pending timer with this id, or -1.
long long expiry_of(uint32_t id) {
    testing::internal::CaptureStdout();
    timer_dump();
    fflush(stdout);
    std::string dump = testing::internal::GetCapturedStdout();
    std::string key = "id=<" + std::to_string(static_cast<int>(id)) + ">, expire=<";
    size_t at = dump.find(key);
    if (at == std::string::npos) {
        return -1;
    }
    return std::stoll(dump.substr(at + key.size()));
}

class Ageing : public testing::Test {
  protected:
    void SetUp() override {
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    }
    void TearDown() override {
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    }
};

TEST_F(Ageing, SilentNeighborGoesOfflineOnTheSeventhRun) {
    add_entry(A, ipv4("10.0.0.7"));
    for (uint32_t run = 1; run <= 6; ++run) {
        std::string log = logged([] { neighbor_aps_timer(); });
        entry_copy e = table_entry(A);
        EXPECT_EQ(e.ap.age, 100 + run) << run;
        EXPECT_EQ(e.ap.state, AP_STATE_ACTIVE) << run;
        EXPECT_EQ(e.ap.info.state, AP_STATE_ACTIVE) << run;
        EXPECT_EQ(log, "neighbor_aps_timer: count:1, timer:" + std::to_string(100 + run) + "\n");
    }
    for (int run = 7; run <= 9; ++run) {
        std::string log = logged([] { neighbor_aps_timer(); });
        entry_copy e = table_entry(A);
        EXPECT_EQ(e.ap.age, 106u) << run;
        EXPECT_EQ(e.ap.state, AP_STATE_OFFLINE) << run;
        EXPECT_EQ(e.ap.info.state, AP_STATE_OFFLINE) << run;
        EXPECT_EQ(log,
                  "neighbor_aps_timer: neighbor [02:11:22:33:44:0a] ageing\n"
                  "neighbor_aps_timer: count:1, timer:106\n");
    }
    EXPECT_EQ(table_count(), 1u) << "ageing never removes an entry";
}

TEST_F(Ageing, VisitsAtMost64Entries) {
    max_ngbr_num = 100;  // lets the table hold more than a walk visits
    std::vector<mac_addr> macs;
    for (uint8_t i = 0; i < 70; ++i) {
        macs.push_back(walk_ordered_mac(i));
        add_entry(macs.back(), 0);
    }
    std::string log = logged([] { neighbor_aps_timer(); });
    for (size_t i = 0; i < macs.size(); ++i) {
        EXPECT_EQ(table_entry(macs[i]).ap.age, i < 64 ? 101u : 100u) << i;
    }
    EXPECT_EQ(count_of(log, "neighbor_aps_timer: count:"), 64);
    EXPECT_NE(log.find("count:64, timer:101\n"), std::string::npos);
}

TEST_F(Ageing, TimerCallbackAgesAndRearmsEveryMinute) {
    add_entry(A, 0);
    const int before = pending_timers();
    std::string log = logged([] { create_table_ageing_timer(); });
    EXPECT_EQ(log.rfind("Create neighbor table ageing timer\n", 0), 0u) << log;
    EXPECT_EQ(table_entry(A).ap.age, 101u);
    EXPECT_EQ(pending_timers(), before + 1);
    EXPECT_EQ(expiry_of(table_ageing_id), timer_now().sec + 60);
    timer_cancel(table_ageing_id, 0);
}

// Learning and IP detection run the platform's commands, so they run in a sandbox with
// stand-ins for those commands and a listener for the probes.
void install_platform() {
    sandbox::install_command("getupifname", "echo lo");
    sandbox::install_command("uci", "echo ap-learner");
    sandbox::install_command("getqvinfo", "echo 10.1.1.1");
    sandbox::write_file("/tmp/pvc-info", "1:10.0.0.1:2:7:00-11-22-33-44-55\n");
    sandbox::write_file("/tmp/zef_cloudinfo", "tenantId:t-42\n");
}

std::string self_summary() {
    neighbor_ap self = self_ap_snapshot();
    char text[160];
    snprintf(text, sizeof text, "name %s tenant %s qv %x cluster %u ip %x", self.info.name,
             self.info.tenantId, self.info.qv_ip, self.info.cluster_id, self.ip);
    return text;
}

TEST(Learning, EmptyTableOnlyRefreshesThisAp) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        probe_listener listen;
        sock_send_nbcp = open_probe_socket();
        neighbor_aps_learning();
        std::string log = sandbox::log_text();
        return self_summary() + " | probes [" + listen.drain() + "] | count lines " +
               std::to_string(count_of(log, "neighbor_aps_learning: count:"));
    });
    EXPECT_EQ(seen,
              "name ap-learner tenant t-42 qv a010101 cluster 7 ip 7f000001 | probes [] | "
              "count lines 0");
}

TEST(Learning, ProbesEveryNeighborOnceWithMode2) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        probe_listener listen;
        sock_send_nbcp = open_probe_socket();
        add_entry(mac(1, 1), ipv4("127.0.0.21"));
        add_entry(mac(2, 2), ipv4("127.0.0.22"));
        add_entry(mac(3, 3), 0);  // no address: counted, nothing sent
        neighbor_aps_learning();
        std::string log = sandbox::log_text();
        return listen.drain() + " | " +
               std::to_string(count_of(log, "neighbor_aps_learning: count:")) + " count lines, " +
               std::to_string(count_of(log, "neighbor_aps_learning: count:2, ip:1600007f\n")) +
               " for the second";
    });
    EXPECT_EQ(seen,
              "127.0.0.21 type 10 mode 0; 127.0.0.22 type 10 mode 0 | 3 count lines, 1 for the "
              "second");
}

TEST(Learning, ProbesAtMost64Neighbors) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        probe_listener listen;
        sock_send_nbcp = open_probe_socket();
        max_ngbr_num = 100;
        for (uint8_t i = 0; i < 70; ++i) {
            std::string ip = "127.0.1." + std::to_string(i + 1);
            add_entry(walk_ordered_mac(i), ipv4(ip.c_str()));
        }
        neighbor_aps_learning();
        std::string probes = listen.drain();
        std::string log = sandbox::log_text();
        return std::to_string(count_of(probes, "type 10")) + " probes, last to 127.0.1.64: " +
               std::to_string(probes.find("127.0.1.64 ") != std::string::npos) +
               ", 127.0.1.65: " + std::to_string(probes.find("127.0.1.65 ") != std::string::npos) +
               ", " + std::to_string(count_of(log, "neighbor_aps_learning: count:")) +
               " count lines";
    });
    EXPECT_EQ(seen, "64 probes, last to 127.0.1.64: 1, 127.0.1.65: 0, 64 count lines");
}

TEST(Learning, TimerCallbackLearnsAndRearmsEvery150Seconds) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        sock_send_nbcp = open_probe_socket();
        const int before = pending_timers();
        create_nbcp_update_timer();
        std::string log = sandbox::log_text();
        return std::to_string(log.rfind("Create neighbors learn ageing timer\n", 0) == 0) +
               " pending +" + std::to_string(pending_timers() - before) + " in " +
               std::to_string(expiry_of(nbcp_update_id) - timer_now().sec) + " s, " +
               self_summary();
    });
    EXPECT_EQ(seen,
              "1 pending +1 in 150 s, name ap-learner tenant t-42 qv a010101 cluster 7 ip "
              "7f000001");
}

TEST(IpDetection, RearmsUntilTheDriverConfirmsThenStopsForGood) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        driver_feed feed;
        std::string out;
        set_ipaddr = 0;
        int before = pending_timers();
        create_ip_detect_timer();
        out += "unconfirmed: +" + std::to_string(pending_timers() - before);
        out += " ip " + std::to_string(self_ap_snapshot().ip == 0x7f000001);
        out += " driver told " + std::to_string(driver.take_all().size());

        feed.send_event(bytes{2});  // the driver accepts the AP information
        hand_receive();
        size_t log_len = sandbox::log_text().size();
        before = pending_timers();
        create_ip_detect_timer();
        create_ip_detect_timer();
        std::string later = sandbox::log_text().substr(log_len);
        out += " | confirmed: +" + std::to_string(pending_timers() - before);
        out += " logged " + std::to_string(count_of(later, "Create ip detect timer"));
        out += " driver told " + std::to_string(driver.take_all().size());
        return out;
    });
    EXPECT_EQ(seen, "unconfirmed: +1 ip 1 driver told 1 | confirmed: +0 logged 0 driver told 0");
}

TEST(IpDetection, ConfirmedBeforeTheFirstRunDoesNothing) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        set_ipaddr = 1;
        int before = pending_timers();
        create_ip_detect_timer();
        return "+" + std::to_string(pending_timers() - before) + " log [" + sandbox::log_text() +
               "] ip " + std::to_string(self_ap_snapshot().ip);
    });
    EXPECT_EQ(seen, "+0 log [] ip 0");
}

}  // namespace
