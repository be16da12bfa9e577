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

TEST(ThreadLevels, Tables) {
    EXPECT_EQ(NORVA::priorityValue(0), 15);
    EXPECT_EQ(NORVA::priorityValue(1), 2);
    EXPECT_EQ(NORVA::priorityValue(2), 0);
    EXPECT_EQ(NORVA::priorityValue(3), -15);
    EXPECT_EQ(NORVA::priorityValue(4), 0);

    EXPECT_EQ(NORVA::classLevel(256), 0);
    EXPECT_EQ(NORVA::classLevel(128), 1);
    EXPECT_EQ(NORVA::classLevel(32768), 1);
    EXPECT_EQ(NORVA::classLevel(32), 2);
    EXPECT_EQ(NORVA::classLevel(16384), 3);
    EXPECT_EQ(NORVA::classLevel(64), 3);
    EXPECT_EQ(NORVA::classLevel(0), 2);
}

TEST(ThreadProcessors, Masks) {
    EXPECT_EQ(NORVA::processorMask(2, 3), 0x1Cu);
    EXPECT_EQ(NORVA::processorMask(31, 2), 0x80000000u);
    EXPECT_EQ(NORVA::processorMask(0, 32), 0xFFFFFFFFu);
    EXPECT_EQ(NORVA::processorMask(3, 0), 0u);
    EXPECT_EQ(NORVA::processorMask(32, 4), 0u);
    EXPECT_EQ(NORVA::processorMask(-1, 2), 0x1u);
    EXPECT_EQ(NORVA::processorMask(std::numeric_limits<int>::max(), std::numeric_limits<int>::max()), 0u);
}

// Runs body on a thread of its own, so that the test thread keeps its
// placement and priority.
template <class Body>
void onOwnThread(Body body) {
    std::thread thread(body);
    thread.join();
}

// The processors this process may use, each found by pinning a thread to
// it and seeing the thread run there.
std::vector<int> pinnableProcessors() {
    std::vector<int> found;
    onOwnThread([&] {
        // An empty range is refused by the system.
        EXPECT_FALSE(NORVA::setCurrentThreadProcessors(0, 0));
        EXPECT_FALSE(NORVA::setThreadProcessors(32, 2, NORVA::currentThreadId()));
        int count = std::min<int>(NORVA::processorCount(), 32);
        for (int p = 0; p < count; ++p) {
            if (!NORVA::setCurrentThreadProcessors(p, 1)) continue;
            NORVA::yield();
            EXPECT_EQ(NORVA::Platform::currentProcessor(), std::uint32_t(p));
            found.push_back(p);
        }
    });
    return found;
}

TEST(ThreadProcessors, PinnedThreadRunsThere) {
    ASSERT_GE(NORVA::processorCount(), 1);
    std::vector<int> usable = pinnableProcessors();
    ASSERT_FALSE(usable.empty());

    // Placed by another thread through its id.
    std::mutex mutex;
    std::condition_variable changed;
    bool go = false;
    std::atomic<NORVA::ThreadId> id{0};
    std::uint32_t ranOn = 0xFFFFFFFF;
    std::thread worker([&] {
        id.store(NORVA::currentThreadId());
        std::unique_lock<std::mutex> lock(mutex);
        changed.notify_all();
        while (!NORVA::waitFor(changed, lock, 100ms, [&] { return go; })) {
        }
        ranOn = NORVA::Platform::currentProcessor();
    });
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!NORVA::waitFor(changed, lock, 100ms, [&] { return id.load() != 0; })) {
        }
    }
    const int target = usable.back();
    const bool placed = NORVA::setThreadProcessors(target, 1, id.load());
    {
        std::lock_guard<std::mutex> lock(mutex);
        go = true;
    }
    changed.notify_all();
    worker.join();
    ASSERT_TRUE(placed);
    EXPECT_EQ(ranOn, std::uint32_t(target));
}

TEST(SteadyClock, CounterScaling) {
    EXPECT_EQ(SteadyClock::nanoseconds(123, 10'000'000), 12300);
    EXPECT_EQ(SteadyClock::nanoseconds(24'000'000ull * 5 + 12'000'000, 24'000'000), 5'500'000'000);
    // A year of a 3 GHz counter: counter times 10^9 would overflow 64 bits.
    const std::uint64_t year = 365ull * 86400;
    EXPECT_EQ(SteadyClock::nanoseconds(3'000'000'000ull * year + 1'500'000'000, 3'000'000'000),
              std::int64_t(year * 1'000'000'000 + 500'000'000));
}

TEST(SteadyClock, DeadlineSaturates) {
    const SteadyClock::time_point now{SteadyClock::duration(1'000)};
    EXPECT_EQ(NORVA::deadlineAfter(now, 0ns), now);
    EXPECT_EQ(NORVA::deadlineAfter(now, -5s), now);
    EXPECT_EQ(NORVA::deadlineAfter(now, 10ms).time_since_epoch().count(), 10'001'000);
    const auto nearEnd = SteadyClock::time_point::max() - 10ns;
    EXPECT_EQ(NORVA::deadlineAfter(nearEnd, 1s), SteadyClock::time_point::max());
    EXPECT_EQ(NORVA::deadlineAfter(nearEnd, 9ns), SteadyClock::time_point::max() - 1ns);
}

TEST(SteadyClock, SleepUntilReachesItsPoint) {
    const auto first = SteadyClock::now();
    const auto point = first + 15ms;
    NORVA::sleepUntil(point);
    EXPECT_GE(SteadyClock::now(), point);
    // A point already passed returns at once.
    NORVA::sleepUntil(first);
    NORVA::sleepUntil(SteadyClock::now() + 300us);
    EXPECT_GE(SteadyClock::now(), first);
}

TEST(BoundedWait, EndsAtDeadlineWhenNeverNotified) {
    std::mutex mutex;
    std::condition_variable changed;
    std::unique_lock<std::mutex> lock(mutex);
    const auto deadline = NORVA::deadlineAfter(20ms);
    int asked = 0;
    EXPECT_FALSE(NORVA::waitUntil(changed, lock, deadline, [&] {
        ++asked;
        return false;
    }));
    EXPECT_GE(SteadyClock::now(), deadline);
    EXPECT_GE(asked, 1);
    EXPECT_TRUE(lock.owns_lock());

    // A passed deadline still tests the condition once.
    EXPECT_TRUE(NORVA::waitUntil(changed, lock, SteadyClock::time_point{}, [] { return true; }));
    EXPECT_FALSE(NORVA::waitFor(changed, lock, -1ms, [] { return false; }));
}

TEST(BoundedWait, WakesOnNotify) {
    std::mutex mutex;
    std::condition_variable changed;
    bool ready = false;
    std::thread setter([&] {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ready = true;
        }
        changed.notify_one();
    });
    bool seen = false;
    {
        std::unique_lock<std::mutex> lock(mutex);
        // A deadline far away: only the notification can end this wait.
        seen = NORVA::waitUntil(changed, lock, SteadyClock::time_point::max(), [&] { return ready; });
    }
    setter.join();
    EXPECT_TRUE(seen);
}

#if defined(__linux__)

// The child's exit code, or -1 if it didn't exit normally. The child has
// one thread and leaves with _exit.
template <class Body>
int inChildProcess(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    if (pid < 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int policyOf(NORVA::ThreadId id, int& priority) {
    sched_param param{};
    sched_getparam(pid_t(id), &param);
    priority = param.sched_priority;
    return sched_getscheduler(pid_t(id)) & ~SCHED_RESET_ON_FORK;
}

TEST(ThreadLevelsLinux, LevelsReachTheScheduler) {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    std::atomic<NORVA::ThreadId> id{0};
    std::thread worker([&] {
        id.store(NORVA::currentThreadId());
        std::unique_lock<std::mutex> lock(mutex);
        while (!NORVA::waitFor(changed, lock, 100ms, [&] { return done; })) {
        }
    });
    while (id.load() == 0) NORVA::yield();
    const NORVA::ThreadId tid = id.load();
    int critical = 0, high = 0, unused = 0;
    const int mainPolicy = policyOf(NORVA::currentThreadId(), unused);
    const bool rt = NORVA::setThreadLevel(0, tid);
    const int criticalPolicy = policyOf(tid, critical);
    const bool rtHigh = NORVA::setThreadLevel(1, tid);
    const int highPolicy = policyOf(tid, high);
    const bool normal = NORVA::setThreadLevel(2, tid);
    const int normalPolicy = policyOf(tid, unused);
    const bool idle = NORVA::setThreadLevel(3, tid);
    const int idlePolicy = policyOf(tid, unused);
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    changed.notify_all();
    worker.join();

    // Only the thread named was changed.
    EXPECT_EQ(policyOf(NORVA::currentThreadId(), unused), mainPolicy);
    EXPECT_TRUE(normal);
    EXPECT_EQ(normalPolicy, SCHED_OTHER);
    EXPECT_TRUE(idle);
    EXPECT_EQ(idlePolicy, SCHED_IDLE);
    if (!rt) GTEST_SKIP() << "real-time scheduling refused here; the refusal test covers this case";
    EXPECT_EQ(criticalPolicy, SCHED_FIFO);
    EXPECT_TRUE(rtHigh);
    EXPECT_EQ(highPolicy, SCHED_FIFO);
    EXPECT_GT(critical, high);
    EXPECT_GT(high, 0);
}

// A thread that will never sleep leaves SCHED_FIFO, which the kernel
// throttles, for the strongest normal priority; a normal one stays as it is.
TEST(ThreadLevelsLinux, ASpinnerLeavesTheRealTimeClass) {
    struct Outcome {
        bool realTime = false, moved = false, movedNormal = true;
        int policy = -1, nice = 0;
    } out;
    std::thread([&] {
        NORVA::ThreadId self = NORVA::currentThreadId();
        out.movedNormal = NORVA::keepCurrentSpinnerRunnable();
        out.realTime = NORVA::setCurrentThreadLevel(NORVA::levelCritical);
        out.moved = NORVA::keepCurrentSpinnerRunnable();
        int unused = 0;
        out.policy = policyOf(self, unused);
        out.nice = getpriority(PRIO_PROCESS, id_t(self));
    }).join();
    EXPECT_FALSE(out.movedNormal);
    if (!out.realTime) GTEST_SKIP() << "real-time scheduling refused here";
    EXPECT_TRUE(out.moved);
    EXPECT_EQ(out.policy, SCHED_OTHER);
    EXPECT_EQ(out.nice, -20);
}

TEST(ThreadLevelsLinux, RefusedRealTimeIsReported) {
    enum {
        ok = 0,
        criticalAccepted = 1,
        highAccepted = 2,
        normalFailed = 3,
        noLimit = 10,
        noDrop = 11,
        stillAllowed = 12
    };
    const int code = inChildProcess([] {
        rlimit none{0, 0};
        if (setrlimit(RLIMIT_RTPRIO, &none) != 0) return int(noLimit);
        // Giving up root clears every capability, CAP_SYS_NICE among them.
        if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
            return int(noDrop);
        }
        sched_param param{};
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_FIFO, &param) == 0) return int(stillAllowed);
        if (NORVA::setCurrentThreadLevel(0)) return int(criticalAccepted);
        if (NORVA::setCurrentThreadLevel(1)) return int(highAccepted);
        if (!NORVA::setCurrentThreadLevel(2)) return int(normalFailed);
        return int(ok);
    });
    if (code == noLimit || code == noDrop || code == stillAllowed) {
        GTEST_SKIP() << "could not arrange a refusal of real-time scheduling (step " << code << ")";
    }
    EXPECT_NE(code, criticalAccepted) << "refused critical level reported as success";
    EXPECT_NE(code, highAccepted) << "refused high level reported as success";
    EXPECT_NE(code, normalFailed) << "normal level failed";
    EXPECT_EQ(code, ok);
}

TEST(ThreadLevelsLinux, ProcessClassFollowsNiceAndPolicy) {
    // Each step in the child reports the first mismatch; higher nice values
    // last, since an unprivileged process can't go back.
    const int code = inChildProcess([] {
        struct Step {
            int nice;
            std::uint32_t cls;
            int level;
        };
        const Step steps[] = {{-11, 128, 1}, {-10, 32768, 1}, {0, 32, 2}, {1, 16384, 3}, {19, 64, 3}};
        int index = 0;
        for (const Step& step : steps) {
            ++index;
            if (setpriority(PRIO_PROCESS, 0, step.nice) != 0) continue;  // unprivileged
            if (NORVA::Platform::processPriorityClass() != step.cls) return index;
            if (NORVA::processLevel() != step.level) return 20 + index;
        }
        // Policies come ahead of nice values.
        sched_param param{};
        param.sched_priority = 1;
        if (sched_setscheduler(0, SCHED_FIFO, &param) == 0 &&
            (NORVA::Platform::processPriorityClass() != 256 || NORVA::processLevel() != 0)) {
            return 40;
        }
        param.sched_priority = 0;
        if (sched_setscheduler(0, SCHED_IDLE, &param) != 0) return 41;
        if (NORVA::Platform::processPriorityClass() != 64 || NORVA::processLevel() != 3) return 42;
        return 0;
    });
    EXPECT_EQ(code, 0) << "see the step number in the child";
}

TEST(ThreadLevelsLinux, NormalLevelKeepsTheProcessNice) {
    const int code = inChildProcess([] {
        if (setpriority(PRIO_PROCESS, 0, 7) != 0) return 1;
        int result = 0;
        // The thread starts at the process's nice 7; normal keeps it there
        // (nice 0 would lift it above its process, which Windows never does).
        std::thread thread([&] {
            if (!NORVA::setCurrentThreadLevel(2)) {
                result = 2;
            } else if (getpriority(PRIO_PROCESS, id_t(NORVA::currentThreadId())) != 7) {
                result = 3;
            }
        });
        thread.join();
        return result;
    });
    EXPECT_EQ(code, 0);
}

#else

TEST(ThreadLevels, EveryLevelCanBeSetOnOwnThread) {
    onOwnThread([] {
        for (int level : {0, 1, 3, 2}) EXPECT_TRUE(NORVA::setCurrentThreadLevel(level)) << level;
        EXPECT_TRUE(NORVA::setThreadLevel(1, NORVA::currentThreadId()));
    });
}

TEST(ThreadLevelsLinux, RefusedRealTimeIsReported) {
    GTEST_SKIP() << "a refusal of thread priorities can't be arranged on this system";
}

#endif

}  // namespace
