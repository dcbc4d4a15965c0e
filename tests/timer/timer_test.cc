// Timer tasks: fixed-rate schedule with catch-up, cancellation points, and how
// a task ends (exception, empty function, dropped handle).
#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "orvane/timer.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using ovtest::monotonicSeconds;

namespace {

bool waitUntil(const std::function<bool()>& pred, double seconds) {
    const double end = monotonicSeconds() + seconds;
    while (!pred() && monotonicSeconds() < end) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return pred();
}

// Start and end times of the first calls; body(i) runs inside call i. Only the
// task's thread writes; a reader sees times[k] once the count passed k.
struct Calls {
    static constexpr int kKept = 16;
    std::atomic<int> started{0}, ended{0};
    double starts[kKept] = {}, ends[kKept] = {};
    std::function<void(int)> body;

    boost::function0<void> task() {
        return [this] {
            const int i = started;
            if (i < kKept) starts[i] = monotonicSeconds();
            started = i + 1;
            if (body) body(i);
            if (i < kKept) ends[i] = monotonicSeconds();
            ended = i + 1;
        };
    }
};

}  // namespace

TEST(Timer, OnceCallsOnceAfterTheDelay) {
    Calls calls;
    const double t0 = monotonicSeconds();
    auto task = ovSetTimer(calls.task(), pt::milliseconds(50), false);
    ASSERT_TRUE(waitUntil([&] { return calls.ended == 1; }, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(1, calls.started);
    EXPECT_GE(calls.starts[0] - t0, 0.045);
    task->cancel();  // the thread has ended: nothing to interrupt, no flag
    EXPECT_FALSE(task->is_cancelled());
}

TEST(Timer, RepeatingKeepsAFixedRateAndCatchesUpAfterAnOverrun) {
    // Period 200 ms; the first call takes 500 ms, so the deadlines at 400 and
    // 600 ms have passed when it returns: two calls follow at once, then the
    // next waits for 800 ms. A schedule counted from each call's end would not.
    Calls calls;
    calls.body = [](int i) {
        if (i == 0) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    };
    const double t0 = monotonicSeconds();
    auto task = ovSetTimer(calls.task(), pt::milliseconds(200), true);
    ASSERT_TRUE(waitUntil([&] { return calls.ended >= 4; }, 20));
    task->cancel();
    EXPECT_TRUE(task->is_cancelled());
    const int started = calls.started;
    for (int k = 0; k < 4; ++k) EXPECT_GE(calls.starts[k] - t0, (k + 1) * 0.2 - 0.002) << k;  // never early
    EXPECT_LT(calls.starts[1] - calls.ends[0], 0.1);
    EXPECT_LT(calls.starts[2] - calls.ends[1], 0.1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(started, calls.started) << "called after cancel() returned";
}

TEST(Timer, CancelDuringTheWaitOrAnInterruptibleCallReturnsPromptly) {
    Calls calls;
    for (bool repeat : {false, true}) {
        auto task = ovSetTimer(calls.task(), pt::seconds(30), repeat);
        const double t0 = monotonicSeconds();
        task->cancel();
        task->cancel();  // finds nothing to join
        EXPECT_LT(monotonicSeconds() - t0, 10.0) << "cancel waited for the deadline";
        EXPECT_TRUE(task->is_cancelled());
    }
    EXPECT_EQ(0, calls.started);

    calls.body = [](int) { boost::this_thread::sleep(pt::seconds(30)); };
    auto task = ovSetTimer(calls.task(), pt::milliseconds(1), false);
    ASSERT_TRUE(waitUntil([&] { return calls.started == 1; }, 10));
    const double t0 = monotonicSeconds();
    task->cancel();
    EXPECT_LT(monotonicSeconds() - t0, 10.0);
    EXPECT_TRUE(task->is_cancelled());
    EXPECT_EQ(0, calls.ended) << "the sleep was not interrupted";
}

TEST(Timer, CancelDuringAnUninterruptibleCallWaitsForItAndStopsTheTask) {
    Calls calls;
    calls.body = [](int i) {
        if (i == 0) std::this_thread::sleep_for(std::chrono::milliseconds(300));
    };
    auto task = ovSetTimer(calls.task(), pt::milliseconds(20), true);
    ASSERT_TRUE(waitUntil([&] { return calls.started == 1; }, 10));
    task->cancel();
    EXPECT_EQ(1, calls.ended) << "cancel returned while the call was still running";
    EXPECT_EQ(1, calls.started) << "the overdue next call ran";
    EXPECT_TRUE(task->is_cancelled());
}

TEST(Timer, ExceptionOrEmptyFunctionEndsTheTaskWithTheFlag) {
    Calls calls;
    calls.body = [](int) { throw std::runtime_error("boom"); };
    auto task = ovSetTimer(calls.task(), pt::milliseconds(10), true);
    ASSERT_TRUE(waitUntil([&] { return task->is_cancelled(); }, 10));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(1, calls.started) << "a repeating task went on after its function threw";
    for (bool repeat : {false, true}) {
        auto empty = ovSetTimer(boost::function0<void>(), pt::milliseconds(300), repeat);
        EXPECT_FALSE(empty->is_cancelled()) << "ended before its deadline";
        EXPECT_TRUE(waitUntil([&] { return empty->is_cancelled(); }, 10)) << repeat;
    }
}

TEST(Timer, DroppedHandleLeavesTheTaskRunning) {
    static Calls calls;  // outlives the test, as the task may
    static std::atomic<bool> stop(false);
    calls.body = [](int) {
        if (stop) throw std::runtime_error("stop");  // the only way left to end it
    };
    const int threadsBefore = ovtest::countThreads();
    ovSetTimer(calls.task(), pt::milliseconds(10), true);
    EXPECT_TRUE(waitUntil([&] { return calls.started >= 3; }, 10));
    stop = true;
    EXPECT_TRUE(waitUntil([&] { return ovtest::countThreads() == threadsBefore; }, 10));
}

// Local time jumping an hour back (daylight-saving time ending) must not stall
// a repeating task: a lock file's refresh runs on one.
TEST(Timer, KeepsItsRateWhenLocalTimeJumps) {
    for (bool dstStarts : {false, true}) {
        const std::string rule = ovtest::tzRuleSwitchingIn(1.0, dstStarts);
        ovtest::Child child = ovtest::forkChild([&] {
            setenv("TZ", rule.c_str(), 1);
            tzset();
            std::atomic<int> n{0};
            auto task = ovSetTimer([&] { ++n; }, pt::milliseconds(100), true);
            std::this_thread::sleep_for(std::chrono::milliseconds(3000));
            task->cancel();
            // 30 calls due; a burst of catch-up calls would be as wrong as none.
            return n >= 20 && n <= 32 ? 0 : 10 + std::min(n.load(), 100);
        });
        EXPECT_EQ(child.wait(30), 0) << rule;
    }
}
