// Processor placement of the whole process and of its threads, as start and
// stop change and restore it. One implementation in posix/, one in win32/.
#pragma once

#include <cstdint>
#include <vector>

namespace DriverPlatform {

// Windows thread id; on Linux the kernel task id.
using ThreadId = std::uint64_t;

// The processors the process may run on, 32 at most (GetProcessAffinityMask;
// on Linux those of the process's first thread).
bool processAffinity(std::uint32_t& mask);
// Widens or sets that set (SetProcessAffinityMask).
bool setProcessAffinity(std::uint32_t mask);

enum class ThreadList { listed, snapshotFailed, firstFailed };
// The ids of this process's threads at this moment.
ThreadList processThreads(std::vector<ThreadId>& threads);

enum class ThreadAffinity { changed, openFailed, setFailed };
// Sets the thread's processors to `mask` and gives the mask it had.
ThreadAffinity setThreadAffinity(ThreadId thread, std::uint64_t mask, std::uint64_t& previous);

}  // namespace DriverPlatform
