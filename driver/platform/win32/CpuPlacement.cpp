// Processor placement on Windows: the process's affinity mask, and its
// threads from a Toolhelp snapshot.
#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>

#include "platform/CpuPlacement.h"

namespace DriverPlatform {

namespace {

// THREAD_SET_INFORMATION | THREAD_QUERY_INFORMATION.
constexpr DWORD threadPlacementRights = 0x60;

}  // namespace

bool processAffinity(std::uint32_t& mask) {
    DWORD_PTR process = 0;
    DWORD_PTR system = 0;
    if (!GetProcessAffinityMask(GetCurrentProcess(), &process, &system)) return false;
    mask = std::uint32_t(process);
    return true;
}

bool setProcessAffinity(std::uint32_t mask) {
    return SetProcessAffinityMask(GetCurrentProcess(), DWORD_PTR(mask)) != 0;
}

ThreadList processThreads(std::vector<ThreadId>& threads) {
    threads.clear();
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return ThreadList::snapshotFailed;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    if (!Thread32First(snapshot, &entry)) {
        CloseHandle(snapshot);
        return ThreadList::firstFailed;
    }
    const DWORD self = GetCurrentProcessId();
    do {
        if (entry.th32OwnerProcessID == self) threads.push_back(entry.th32ThreadID);
        entry.dwSize = sizeof entry;
    } while (Thread32Next(snapshot, &entry));
    CloseHandle(snapshot);
    return ThreadList::listed;
}

ThreadAffinity setThreadAffinity(ThreadId thread, std::uint64_t mask, std::uint64_t& previous) {
    HANDLE handle = OpenThread(threadPlacementRights, FALSE, DWORD(thread));
    if (handle == nullptr) return ThreadAffinity::openFailed;
    DWORD_PTR former = SetThreadAffinityMask(handle, DWORD_PTR(mask));
    CloseHandle(handle);
    if (former == 0) return ThreadAffinity::setFailed;
    previous = former;
    return ThreadAffinity::changed;
}

}  // namespace DriverPlatform
