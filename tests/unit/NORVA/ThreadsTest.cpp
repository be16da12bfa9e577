#include "System/Threads.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Platform.h"

#if defined(__linux__)
// Only to arrange and to observe what the library asked of the scheduler.
#include <sched.h>
#include <sys/resource.h>
#endif

namespace {

using namespace std::chrono_literals;
using NORVA::SteadyClock;

TEST(ThreadLevels, ClassesAndMasks) {
    const std::pair<std::uint32_t, int> classes[] = {{256, 0}, {128, 1},   {32768, 1}, {32, 2},
                                                     {0, 2},   {16384, 3}, {64, 3}};
    for (const auto& [cls, level] : classes) EXPECT_EQ(NORVA::classLevel(cls), level) << cls;

    const int most = std::numeric_limits<int>::max();
    const std::tuple<int, int, std::uint32_t> masks[] = {
        {2, 3, 0x1Cu}, {31, 2, 0x80000000u}, {0, 32, 0xFFFFFFFFu}, {3, 0, 0u},
        {32, 4, 0u},   {-1, 2, 0x1u},        {most, most, 0u}};
    for (const auto& [first, count, mask] : masks) EXPECT_EQ(NORVA::processorMask(first, count), mask);
}

// Each processor this process may use takes a thread pinned to it, placed by itself or through its id.
TEST(ThreadProcessors, PinnedThreadRunsThere) {
    int usable = 0;
    std::thread([&] {
        EXPECT_FALSE(NORVA::setCurrentThreadProcessors(0, 0)) << "an empty range is refused";
        EXPECT_FALSE(NORVA::setThreadProcessors(32, 2, NORVA::currentThreadId()));
        for (int p = 0; p < std::min<int>(NORVA::processorCount(), 32); ++p) {
            bool placed = p % 2 ? NORVA::setCurrentThreadProcessors(p, 1)
                                : NORVA::setThreadProcessors(p, 1, NORVA::currentThreadId());
            if (!placed) continue;
            NORVA::yield();
            EXPECT_EQ(NORVA::Platform::currentProcessor(), std::uint32_t(p));
            ++usable;
        }
    }).join();
    EXPECT_GT(usable, 0);
}

TEST(SteadyClock, CounterScalingAndDeadlines) {
    EXPECT_TRUE(SteadyClock::nanoseconds(123, 10'000'000) == 12300 &&
                SteadyClock::nanoseconds(24'000'000ull * 5 + 12'000'000, 24'000'000) == 5'500'000'000);
    // A year of a 3 GHz counter: counter times 10^9 would overflow 64 bits.
    const std::uint64_t year = 365ull * 86400;
    EXPECT_EQ(SteadyClock::nanoseconds(3'000'000'000ull * year + 1'500'000'000, 3'000'000'000),
              std::int64_t(year * 1'000'000'000 + 500'000'000));

    const SteadyClock::time_point now{SteadyClock::duration(1'000)};
    EXPECT_TRUE(NORVA::deadlineAfter(now, 0ns) == now && NORVA::deadlineAfter(now, -5s) == now);
    EXPECT_EQ(NORVA::deadlineAfter(now, 10ms).time_since_epoch().count(), 10'001'000);
    const auto nearEnd = SteadyClock::time_point::max() - 10ns;
    EXPECT_EQ(NORVA::deadlineAfter(nearEnd, 1s), SteadyClock::time_point::max());
    EXPECT_EQ(NORVA::deadlineAfter(nearEnd, 9ns), SteadyClock::time_point::max() - 1ns);
}

// Waits that end on a notification are the stream tests' daily bread; the
// deadline is what only this test reaches.
TEST(BoundedWait, EndsAtTheDeadline) {
    const auto first = SteadyClock::now();
    NORVA::sleepUntil(first + 5ms);
    EXPECT_GE(SteadyClock::now(), first + 5ms);

    std::mutex mutex;
    std::condition_variable changed;
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = NORVA::deadlineAfter(10ms);
    int asked = 0;
    EXPECT_FALSE(NORVA::waitUntil(changed, lock, deadline, [&] { return ++asked < 0; }));
    EXPECT_TRUE(SteadyClock::now() >= deadline && asked >= 1 && lock.owns_lock());
    // A passed deadline still tests the condition once.
    EXPECT_TRUE(NORVA::waitUntil(changed, lock, SteadyClock::time_point{}, [] { return true; }));
    EXPECT_FALSE(NORVA::waitFor(changed, lock, -1ms, [] { return false; }));
}

#if defined(__linux__)

int policyOf(NORVA::ThreadId id, int* priority = nullptr) {
    sched_param param{};
    sched_getparam(pid_t(id), &param);
    if (priority) *priority = param.sched_priority;
    return sched_getscheduler(pid_t(id)) & ~SCHED_RESET_ON_FORK;
}

// Levels reach the scheduler for the thread named only. A thread that will never sleep leaves SCHED_FIFO,
// which the kernel throttles, for the strongest normal priority; a normal one stays as it is.
TEST(ThreadLevelsLinux, LevelsReachTheScheduler) {
    const int mainPolicy = policyOf(NORVA::currentThreadId());
    std::vector<int> policies, priorities;
    bool rt = false, spinnerMoved = false, normalMoved = true;
    int spinnerNice = 0;
    std::thread([&] {
        const NORVA::ThreadId self = NORVA::currentThreadId();
        for (int level : {2, 3, 0, 1}) {
            bool set = NORVA::setThreadLevel(level, self);
            EXPECT_TRUE(set || level < 2) << level;
            rt = level == 0 ? set : rt;
            priorities.push_back(0);
            policies.push_back(policyOf(self, &priorities.back()));
        }
        NORVA::setThreadLevel(2, self);
        normalMoved = NORVA::keepCurrentSpinnerRunnable();
        NORVA::setCurrentThreadLevel(NORVA::levelCritical);
        spinnerMoved = NORVA::keepCurrentSpinnerRunnable();
        spinnerNice = policyOf(self) == SCHED_OTHER ? getpriority(PRIO_PROCESS, id_t(self)) : 1;
    }).join();
    EXPECT_EQ(policyOf(NORVA::currentThreadId()), mainPolicy) << "only the thread named was changed";
    EXPECT_EQ(policies, (std::vector<int>{SCHED_OTHER, SCHED_IDLE, rt ? SCHED_FIFO : policies[2],
                                          rt ? SCHED_FIFO : policies[3]}));
    EXPECT_FALSE(normalMoved);
    if (!rt) GTEST_SKIP() << "real-time scheduling refused here";
    EXPECT_TRUE(priorities[2] > priorities[3] && priorities[3] > 0);
    EXPECT_TRUE(spinnerMoved);
    EXPECT_EQ(spinnerNice, -20);
}

#else

TEST(ThreadLevels, EveryLevelCanBeSetOnOwnThread) {
    std::thread([] {
        for (int level : {0, 1, 3, 2}) EXPECT_TRUE(NORVA::setCurrentThreadLevel(level)) << level;
        EXPECT_TRUE(NORVA::setThreadLevel(1, NORVA::currentThreadId()));
    }).join();
}

#endif

}  // namespace
