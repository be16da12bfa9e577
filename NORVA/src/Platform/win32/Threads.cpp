// Thread priorities and placement on Windows.
#include <windows.h>

#include "Platform/Platform.h"

namespace NORVA::Platform {

ThreadId currentThreadId() {
    return ThreadId(GetCurrentThreadId());
}

bool setThreadPriorityValue(ThreadId thread, int value) {
    HANDLE handle = OpenThread(THREAD_SET_INFORMATION, FALSE, DWORD(thread));
    if (handle == nullptr) return false;
    bool done = SetThreadPriority(handle, value) != 0;
    CloseHandle(handle);
    return done;
}

bool setThreadAffinity(ThreadId thread, std::uint32_t mask) {
    // An empty mask selects no processor; refused here whatever the system
    // would say.
    if (mask == 0) return false;
    HANDLE handle = OpenThread(THREAD_SET_INFORMATION | THREAD_QUERY_INFORMATION, FALSE, DWORD(thread));
    if (handle == nullptr) return false;
    bool done = SetThreadAffinityMask(handle, DWORD_PTR(mask)) != 0;
    CloseHandle(handle);
    return done;
}

std::uint16_t processorCount() {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    return std::uint16_t(info.dwNumberOfProcessors & 0xFFFF);
}

std::uint32_t currentProcessor() {
    return std::uint32_t(GetCurrentProcessorNumber());
}

std::uint32_t processPriorityClass() {
    return std::uint32_t(GetPriorityClass(GetCurrentProcess()));
}

}  // namespace NORVA::Platform
