// Thread priorities and placement on Linux.
//
// The Windows priority values map onto scheduling classes in the same order:
// time critical and highest onto SCHED_FIFO (90 and 70), normal onto
// SCHED_OTHER at the process's own nice value (a normal thread of a lowered
// process stays lowered, as on Windows), idle onto SCHED_IDLE. Calls act on a
// kernel task id, so they reach one thread, not the whole process.
#include <errno.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "Platform/Platform.h"

namespace NORVA::Platform {

namespace {

constexpr int fifoCritical = 90;
constexpr int fifoHigh = 70;

int fifoPriority(int wanted) {
    int low = sched_get_priority_min(SCHED_FIFO);
    int high = sched_get_priority_max(SCHED_FIFO);
    return std::clamp(wanted, low, high);
}

// The nice value of the process, that is, of its main thread.
bool processNice(int& nice) {
    errno = 0;
    int value = getpriority(PRIO_PROCESS, id_t(getpid()));
    if (value == -1 && errno != 0) return false;
    nice = value;
    return true;
}

bool setFifo(pid_t tid, int priority) {
    sched_param param{};
    param.sched_priority = fifoPriority(priority);
    return sched_setscheduler(tid, SCHED_FIFO, &param) == 0;
}

bool setOther(pid_t tid, int nice) {
    sched_param param{};
    param.sched_priority = 0;
    if (sched_setscheduler(tid, SCHED_OTHER, &param) != 0) return false;
    return setpriority(PRIO_PROCESS, id_t(tid), std::clamp(nice, -20, 19)) == 0;
}

}  // namespace

ThreadId currentThreadId() {
    return ThreadId(gettid());
}

bool setThreadPriorityValue(ThreadId thread, int value) {
    auto tid = pid_t(thread);
    if (value >= 15) return setFifo(tid, fifoCritical);
    if (value > 0) return setFifo(tid, fifoHigh);
    if (value <= -15) {
        sched_param param{};
        param.sched_priority = 0;
        return sched_setscheduler(tid, SCHED_IDLE, &param) == 0;
    }
    int nice = 0;
    if (!processNice(nice)) return false;
    // Below normal (-1) and lowest (-2) lie 5 nice steps apart.
    return setOther(tid, nice - 5 * value);
}

bool keepSpinnerRunnable(ThreadId thread) {
    auto tid = pid_t(thread);
    int policy = sched_getscheduler(tid);
    if (policy != SCHED_FIFO && policy != SCHED_RR) return false;
    // nice -20 needs the same right as SCHED_FIFO had; the caller held it.
    return setOther(tid, -20);
}

bool setThreadAffinity(ThreadId thread, std::uint32_t mask) {
    // An empty set selects no processor; the kernel refuses it too.
    if (mask == 0) return false;
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int i = 0; i < 32; ++i) {
        if (mask & (std::uint32_t(1) << i)) CPU_SET(i, &set);
    }
    return sched_setaffinity(pid_t(thread), sizeof set, &set) == 0;
}

static_assert(sizeof(std::atomic<std::uint32_t>) == 4 && std::atomic<std::uint32_t>::is_always_lock_free,
              "a futex needs the atomic's bare word");

void waitOnWord(std::atomic<std::uint32_t>& word, std::uint32_t seen, std::uint64_t timeoutUs) {
    timespec limit{time_t(timeoutUs / 1'000'000), long(timeoutUs % 1'000'000 * 1000)};
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAIT_PRIVATE, seen, &limit, nullptr, 0);
}

void wakeWord(std::atomic<std::uint32_t>& word) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&word), FUTEX_WAKE_PRIVATE, 0x7fffffff, nullptr,
            nullptr, 0);
}

std::uint16_t processorCount() {
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    return std::uint16_t(std::clamp(count, 1L, 0xFFFFL));
}

std::uint32_t currentProcessor() {
    int cpu = sched_getcpu();
    return cpu < 0 ? 0 : std::uint32_t(cpu);
}

std::uint32_t processPriorityClass() {
    int policy = sched_getscheduler(getpid());
    if (policy != -1) {
        policy &= ~SCHED_RESET_ON_FORK;
        if (policy == SCHED_FIFO || policy == SCHED_RR) return 256;
        if (policy == SCHED_IDLE) return 64;
    }
    int nice = 0;
    if (!processNice(nice)) return 32;
    if (nice >= 19) return 64;
    if (nice <= -11) return 128;
    if (nice < 0) return 32768;
    if (nice == 0) return 32;
    return 16384;
}

}  // namespace NORVA::Platform
