// The periodic jobs driven directly, each re-arming itself for its period: ageing, learning
// (this AP refreshed, up to 64 neighbors probed) and IP detection (until the driver confirms).
// The timer service's thread is not started here, so nothing fires while a test looks.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "core/handlers.h"
#include "driver_sink.h"
#include "neighbor/driver_msg.h"
#include "neighbor/periodic_jobs.h"
#include "neighbor_test_util.h"
#include "probe_capture.h"
#include "sandbox.h"
#include "sysinfo/self_ap.h"

namespace {

using namespace ntest;

// The i-th MAC in walk order for i < 70: MAC i lies in bucket min(i, 66), and the few beyond
// share the last bucket behind it.
mac_addr walk_ordered_mac(int i) {
    const uint8_t bucket = static_cast<uint8_t>(std::min(i, 66));
    return mac_addr{0x02, 0x11, 0x22, 0x00, bucket, static_cast<uint8_t>(i - bucket)};
}

std::string age_and_states(const mac_addr &m) {
    entry_copy e = table_entry(m);
    return std::to_string(e.ap.age) + "/" + std::to_string(e.ap.state) +
           std::to_string(e.ap.info.state) + " ";
}

// A run visits at most 64 entries, in walk order; a silent neighbor goes offline on the
// seventh run and stays there, and no entry is ever removed.
TEST(Ageing, MarksSilentNeighborsOfflineOnTheSeventhRunAndRearmsEveryMinute) {
    neighbor_aps_clear();
    max_ngbr_num = 100;  // lets the table hold more than a run visits
    for (int i = 0; i < 70; ++i) {
        add_entry(walk_ordered_mac(i), 0);
    }
    int64_t from = timer_now().sec;
    create_table_ageing_timer();  // the first run
    EXPECT_TRUE(pending_for(table_ageing_id, 60, from));
    timer_cancel(table_ageing_id, 0);
    EXPECT_EQ(age_and_states(walk_ordered_mac(63)) + age_and_states(walk_ordered_mac(64)),
              "101/00 100/00 ");
    std::string runs = age_and_states(walk_ordered_mac(0));
    for (int run = 2; run <= 8; ++run) {
        neighbor_aps_timer();
        runs += age_and_states(walk_ordered_mac(0));
    }
    EXPECT_EQ(runs, "101/00 102/00 103/00 104/00 105/00 106/00 106/11 106/11 ");
    EXPECT_EQ(table_count(), 70u);
    neighbor_aps_clear();
    max_ngbr_num = MAX_NGBR_NUM_DEFAULT;
}

// Entry i has the address 127.0.1.<i + 1>, except entry 1, which has none: it is counted but
// nothing is sent to it. A learning probe (mode 2) carries mode 0.
TEST(Learning, RefreshesThisApAndProbesAtMost64Neighbors) {
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        sandbox::install_command("getupifname", "echo lo");  // platform commands' stand-ins
        sandbox::install_command("uci", "echo ap-learner");
        DriverSink driver;
        probe_capture capture;
        sock_send_nbcp = socket(AF_INET, SOCK_DGRAM, 0);
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
        return "name " + std::string(self_ap_snapshot().info.name) + ", probed " +
               std::to_string(to.size()) + ", other " + std::to_string(other) + ", .2 " +
               std::to_string(to.count("127.0.1.2")) + " .64 " +
               std::to_string(to.count("127.0.1.64")) + " .65 " +
               std::to_string(to.count("127.0.1.65")) +
               (pending_for(nbcp_update_id, 150, from) ? ", again in 150 s" : ", not re-armed");
    });
    EXPECT_EQ(seen, "name ap-learner, probed 63, other 0, .2 0 .64 1 .65 0, again in 150 s");
}

// What the driver is told at each run is checked by the sysinfo tests; here, only the re-arming.
TEST(IpDetection, RearmsUntilTheDriverConfirmsThenStopsForGood) {
    SKIP_WITHOUT_NETLINK();
    SKIP_UNLESS_ROOT();
    std::string seen = sandbox::run_in_sandbox([] {
        sandbox::install_command("getupifname", "echo lo");
        DriverSink driver;
        driver_feed feed;
        set_ipaddr = 0;
        // The ids go on from that of a timer registered and cancelled here.
        const uint32_t last_id = timer_add(1000, 0, free, nullptr);
        timer_cancel(last_id, 0);
        int64_t from = timer_now().sec;
        create_ip_detect_timer();
        std::string out = pending_for(last_id + 1, 10, from) ? "again in 10 s" : "not re-armed";
        feed.deliver(bytes{2});  // the driver accepts the AP information
        create_ip_detect_timer();
        create_ip_detect_timer();
        return out + (pending_for(last_id + 2, 10, from) ? ", then again" : ", then no more");
    });
    EXPECT_EQ(seen, "again in 10 s, then no more");
}

}  // namespace
