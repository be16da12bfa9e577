#include "System/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "Platform/Platform.h"

#if defined(__linux__)
// Only to arrange and to observe what the library asked of the scheduler.
#include <grp.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace {

using namespace std::chrono_literals;
using NORVA::SteadyClock;

TEST(ThreadLevels, TablesAndMasks) {
    const int priorities[] = {15, 2, 0, -15, 0};
    for (int level = 0; level < 5; ++level)
        EXPECT_EQ(NORVA::priorityValue(level), priorities[level]) << level;
    const std::pair<std::uint32_t, int> classes[] = {{256, 0}, {128, 1},   {32768, 1}, {32, 2},
                                                     {0, 2},   {16384, 3}, {64, 3}};
    for (const auto& [cls, level] : classes) EXPECT_EQ(NORVA::classLevel(cls), level) << cls;

    const int most = std::numeric_limits<int>::max();
    const std::tuple<int, int, std::uint32_t> masks[] = {
        {2, 3, 0x1Cu}, {31, 2, 0x80000000u}, {0, 32, 0xFFFFFFFFu}, {3, 0, 0u},
        {32, 4, 0u},   {-1, 2, 0x1u},        {most, most, 0u}};
    for (const auto& [first, count, mask] : masks) EXPECT_EQ(NORVA::processorMask(first, count), mask);
}

// Each processor this process may use takes a thread pinned to it, placed
// by itself or through its id.
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
    EXPECT_EQ(SteadyClock::nanoseconds(123, 10'000'000), 12300);
    EXPECT_EQ(SteadyClock::nanoseconds(24'000'000ull * 5 + 12'000'000, 24'000'000), 5'500'000'000);
    // A year of a 3 GHz counter: counter times 10^9 would overflow 64 bits.
    const std::uint64_t year = 365ull * 86400;
    EXPECT_EQ(SteadyClock::nanoseconds(3'000'000'000ull * year + 1'500'000'000, 3'000'000'000),
              std::int64_t(year * 1'000'000'000 + 500'000'000));

    const SteadyClock::time_point now{SteadyClock::duration(1'000)};
    EXPECT_EQ(NORVA::deadlineAfter(now, 0ns), now);
    EXPECT_EQ(NORVA::deadlineAfter(now, -5s), now);
    EXPECT_EQ(NORVA::deadlineAfter(now, 10ms).time_since_epoch().count(), 10'001'000);
    const auto nearEnd = SteadyClock::time_point::max() - 10ns;
    EXPECT_EQ(NORVA::deadlineAfter(nearEnd, 1s), SteadyClock::time_point::max());
    EXPECT_EQ(NORVA::deadlineAfter(nearEnd, 9ns), SteadyClock::time_point::max() - 1ns);
}

TEST(BoundedWait, EndsAtDeadlineOrOnNotify) {
    const auto first = SteadyClock::now();
    NORVA::sleepUntil(first + 15ms);
    EXPECT_GE(SteadyClock::now(), first + 15ms);

    std::mutex mutex;
    std::condition_variable changed;
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = NORVA::deadlineAfter(20ms);
    int asked = 0;
    EXPECT_FALSE(NORVA::waitUntil(changed, lock, deadline, [&] { return ++asked < 0; }));
    EXPECT_GE(SteadyClock::now(), deadline);
    EXPECT_GE(asked, 1);
    EXPECT_TRUE(lock.owns_lock());
    // A passed deadline still tests the condition once.
    EXPECT_TRUE(NORVA::waitUntil(changed, lock, SteadyClock::time_point{}, [] { return true; }));
    EXPECT_FALSE(NORVA::waitFor(changed, lock, -1ms, [] { return false; }));

    // A deadline far away: only the notification can end this wait.
    bool ready = false;
    std::thread setter([&] {
        std::lock_guard<std::mutex> guard(mutex);
        ready = true;
        changed.notify_one();
    });
    EXPECT_TRUE(NORVA::waitUntil(changed, lock, SteadyClock::time_point::max(), [&] { return ready; }));
    lock.unlock();
    setter.join();
}

#if defined(__linux__)

// The child's exit code, or -1 if it didn't exit normally; it leaves with _exit.
template <class Body>
int inChildProcess(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int policyOf(NORVA::ThreadId id, int* priority = nullptr) {
    sched_param param{};
    sched_getparam(pid_t(id), &param);
    if (priority) *priority = param.sched_priority;
    return sched_getscheduler(pid_t(id)) & ~SCHED_RESET_ON_FORK;
}

// Levels reach the scheduler for the thread named only. A thread that will
// never sleep leaves SCHED_FIFO, which the kernel throttles, for the strongest
// normal priority; a normal one stays as it is.
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
    EXPECT_EQ(policies[0], SCHED_OTHER);
    EXPECT_EQ(policies[1], SCHED_IDLE);
    EXPECT_FALSE(normalMoved);
    if (!rt) GTEST_SKIP() << "real-time scheduling refused here; the refusal test covers this case";
    EXPECT_EQ(policies[2], SCHED_FIFO);
    EXPECT_EQ(policies[3], SCHED_FIFO);
    EXPECT_GT(priorities[2], priorities[3]);
    EXPECT_GT(priorities[3], 0);
    EXPECT_TRUE(spinnerMoved);
    EXPECT_EQ(spinnerNice, -20);
}

TEST(ThreadLevelsLinux, RefusedRealTimeIsReported) {
    const int code = inChildProcess([] {
        rlimit none{0, 0};
        if (setrlimit(RLIMIT_RTPRIO, &none) != 0) return 10;
        // Giving up root clears every capability, CAP_SYS_NICE among them.
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
            return 11;
        sched_param param{};
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_FIFO, &param) == 0) return 12;
        if (NORVA::setCurrentThreadLevel(0)) return 1;   // refused critical reported as success
        if (NORVA::setCurrentThreadLevel(1)) return 2;   // refused high reported as success
        if (!NORVA::setCurrentThreadLevel(2)) return 3;  // normal failed
        return 0;
    });
    if (code >= 10)
        GTEST_SKIP() << "could not arrange a refusal of real-time scheduling (step " << code << ")";
    EXPECT_EQ(code, 0);
}

// The child reports the step of the first mismatch.
TEST(ThreadLevelsLinux, ProcessClassFollowsNiceAndPolicy) {
    const int code = inChildProcess([] {
        auto mismatch = [](std::uint32_t cls, int level) {
            return NORVA::Platform::processPriorityClass() != cls || NORVA::processLevel() != level;
        };
        // Higher nice values last: an unprivileged process can't go back.
        const std::tuple<int, std::uint32_t, int> steps[] = {
            {-11, 128, 1}, {-10, 32768, 1}, {0, 32, 2}, {1, 16384, 3}, {19, 64, 3}};
        int index = 0;
        for (const auto& [nice, cls, level] : steps) {
            ++index;
            if (setpriority(PRIO_PROCESS, 0, nice) == 0 && mismatch(cls, level)) return index;
        }
        // Normal keeps a thread at its process's nice: nice 0 would lift it
        // above its process, which Windows never does.
        int result = 0;
        std::thread([&] {
            if (!NORVA::setCurrentThreadLevel(2)) result = 50;
            if (getpriority(PRIO_PROCESS, id_t(NORVA::currentThreadId())) != 19) result = 51;
        }).join();
        if (result != 0) return result;
        // Policies come ahead of nice values.
        sched_param param{};
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_FIFO, &param) == 0 && mismatch(256, 0)) return 40;
        param.sched_priority = 0;
        if (sched_setscheduler(0, SCHED_IDLE, &param) != 0) return 41;
        if (mismatch(64, 3)) return 42;
        return 0;
    });
    EXPECT_EQ(code, 0) << "see the step number in the child";
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
