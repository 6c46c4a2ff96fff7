// The timer clock counts whole seconds: waits poll with a generous deadline, and nothing asserts
// how long anything took. Each test gets a fresh service, so ids start at 0. Callback arguments
// are malloc'd, as the service frees handed-over ones: the sanitizer builds catch a leak or a
// double release.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <sstream>
#include <thread>

#include "util/timer.h"

namespace {

constexpr auto FIRE_DEADLINE = std::chrono::seconds(10);

// Polls until `done` holds or the deadline has passed; tells whether it held.
template <typename Done>
bool wait_until(Done &&done) {
    auto deadline = std::chrono::steady_clock::now() + FIRE_DEADLINE;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

// The tags of the callbacks run so far, in order, and the service's clock at each run.
struct FireLog {
    std::mutex mutex;
    std::condition_variable recorded;
    std::string tags;
    std::vector<int64_t> seconds;

    // The tags once `count` callbacks have run, or when the deadline has passed.
    std::string wait_for(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        recorded.wait_for(lock, FIRE_DEADLINE, [&] { return seconds.size() >= count; });
        return tags;
    }
};

struct Shot {
    FireLog *log;
    int tag;
    int runs_left;  // for a periodic shot
};

Shot *make_shot(FireLog *log, int tag, int runs = 1) {
    Shot *shot = static_cast<Shot *>(malloc(sizeof(Shot)));
    *shot = Shot{log, tag, runs};
    return shot;
}

// Records its run, then registers itself again for one second while runs are left.
void record_and_rearm(void *arg) {
    Shot *shot = static_cast<Shot *>(arg);
    {
        std::lock_guard<std::mutex> guard(shot->log->mutex);
        shot->log->tags += std::to_string(shot->tag) + " ";
        shot->log->seconds.push_back(timer_now().sec);
        shot->log->recorded.notify_all();
    }
    if (--shot->runs_left > 0) {
        ASSERT_NE(timer_add(1, 0, record_and_rearm, shot), TIMER_ADD_FAILED);
        return;
    }
    free(shot);
}

void never_fires(void *) {}

// The pending timers from the head, each as "<id>:<in_use><cancelled>", or with `now` as
// "<seconds after now>.<microseconds>".
std::string listing(int64_t now = -1) {
    testing::internal::CaptureStdout();
    timer_dump();
    std::istringstream text(testing::internal::GetCapturedStdout());
    std::string out;
    for (std::string raw; std::getline(text, raw);) {
        unsigned id = 0, sec = 0, usec = 0, in_use = 0, cancelled = 0;
        sscanf(raw.c_str(), "Timer %*d: id=<%u>, expire=<%u,%u>, in_use=<%u>, cancelled=<%u>", &id,
               &sec, &usec, &in_use, &cancelled);
        out +=
            (now < 0 ? std::to_string(id) + ":" + std::to_string(in_use) + std::to_string(cancelled)
                     : std::to_string(sec - now) + "." + std::to_string(usec)) +
            " ";
    }
    return out;
}

// The timer thread programs the alarm for a head it finds on its own shortly after the list
// becomes non-empty; tests that need the alarm programmed for a node wait for that.
bool wait_until_armed(uint32_t id) {
    return wait_until([id] { return listing().rfind(std::to_string(id) + ":1", 0) == 0; });
}

class TimerTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(timer_service_init(), 1); }
    void TearDown() override { timer_service_destroy(); }

    // Runs add_all until the clock's second did not change while it ran, so that equal delays
    // give equal expiries. Returns that second; a retry starts from a fresh service.
    int64_t add_in_one_second(const std::function<void()> &add_all) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            int64_t before = timer_now().sec;
            add_all();
            if (timer_now().sec == before) {
                return before;
            }
            TearDown();
            SetUp();
        }
        ADD_FAILURE() << "the clock's second kept changing while timers were added";
        return 0;
    }

    uint32_t shot(int64_t sec, int tag, int runs = 1) {
        return timer_add(sec, 0, record_and_rearm, make_shot(&log_, tag, runs));
    }

    FireLog log_;
};

// Delays of 10 s and more: none of these fires while the test looks at the list. The clock's
// microseconds are always 555. Rejected registrations come first: they take no id.
TEST_F(TimerTest, ListIsSortedByExpiryWithTiesInRegistrationOrderAndMicrosecondsCarried) {
    int64_t now = add_in_one_second([] {
        EXPECT_EQ(timer_add(0, 0, never_fires, nullptr), TIMER_ADD_FAILED);
        EXPECT_EQ(timer_add(-1, 500000, never_fires, nullptr), TIMER_ADD_FAILED);
        EXPECT_EQ(timer_add(1, -1, never_fires, nullptr), TIMER_ADD_FAILED);
        EXPECT_EQ(timer_add(1, 0, nullptr, nullptr), TIMER_ADD_FAILED);
        timer_add(10, 999444, never_fires, nullptr);              // id 0
        timer_add(10, 999445, never_fires, nullptr);              // id 1
        timer_add(0, 12345678901, never_fires, nullptr);          // id 2
        for (int64_t delay : {100, 50, 100, 200, 50, 10, 100}) {  // ids 3 to 9
            timer_add(delay, 0, never_fires, nullptr);
        }
    });
    // Only the head, which took over from an earlier head, has the alarm.
    EXPECT_EQ(listing(), "8:10 0:00 1:00 4:00 7:00 3:00 5:00 9:00 6:00 2:00 ");
    EXPECT_EQ(listing(now),
              "10.555 10.999999 11.0 50.555 50.555 100.555 100.555 100.555 200.555 "
              "12345.679456 ");
}

// Tag 2 re-arms itself twice: each period counts from the run that registered it, and the
// last run registered nothing.
TEST_F(TimerTest, EqualExpiriesFireInRegistrationOrderNeverEarlyAndCanRearm) {
    int64_t added_at = timer_now().sec;
    shot(1, 0);
    shot(1, 1);
    shot(1, 2, 3);
    ASSERT_EQ(log_.wait_for(5), "0 1 2 2 2 ");
    const std::vector<int64_t> &seconds = log_.seconds;  // the last run re-armed nothing
    EXPECT_GE(seconds[0], added_at + 1);
    EXPECT_GE(seconds[3], seconds[2] + 1);
    EXPECT_GE(seconds[4], seconds[3] + 1);
    EXPECT_EQ(listing(), "");
}

// A shorter timer takes the alarm over from an armed head. A cancelled pending timer is
// removed at once; a cancelled armed head stays until its alarm and is then dropped without
// running. Handed-over arguments are released at the cancel (the sanitizer builds catch a leak
// or a second release); unknown ids change nothing.
TEST_F(TimerTest, CancelRemovesPendingTimersAndDropsAnArmedHeadAtItsAlarm) {
    uint32_t slow = shot(100, 100);
    ASSERT_TRUE(wait_until_armed(slow));
    uint32_t head = shot(1, 1);
    uint32_t freed_by_service = shot(200, 2);
    Shot *kept = make_shot(&log_, 3);
    uint32_t kept_by_caller = timer_add(300, 0, record_and_rearm, kept);
    timer_cancel(head, 1);
    timer_cancel(freed_by_service, 1);
    timer_cancel(kept_by_caller, 0);
    free(kept);  // a release by the service as well would be a double free
    for (uint32_t id : {freed_by_service, kept_by_caller, 12345u}) {
        timer_cancel(id, 1);
    }
    EXPECT_EQ(listing(), "1:11 0:00 ");
    // Registered after the cancelled head with no earlier expiry: it can only run once the
    // cancelled head's alarm has come and gone.
    shot(1, 4);
    EXPECT_EQ(log_.wait_for(1), "4 ");
    EXPECT_TRUE(wait_until_armed(slow));
    EXPECT_EQ(listing(), "0:10 ");
}

std::atomic<int> slow_stage{0};  // 1 once entered, 2 once finished

// Runs for a while; a sleep is a cancellation point, where a stop request must not end it.
void slow_callback(void *) {
    slow_stage = 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    slow_stage = 2;
}

TEST_F(TimerTest, DestroyLetsRunningCallbackFinish) {
    slow_stage = 0;
    ASSERT_NE(timer_add(1, 0, slow_callback, nullptr), TIMER_ADD_FAILED);
    ASSERT_TRUE(wait_until([] { return slow_stage > 0; }));
    timer_service_destroy();
    EXPECT_EQ(slow_stage, 2);
    ASSERT_EQ(timer_service_init(), 1);
}

}  // namespace
