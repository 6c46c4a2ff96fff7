// The periodic jobs driven directly: ageing marks silent neighbors offline on its seventh run,
// learning refreshes this AP and probes up to 64 neighbors, IP detection stops for good once
// the driver has confirmed, and each job re-arms itself for its period. The timer service's
// thread is not started here, so nothing fires while a test looks.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "core/handlers.h"
#include "driver_sink.h"
#include "neighbor/driver_msg.h"
#include "neighbor/periodic_jobs.h"
#include "neighbor_test_util.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"

namespace {

using namespace ntest;

// The i-th MAC in walk order for i < 70: MAC i lies in bucket min(i, 66), and the few beyond
// share the last bucket behind it.
mac_addr walk_ordered_mac(int i) {
    return mac_addr{0x02,
                    0x11,
                    0x22,
                    0x00,
                    static_cast<uint8_t>(i < 66 ? i : 66),
                    static_cast<uint8_t>(i < 66 ? 0 : i - 66)};
}

class Ageing : public testing::Test {
  protected:
    void SetUp() override { neighbor_aps_clear(); }
    void TearDown() override {
        neighbor_aps_clear();
        max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
    }
};

TEST_F(Ageing, SilentNeighborGoesOfflineOnTheSeventhRunAndStays) {
    const mac_addr a = mac(0x0a);
    add_entry(a, ipv4("10.0.0.7"));
    std::string runs;
    std::string log;
    for (int run = 1; run <= 8; ++run) {
        log = logged([] { neighbor_aps_timer(); });
        entry_copy e = table_entry(a);
        runs += std::to_string(e.ap.age) + "/" + std::to_string(e.ap.state) +
                std::to_string(e.ap.info.state) + " ";
    }
    EXPECT_EQ(runs, "101/00 102/00 103/00 104/00 105/00 106/00 106/11 106/11 ");
    EXPECT_EQ(log,
              "neighbor_aps_timer: neighbor [02:11:22:33:44:0a] ageing\n"
              "neighbor_aps_timer: count:1, timer:106\n");
    EXPECT_EQ(table_count(), 1u) << "ageing never removes an entry";
}

TEST_F(Ageing, VisitsAtMost64EntriesAndRearmsEveryMinute) {
    max_ngbr_num = 100;  // lets the table hold more than a walk visits
    for (int i = 0; i < 70; ++i) {
        add_entry(walk_ordered_mac(i), 0);
    }
    int64_t from = timer_now().sec;
    std::string log = logged([] { create_table_ageing_timer(); });
    std::string ages;
    for (int i = 62; i < 66; ++i) {
        ages += std::to_string(table_entry(walk_ordered_mac(i)).ap.age) + " ";
    }
    EXPECT_EQ(ages, "101 101 100 100 ");
    EXPECT_EQ(count_of(log, "neighbor_aps_timer: count:"), 64);
    EXPECT_TRUE(pending_for(table_ageing_id, 60, from));
    timer_cancel(table_ageing_id, 0);
}

// Learning and IP detection run the platform's commands, so they run in a sandbox with
// stand-ins for those commands.
void install_platform() {
    sandbox::install_command("getupifname", "echo lo");
    sandbox::install_command("uci", "echo ap-learner");
    sandbox::install_command("getqvinfo", "echo 10.1.1.1");
    sandbox::write_file("/tmp/pvc-info", "1:10.0.0.1:2:7:00-11-22-33-44-55\n");
    sandbox::write_file("/tmp/zef_cloudinfo", "tenantId:t-42\n");
}

// Entry i has the address 127.0.1.<i + 1>, except entry 1, which has none: it is counted but
// nothing is sent to it. A learning probe (mode 2) carries mode 0.
TEST(Learning, RefreshesThisApAndProbesAtMost64Neighbors) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        probe_capture capture;
        sock_send_nbcp = open_probe_socket();
        max_ngbr_num = 100;
        for (int i = 0; i < 70; ++i) {
            std::string ip = "127.0.1." + std::to_string(i + 1);
            add_entry(walk_ordered_mac(i), i == 1 ? 0 : ipv4(ip.c_str()));
        }
        int64_t from = timer_now().sec;
        create_nbcp_update_timer();
        std::set<std::string> to;
        int other = 0;
        while (auto got = capture.next(200)) {
            to.insert(got->dest);
            other += got->bytes.size() != 60 || got->bytes[3] != 10 || got->bytes[19] != 0;
        }
        neighbor_ap self = self_ap_snapshot();
        char summary[160];
        snprintf(summary, sizeof summary, "name %s tenant %s qv %x cluster %u ip %x |",
                 self.info.name, self.info.tenantId, self.info.qv_ip, self.info.cluster_id,
                 self.ip);
        return std::string(summary) + " probed " + std::to_string(to.size()) + ", other " +
               std::to_string(other) + ", .2 " + std::to_string(to.count("127.0.1.2")) + " .64 " +
               std::to_string(to.count("127.0.1.64")) + " .65 " +
               std::to_string(to.count("127.0.1.65")) + ", " +
               std::to_string(count_of(sandbox::log_text(), "neighbor_aps_learning: count:")) +
               " count lines" +
               (pending_for(nbcp_update_id, 150, from) ? ", again in 150 s" : ", not re-armed");
    });
    EXPECT_EQ(seen,
              "name ap-learner tenant t-42 qv a010101 cluster 7 ip 7f000001 | probed 63, other 0, "
              ".2 0 .64 1 .65 0, 64 count lines, again in 150 s");
}

TEST(IpDetection, RearmsUntilTheDriverConfirmsThenStopsForGood) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        install_platform();
        DriverSink driver;
        driver_feed feed;
        set_ipaddr = 0;
        create_ip_detect_timer();
        std::string out =
            "unconfirmed: pending " + std::to_string(count_of(timer_listing(), "Timer "));
        out += " ip " + std::to_string(self_ap_snapshot().ip == 0x7f000001);
        out += " driver told " + std::to_string(driver.take_all().size());

        feed.send_event(bytes{2});  // the driver accepts the AP information
        hand_receive();
        size_t log_len = sandbox::log_text().size();
        create_ip_detect_timer();
        create_ip_detect_timer();
        out += " | confirmed: pending " + std::to_string(count_of(timer_listing(), "Timer "));
        out += " logged " + std::to_string(count_of(sandbox::log_text().substr(log_len), "Create"));
        return out + " driver told " + std::to_string(driver.take_all().size());
    });
    EXPECT_EQ(seen,
              "unconfirmed: pending 1 ip 1 driver told 1 | confirmed: pending 1 logged 0 driver "
              "told 0");
}

}  // namespace
