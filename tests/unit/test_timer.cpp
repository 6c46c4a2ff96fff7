// The timer clock counts whole seconds, so every wait here is one second long at least: tests
// use one-second delays, wait on a condition variable with a generous deadline and never
// assert on how long anything took. Each test gets a fresh service (start and stop are cheap)
// so that ids start at 0 and no timer of one test is pending in the next.
//
// Callback arguments are malloc'd Shot records: the service frees handed-over arguments with
// free(), and the sanitizer builds then report a missing or a double release.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "util/timer.h"

namespace {

constexpr auto FIRE_DEADLINE = std::chrono::seconds(10);

// The tags of the callbacks run so far, in order, and the service's clock at each run.
class FireLog {
  public:
    void record(int tag) {
        std::lock_guard<std::mutex> guard(mutex_);
        tags_ += std::to_string(tag) + " ";
        seconds_.push_back(timer_now().sec);
        changed_.notify_all();
    }
    bool wait_for(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, FIRE_DEADLINE, [&] { return seconds_.size() >= count; });
    }
    std::string tags() {
        std::lock_guard<std::mutex> guard(mutex_);
        return tags_;
    }
    std::vector<int64_t> seconds() {
        std::lock_guard<std::mutex> guard(mutex_);
        return seconds_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string tags_;
    std::vector<int64_t> seconds_;
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
    shot->log->record(shot->tag);
    if (--shot->runs_left > 0) {
        ASSERT_NE(timer_add(1, 0, record_and_rearm, shot), TIMER_ADD_FAILED);
        return;
    }
    free(shot);
}

void never_fires(void *) {}

std::string dump_text() {
    testing::internal::CaptureStdout();
    timer_dump();
    return testing::internal::GetCapturedStdout();
}

struct DumpLine {
    int id;
    unsigned sec;
    unsigned usec;
    int in_use;
    int cancelled;
};

// The dump parsed line by line; a line of any other form fails the test.
std::vector<DumpLine> dump_lines() {
    std::vector<DumpLine> lines;
    std::istringstream text(dump_text());
    for (std::string raw; std::getline(text, raw);) {
        DumpLine l{};
        int index = -1;
        int consumed = 0;
        sscanf(raw.c_str(), "Timer %d: id=<%d>, expire=<%u,%u>, in_use=<%d>, cancelled=<%d>%n",
               &index, &l.id, &l.sec, &l.usec, &l.in_use, &l.cancelled, &consumed);
        EXPECT_TRUE(index == static_cast<int>(lines.size()) &&
                    static_cast<size_t>(consumed) == raw.size() && !text.eof())
            << "dump line " << raw;
        lines.push_back(l);
    }
    return lines;
}

// The pending timers from the head, each as "<id>:<in_use><cancelled>".
std::string listing() {
    std::string out;
    for (const DumpLine &l : dump_lines()) {
        out += std::to_string(l.id) + ":" + std::to_string(l.in_use) + std::to_string(l.cancelled) +
               " ";
    }
    return out;
}

// The timer thread programs the alarm for a head it finds on its own shortly after the list
// becomes non-empty; tests that need the alarm programmed for a node wait for that.
bool wait_until_armed(uint32_t id) {
    auto deadline = std::chrono::steady_clock::now() + FIRE_DEADLINE;
    while (listing().rfind(std::to_string(id) + ":1", 0) != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
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
            timer_service_destroy();
            EXPECT_EQ(timer_service_init(), 1);
        }
        ADD_FAILURE() << "the clock's second kept changing while timers were added";
        return 0;
    }

    uint32_t shot(int64_t sec, int tag, int runs = 1) {
        return timer_add(sec, 0, record_and_rearm, make_shot(&log_, tag, runs));
    }

    FireLog log_;
};

TEST_F(TimerTest, InvalidArgumentsRegisterNothing) {
    const struct {
        int64_t sec;
        int64_t usec;
        timer_callback callback;
    } rejected[] = {
        {0, 0, never_fires},       {-1, 0, never_fires},
        {-1, 500000, never_fires}, {0, -1, never_fires},
        {1, -1, never_fires},      {std::numeric_limits<int64_t>::min(), 0, never_fires},
        {1, 0, nullptr},
    };
    for (const auto &add : rejected) {
        EXPECT_EQ(timer_add(add.sec, add.usec, add.callback, nullptr), TIMER_ADD_FAILED)
            << add.sec << " s " << add.usec << " us";
    }
    EXPECT_EQ(dump_text(), "");
    // A rejected registration takes no id.
    EXPECT_EQ(timer_add(100, 0, never_fires, nullptr), 0u);
}

TEST_F(TimerTest, ExpiryCarriesMicrosecondsIntoSeconds) {
    // Delays of 7 s and more: none of these fires while the test looks at the list.
    const struct {
        int64_t sec;
        int64_t usec;
        int64_t later_sec;  // expected expiry: now + later_sec seconds ...
        unsigned usec_at;   // ... and this many microseconds
    } cases[] = {
        {10, 999444, 10, 999999},        {10, 999445, 11, 0}, {10, 1500000, 11, 500555},
        {0, 30000000, 30, 555},          {7, 0, 7, 555},      {20, 2999999, 23, 554},
        {0, 12345678901, 12345, 679456},
    };
    int64_t now = add_in_one_second([&] {
        for (const auto &c : cases) {
            timer_add(c.sec, c.usec, never_fires, nullptr);
        }
    });
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), std::size(cases));
    for (const DumpLine &line : lines) {
        const auto &c = cases[line.id];  // ids count from 0 in registration order
        EXPECT_EQ(line.sec, static_cast<unsigned>(now + c.later_sec)) << c.sec << " " << c.usec;
        EXPECT_EQ(line.usec, c.usec_at) << c.sec << " s " << c.usec << " us";
    }
}

TEST_F(TimerTest, ExpiryBeyondLargestSecondCountStaysThereAndCanBeArmed) {
    uint32_t far = timer_add(std::numeric_limits<int64_t>::max(), 999999, never_fires, nullptr);
    // A failed setitimer would end the process: being armed proves the alarm was accepted.
    ASSERT_TRUE(wait_until_armed(far));
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].sec, 0xFFFFFFFFu);  // low 32 bits of the largest 64-bit count
    EXPECT_EQ(lines[0].usec, 554u);
}

TEST_F(TimerTest, ListIsSortedByExpiryWithTiesInRegistrationOrder) {
    add_in_one_second([&] {
        for (int64_t delay : {100, 50, 100, 200, 50, 10, 100}) {  // ids 0 to 6
            timer_add(delay, 0, never_fires, nullptr);
        }
    });
    // Only the head, which took over from an earlier head, has the alarm.
    EXPECT_EQ(listing(), "5:10 1:00 4:00 0:00 2:00 6:00 3:00 ");
}

// Tag 2 re-arms itself twice: each period counts from the run that registered it, and the
// last run registered nothing.
TEST_F(TimerTest, EqualExpiriesFireInRegistrationOrderNeverEarlyAndCanRearm) {
    int64_t added_at = add_in_one_second([&] {
        shot(1, 0);
        shot(1, 1);
        shot(1, 2, 3);
    });
    ASSERT_TRUE(log_.wait_for(5));
    EXPECT_EQ(log_.tags(), "0 1 2 2 2 ");
    std::vector<int64_t> seconds = log_.seconds();
    EXPECT_GE(seconds[0], added_at + 1);
    EXPECT_GE(seconds[3], seconds[2] + 1);
    EXPECT_GE(seconds[4], seconds[3] + 1);
    EXPECT_EQ(dump_text(), "");
}

TEST_F(TimerTest, ShorterTimerTakesOverArmedHeadAndFiresFirst) {
    uint32_t slow = shot(100, 100);
    ASSERT_TRUE(wait_until_armed(slow));
    shot(1, 1);
    EXPECT_EQ(listing(), "1:10 0:00 ");
    // Without reprogramming the alarm, nothing would fire before the slow timer's 100 s.
    ASSERT_TRUE(log_.wait_for(1));
    EXPECT_EQ(log_.tags(), "1 ");
    EXPECT_TRUE(wait_until_armed(slow));
    EXPECT_EQ(listing(), "0:10 ");
}

TEST_F(TimerTest, CancelledArmedHeadIsDroppedAtItsAlarmWithoutRunning) {
    uint32_t slow = shot(100, 100);
    uint32_t head = shot(1, 1);
    // The argument is released now (the sanitizer builds catch a leak or a second release).
    timer_cancel(head, 1);
    EXPECT_EQ(listing(), "1:11 0:00 ");
    // Registered after the cancelled head with no earlier expiry: it can only run once the
    // cancelled head's alarm has come and gone.
    shot(1, 2);
    ASSERT_TRUE(log_.wait_for(1));
    EXPECT_EQ(log_.tags(), "2 ");
    EXPECT_TRUE(wait_until_armed(slow));
    EXPECT_EQ(listing(), "0:10 ");
}

TEST_F(TimerTest, CancelledPendingTimerIsRemovedAtOnce) {
    ASSERT_TRUE(wait_until_armed(shot(100, 0)));
    uint32_t freed_by_service = shot(200, 1);
    Shot *kept = make_shot(&log_, 2);
    uint32_t kept_by_caller = timer_add(300, 0, record_and_rearm, kept);
    timer_cancel(freed_by_service, 1);
    EXPECT_EQ(listing(), "0:10 2:00 ");
    timer_cancel(kept_by_caller, 0);
    free(kept);  // a release by the service as well would be a double free
    // Unknown ids, including ones already cancelled, change nothing.
    for (uint32_t id : {freed_by_service, kept_by_caller, 12345u}) {
        timer_cancel(id, 1);
    }
    EXPECT_EQ(listing(), "0:10 ");
    EXPECT_EQ(log_.tags(), "");
}

TEST_F(TimerTest, DestroyFreesPendingTimersAndServiceStartsAfresh) {
    shot(100, 0);
    Shot *cancelled_arg = make_shot(&log_, 1);
    timer_cancel(timer_add(50, 0, record_and_rearm, cancelled_arg), 0);  // armed head, kept
    timer_service_destroy();  // frees the pending timer's argument, not the cancelled one's
    free(cancelled_arg);

    ASSERT_EQ(timer_service_init(), 1);
    EXPECT_EQ(dump_text(), "");
    EXPECT_EQ(shot(1, 2), 0u);
    ASSERT_TRUE(log_.wait_for(1));
    EXPECT_EQ(log_.tags(), "2 ");
}

// A callback that holds the timer thread until the test lets it go.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool released = false;
    bool finished = false;
};
Gate *held_gate = nullptr;

void hold_at_gate(void *) {
    Gate &gate = *held_gate;
    std::unique_lock<std::mutex> lock(gate.mutex);
    gate.entered = true;
    gate.changed.notify_all();
    // A condition wait is a cancellation point: a stop request must not end the callback here.
    gate.changed.wait_for(lock, FIRE_DEADLINE, [&] { return gate.released; });
    gate.finished = gate.released;
}

TEST_F(TimerTest, DestroyLetsRunningCallbackFinish) {
    static Gate gate;
    held_gate = &gate;
    ASSERT_NE(timer_add(1, 0, hold_at_gate, nullptr), TIMER_ADD_FAILED);
    {
        std::unique_lock<std::mutex> lock(gate.mutex);
        ASSERT_TRUE(gate.changed.wait_for(lock, FIRE_DEADLINE, [&] { return gate.entered; }));
    }
    // Released while timer_service_destroy waits for the thread (or, on a slow machine,
    // before it starts waiting: the test then proves less but still holds).
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        std::lock_guard<std::mutex> guard(gate.mutex);
        gate.released = true;
        gate.changed.notify_all();
    });
    timer_service_destroy();
    releaser.join();
    {
        std::lock_guard<std::mutex> guard(gate.mutex);
        EXPECT_TRUE(gate.finished);
    }
    ASSERT_EQ(timer_service_init(), 1);
}

TEST(EchoTime, WritesWallClockTextAndSeconds) {
    time_t before = time(nullptr);
    echo_time();
    std::ifstream file("/tmp/echo_time");
    std::string line;
    ASSERT_TRUE(std::getline(file, line));
    size_t open = line.rfind(" [");
    ASSERT_NE(open, std::string::npos) << line;
    time_t written = static_cast<time_t>(std::stoul(line.substr(open + 2)));
    EXPECT_GE(written, before);
    EXPECT_LE(written, time(nullptr));
    // ctime's text with the double space before a one-digit day folded, as the shell's echo
    // writes it.
    char text[64];
    tm local{};
    strftime(text, sizeof text, "%a %b %-d %H:%M:%S %Y", localtime_r(&written, &local));
    EXPECT_EQ(line, std::string(text) + " [" + std::to_string(written) + "]");
}

}  // namespace
