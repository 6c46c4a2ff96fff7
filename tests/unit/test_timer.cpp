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
#include <string>
#include <thread>
#include <vector>

#include "util/timer.h"

namespace {

constexpr auto FIRE_DEADLINE = std::chrono::seconds(10);
constexpr auto ARM_DEADLINE = std::chrono::seconds(5);

struct Firing {
    int tag;
    int64_t sec;  // the service's clock when the callback ran
};

class FireLog {
  public:
    void record(int tag) {
        std::lock_guard<std::mutex> guard(mutex_);
        firings_.push_back(Firing{tag, timer_now().sec});
        changed_.notify_all();
    }
    bool wait_for(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, FIRE_DEADLINE, [&] { return firings_.size() >= count; });
    }
    std::vector<Firing> firings() {
        std::lock_guard<std::mutex> guard(mutex_);
        return firings_;
    }
    std::vector<int> tags() {
        std::vector<int> tags;
        for (const Firing &firing : firings()) {
            tags.push_back(firing.tag);
        }
        return tags;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Firing> firings_;
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

void record_once(void *arg) {
    Shot *shot = static_cast<Shot *>(arg);
    shot->log->record(shot->tag);
    free(shot);
}

// A periodic job: records its run, then registers itself again while runs are left.
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

struct DumpLine {
    int line;
    int id;
    unsigned sec;
    unsigned usec;
    int in_use;
    int cancelled;
};

std::string dump_text() {
    testing::internal::CaptureStdout();
    timer_dump();
    return testing::internal::GetCapturedStdout();
}

std::vector<DumpLine> dump_lines() {
    std::vector<DumpLine> lines;
    std::string text = dump_text();
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        EXPECT_NE(end, std::string::npos) << "unterminated dump line";
        if (end == std::string::npos) {
            break;
        }
        std::string raw = text.substr(start, end - start);
        DumpLine line{};
        int consumed = 0;
        int fields = sscanf(
            raw.c_str(), "Timer %d: id=<%d>, expire=<%u,%u>, in_use=<%d>, cancelled=<%d>%n",
            &line.line, &line.id, &line.sec, &line.usec, &line.in_use, &line.cancelled, &consumed);
        EXPECT_EQ(fields, 6) << raw;
        EXPECT_EQ(static_cast<size_t>(consumed), raw.size()) << raw;
        lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

std::vector<int> dump_ids() {
    std::vector<int> ids;
    for (const DumpLine &line : dump_lines()) {
        ids.push_back(line.id);
    }
    return ids;
}

// The timer thread programs the alarm for a head it finds on its own shortly after the list
// becomes non-empty; tests that need the alarm programmed for a node wait for that.
bool wait_until_armed(uint32_t id) {
    auto deadline = std::chrono::steady_clock::now() + ARM_DEADLINE;
    while (std::chrono::steady_clock::now() < deadline) {
        std::vector<DumpLine> lines = dump_lines();
        if (!lines.empty() && lines[0].id == static_cast<int>(id) && lines[0].in_use == 1) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

class TimerTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(timer_service_init(), 1); }
    void TearDown() override { timer_service_destroy(); }

    void restart_service() {
        timer_service_destroy();
        ASSERT_EQ(timer_service_init(), 1);
    }

    // Runs add_all until the clock's second did not change while it ran, so that equal delays
    // give equal expiries. Returns that second; a retry starts from a fresh service.
    int64_t add_in_one_second(const std::function<void()> &add_all) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            int64_t before = timer_now().sec;
            add_all();
            if (timer_now().sec == before) {
                return before;
            }
            restart_service();
        }
        ADD_FAILURE() << "the clock's second kept changing while timers were added";
        return 0;
    }

    FireLog log_;
};

struct RejectedAdd {
    const char *why;
    int64_t sec;
    int64_t usec;
    timer_callback callback;
};

TEST_F(TimerTest, InvalidArgumentsRegisterNothing) {
    const RejectedAdd rejected[] = {
        {"both delays zero", 0, 0, never_fires},
        {"negative seconds", -1, 0, never_fires},
        {"negative seconds, positive microseconds", -1, 500000, never_fires},
        {"negative microseconds", 0, -1, never_fires},
        {"positive seconds, negative microseconds", 1, -1, never_fires},
        {"smallest seconds", std::numeric_limits<int64_t>::min(), 0, never_fires},
        {"null callback", 1, 0, nullptr},
    };
    for (const RejectedAdd &add : rejected) {
        EXPECT_EQ(timer_add(add.sec, add.usec, add.callback, nullptr), TIMER_ADD_FAILED) << add.why;
    }
    EXPECT_EQ(dump_text(), "");
    // A rejected registration takes no id.
    EXPECT_EQ(timer_add(100, 0, never_fires, nullptr), 0u);
}

TEST_F(TimerTest, DumpShowsFractionalDelayExpiryAndArmedHead) {
    uint32_t slow = 0;
    uint32_t fractional = 0;
    int64_t now = add_in_one_second([&] {
        slow = timer_add(100, 0, never_fires, nullptr);
        // Becomes the head at once, so the alarm is programmed for it before timer_add returns.
        fractional = timer_add(0, 1500000, never_fires, nullptr);
    });
    EXPECT_EQ(slow, 0u);
    EXPECT_EQ(fractional, 1u);
    char expected[256];
    snprintf(expected, sizeof expected,
             "Timer 0: id=<1>, expire=<%u,500555>, in_use=<1>, cancelled=<0>\n"
             "Timer 1: id=<0>, expire=<%u,555>, in_use=<0>, cancelled=<0>\n",
             static_cast<unsigned>(now + 1), static_cast<unsigned>(now + 100));
    EXPECT_EQ(dump_text(), expected);
}

struct ExpiryCase {
    int64_t sec;
    int64_t usec;
    int64_t later_sec;  // expected expiry: now + later_sec seconds ...
    unsigned usec_at;   // ... and this many microseconds
};

TEST_F(TimerTest, ExpiryCarriesMicrosecondsIntoSeconds) {
    // Delays of 7 s and more: none of these fires while the test looks at the list.
    const ExpiryCase cases[] = {
        {10, 999444, 10, 999999},        {10, 999445, 11, 0}, {10, 1500000, 11, 500555},
        {0, 30000000, 30, 555},          {7, 0, 7, 555},      {20, 2999999, 23, 554},
        {0, 12345678901, 12345, 679456},
    };
    std::vector<uint32_t> ids;
    int64_t now = add_in_one_second([&] {
        ids.clear();
        for (const ExpiryCase &c : cases) {
            ids.push_back(timer_add(c.sec, c.usec, never_fires, nullptr));
        }
    });
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(testing::Message()
                     << "delay " << cases[i].sec << " s " << cases[i].usec << " us");
        bool found = false;
        for (const DumpLine &line : lines) {
            if (line.id == static_cast<int>(ids[i])) {
                found = true;
                EXPECT_EQ(line.sec, static_cast<unsigned>(now + cases[i].later_sec));
                EXPECT_EQ(line.usec, cases[i].usec_at);
            }
        }
        EXPECT_TRUE(found);
    }
}

TEST_F(TimerTest, ExpiryBeyondLargestSecondCountStaysThereAndCanBeArmed) {
    uint32_t far = timer_add(std::numeric_limits<int64_t>::max(), 999999, never_fires, nullptr);
    ASSERT_NE(far, TIMER_ADD_FAILED);
    // A failed setitimer would end the process: being armed proves the alarm was accepted.
    ASSERT_TRUE(wait_until_armed(far));
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].sec, 0xFFFFFFFFu);  // low 32 bits of the largest 64-bit count
    EXPECT_EQ(lines[0].usec, 554u);
}

TEST_F(TimerTest, ListIsSortedByExpiryWithTiesInRegistrationOrder) {
    // id:                  0    1   2    3    4   5   6
    const int64_t delays[] = {100, 50, 100, 200, 50, 10, 100};
    add_in_one_second([&] {
        for (int64_t delay : delays) {
            ASSERT_NE(timer_add(delay, 0, never_fires, nullptr), TIMER_ADD_FAILED);
        }
    });
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), std::size(delays));
    std::vector<int> ids;
    for (const DumpLine &line : lines) {
        ids.push_back(line.id);
        EXPECT_EQ(line.line, static_cast<int>(ids.size()) - 1);
        EXPECT_EQ(line.cancelled, 0);
        // Only the head, which took over from an earlier head, has the alarm.
        EXPECT_EQ(line.in_use, line.line == 0 ? 1 : 0) << "timer " << line.id;
    }
    EXPECT_EQ(ids, (std::vector<int>{5, 1, 4, 0, 2, 6, 3}));
}

TEST_F(TimerTest, EqualExpiriesFireInRegistrationOrder) {
    int64_t added_at = add_in_one_second([&] {
        for (int tag = 0; tag < 3; ++tag) {
            ASSERT_NE(timer_add(1, 0, record_once, make_shot(&log_, tag)), TIMER_ADD_FAILED);
        }
    });
    ASSERT_TRUE(log_.wait_for(3));
    EXPECT_EQ(log_.tags(), (std::vector<int>{0, 1, 2}));
    for (const Firing &firing : log_.firings()) {
        EXPECT_GE(firing.sec, added_at + 1) << "timer " << firing.tag << " fired early";
    }
    EXPECT_EQ(dump_text(), "");
}

TEST_F(TimerTest, ShorterTimerTakesOverArmedHeadAndFiresFirst) {
    uint32_t slow = timer_add(100, 0, record_once, make_shot(&log_, 100));
    ASSERT_TRUE(wait_until_armed(slow));
    int64_t added_at = timer_now().sec;
    uint32_t quick = timer_add(1, 0, record_once, make_shot(&log_, 1));
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].id, static_cast<int>(quick));
    EXPECT_EQ(lines[0].in_use, 1);
    EXPECT_EQ(lines[1].id, static_cast<int>(slow));
    EXPECT_EQ(lines[1].in_use, 0);
    // Without reprogramming the alarm, nothing would fire before the slow timer's 100 s.
    ASSERT_TRUE(log_.wait_for(1));
    EXPECT_EQ(log_.tags(), std::vector<int>{1});
    EXPECT_GE(log_.firings()[0].sec, added_at + 1);
    EXPECT_EQ(dump_ids(), std::vector<int>{static_cast<int>(slow)});
}

TEST_F(TimerTest, CallbackRearmingItselfRunsPeriodically) {
    int64_t added_at = timer_now().sec;
    ASSERT_EQ(timer_add(1, 0, record_and_rearm, make_shot(&log_, 7, 3)), 0u);
    ASSERT_TRUE(log_.wait_for(3));
    std::vector<Firing> firings = log_.firings();
    ASSERT_EQ(firings.size(), 3u);
    // Each period counts from the run that registered it.
    EXPECT_GE(firings[0].sec, added_at + 1);
    EXPECT_GE(firings[1].sec, firings[0].sec + 1);
    EXPECT_GE(firings[2].sec, firings[1].sec + 1);
    // The last run registered nothing more.
    EXPECT_EQ(dump_text(), "");
}

TEST_F(TimerTest, CancelledArmedHeadIsDroppedAtItsAlarmWithoutRunning) {
    uint32_t slow = timer_add(100, 0, record_once, make_shot(&log_, 100));
    uint32_t head = timer_add(1, 0, record_once, make_shot(&log_, 1));
    ASSERT_EQ(dump_ids(), (std::vector<int>{static_cast<int>(head), static_cast<int>(slow)}));

    // The argument is released now (the sanitizer builds catch a leak or a second release).
    timer_cancel(head, 1);
    std::vector<DumpLine> lines = dump_lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].id, static_cast<int>(head));
    EXPECT_EQ(lines[0].in_use, 1);
    EXPECT_EQ(lines[0].cancelled, 1);

    // Registered after the cancelled head with no earlier expiry: it can only run once the
    // cancelled head's alarm has come and gone.
    ASSERT_NE(timer_add(1, 0, record_once, make_shot(&log_, 2)), TIMER_ADD_FAILED);
    ASSERT_TRUE(log_.wait_for(1));
    EXPECT_EQ(log_.tags(), std::vector<int>{2});
    EXPECT_EQ(dump_ids(), std::vector<int>{static_cast<int>(slow)});
}

TEST_F(TimerTest, CancelledPendingTimerIsRemovedAtOnce) {
    uint32_t first = timer_add(100, 0, record_once, make_shot(&log_, 0));
    uint32_t freed_by_service = timer_add(200, 0, record_once, make_shot(&log_, 1));
    Shot *kept = make_shot(&log_, 2);
    uint32_t kept_by_caller = timer_add(300, 0, record_once, kept);
    ASSERT_EQ(dump_ids().size(), 3u);

    timer_cancel(freed_by_service, 1);
    EXPECT_EQ(dump_ids(),
              (std::vector<int>{static_cast<int>(first), static_cast<int>(kept_by_caller)}));

    timer_cancel(kept_by_caller, 0);
    EXPECT_EQ(dump_ids(), std::vector<int>{static_cast<int>(first)});
    free(kept);  // a release by the service as well would be a double free

    // Unknown ids, including ones already cancelled, change nothing.
    timer_cancel(freed_by_service, 1);
    timer_cancel(kept_by_caller, 1);
    timer_cancel(12345, 1);
    EXPECT_EQ(dump_ids(), std::vector<int>{static_cast<int>(first)});
    EXPECT_TRUE(log_.tags().empty());
}

TEST_F(TimerTest, DestroyFreesPendingTimersAndServiceStartsAfresh) {
    timer_add(100, 0, record_once, make_shot(&log_, 0));
    Shot *cancelled_arg = make_shot(&log_, 1);
    uint32_t head = timer_add(50, 0, record_once, cancelled_arg);
    timer_cancel(head, 0);  // armed head, argument left to the caller
    ASSERT_EQ(dump_ids().size(), 2u);

    timer_service_destroy();  // frees the pending timer's argument, not the cancelled one's
    free(cancelled_arg);

    ASSERT_EQ(timer_service_init(), 1);
    EXPECT_EQ(dump_text(), "");
    EXPECT_EQ(timer_add(1, 0, record_once, make_shot(&log_, 2)), 0u);
    ASSERT_TRUE(log_.wait_for(1));
    EXPECT_EQ(log_.tags(), std::vector<int>{2});
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
    time_t after = time(nullptr);
    std::ifstream file("/tmp/echo_time");
    ASSERT_TRUE(file.is_open());
    std::string line;
    ASSERT_TRUE(std::getline(file, line));

    size_t open = line.rfind(" [");
    ASSERT_NE(open, std::string::npos) << line;
    ASSERT_EQ(line.back(), ']') << line;
    unsigned long written = std::stoul(line.substr(open + 2, line.size() - open - 3));
    EXPECT_GE(written, static_cast<unsigned long>(before));
    EXPECT_LE(written, static_cast<unsigned long>(after));

    time_t written_time = static_cast<time_t>(written);
    char text[64];
    ASSERT_NE(ctime_r(&written_time, text), nullptr);
    std::string expected(text);
    expected.pop_back();  // ctime's newline
    // The shell's echo folds the double space ctime puts before a one-digit day.
    std::string folded;
    for (char c : expected) {
        if (!(c == ' ' && !folded.empty() && folded.back() == ' ')) {
            folded.push_back(c);
        }
    }
    EXPECT_EQ(line.substr(0, open), folded);
}

}  // namespace
