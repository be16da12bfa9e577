// Thread priorities and placement on Windows.
#include <windows.h>

#include <algorithm>

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

namespace {

// WaitOnAddress came with Windows 8; looked up at run time so that the driver
// still loads where it is missing, and waits there in short sleeps instead.
using WaitOnAddressCall = BOOL(WINAPI*)(volatile VOID*, PVOID, SIZE_T, DWORD);
using WakeByAddressCall = VOID(WINAPI*)(PVOID);

struct AddressWaits {
    WaitOnAddressCall wait = nullptr;
    WakeByAddressCall wakeAll = nullptr;
    AddressWaits() {
        for (const char* name : {"api-ms-win-core-synch-l1-2-0.dll", "kernelbase.dll"}) {
            HMODULE module = GetModuleHandleA(name);
            if (module == nullptr) module = LoadLibraryA(name);
            if (module == nullptr) continue;
            // Through void(*)(), which any function pointer casts to without a warning.
            wait = reinterpret_cast<WaitOnAddressCall>(
                reinterpret_cast<void (*)()>(GetProcAddress(module, "WaitOnAddress")));
            wakeAll = reinterpret_cast<WakeByAddressCall>(
                reinterpret_cast<void (*)()>(GetProcAddress(module, "WakeByAddressAll")));
            if (wait != nullptr && wakeAll != nullptr) return;
        }
        wait = nullptr;
        wakeAll = nullptr;
    }
};

const AddressWaits& addressWaits() {
    static const AddressWaits calls;
    return calls;
}

}  // namespace

void waitOnWord(std::atomic<std::uint32_t>& word, std::uint32_t seen, std::uint64_t timeoutUs) {
    DWORD ms = DWORD(std::min<std::uint64_t>((timeoutUs + 999) / 1000, 0xFFFFFFFE));
    if (addressWaits().wait != nullptr) {
        addressWaits().wait(&word, &seen, sizeof seen, ms);
        return;
    }
    if (word.load() == seen) Sleep(ms < 1 ? ms : 1);
}

void wakeWord(std::atomic<std::uint32_t>& word) {
    if (addressWaits().wakeAll != nullptr) addressWaits().wakeAll(&word);
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
