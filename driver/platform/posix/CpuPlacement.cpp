// Processor placement on Linux: a process has no set of its own, so the first
// thread's stands for it; threads are the entries of /proc/self/task.
#include <dirent.h>
#include <sched.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/CpuPlacement.h"

namespace DriverPlatform {

namespace {

bool readMask(pid_t task, std::uint64_t& mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(task, sizeof set, &set) != 0) return false;
    mask = 0;
    for (int cpu = 0; cpu < 64; ++cpu) {
        if (CPU_ISSET(cpu, &set)) mask |= std::uint64_t(1) << cpu;
    }
    return true;
}

bool writeMask(pid_t task, std::uint64_t mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int cpu = 0; cpu < 64; ++cpu) {
        if ((mask >> cpu) & 1) CPU_SET(cpu, &set);
    }
    return sched_setaffinity(task, sizeof set, &set) == 0;
}

}  // namespace

bool processAffinity(std::uint32_t& mask) {
    std::uint64_t wide = 0;
    if (!readMask(getpid(), wide)) return false;
    mask = std::uint32_t(wide);
    return true;
}

bool setProcessAffinity(std::uint32_t mask) {
    return writeMask(getpid(), mask);
}

ThreadList processThreads(std::vector<ThreadId>& threads) {
    threads.clear();
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) return ThreadList::snapshotFailed;
    while (const dirent* entry = readdir(tasks)) {
        char* end = nullptr;
        unsigned long long id = strtoull(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0') threads.push_back(id);
    }
    closedir(tasks);
    return threads.empty() ? ThreadList::firstFailed : ThreadList::listed;
}

ThreadAffinity setThreadAffinity(ThreadId thread, std::uint64_t mask, std::uint64_t& previous) {
    // A thread that has ended since the listing can't be reached.
    if (!readMask(pid_t(thread), previous)) return ThreadAffinity::openFailed;
    return writeMask(pid_t(thread), mask) ? ThreadAffinity::changed : ThreadAffinity::setFailed;
}

}  // namespace DriverPlatform
