// Clocks and sleeping on Windows: the performance counter, the multimedia
// timer's millisecond clock and its 1 ms granularity, and Wine's finer sleeps.
// windows.h first: the others build on its types.
#include <windows.h>

#include <mmsystem.h>

#include "Platform/Platform.h"
#include "Platform/win32/Wine.h"

namespace NORVA::Platform {

namespace {

// NtDelayExecution sleeps a relative span given in negative 100 ns units.
using DelayExecution = LONG(WINAPI*)(BOOLEAN alertable, LARGE_INTEGER* span);

// Wine's NtDelayExecution sleeps in its own fine steps, where Windows rounds
// every sleep up to the timer tick; so it is taken under Wine only. Looked up
// at load, so that no real-time thread does it.
DelayExecution findFineDelay() {
    if (!runningUnderWine()) return nullptr;
    auto entry =
        reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtDelayExecution"));
    return reinterpret_cast<DelayExecution>(entry);
}

const DelayExecution fineDelay = findFineDelay();

// A fine sleep wakes this much late at the median, and a tenth of a
// millisecond more now and then; the rest of a span is spun.
constexpr std::uint64_t fineSleepSlackUs = 150;

}  // namespace

std::uint64_t counterFrequency() {
    LARGE_INTEGER frequency{};
    QueryPerformanceFrequency(&frequency);
    return std::uint64_t(frequency.QuadPart);
}

std::uint64_t counterNow() {
    LARGE_INTEGER counter{};
    QueryPerformanceCounter(&counter);
    return std::uint64_t(counter.QuadPart);
}

CalendarTime localTimeNow() {
    // The wall clock in 100 ns units, cut to whole seconds, then in local time.
    FILETIME utc{};
    GetSystemTimeAsFileTime(&utc);
    ULARGE_INTEGER ticks{};
    ticks.LowPart = utc.dwLowDateTime;
    ticks.HighPart = utc.dwHighDateTime;
    ticks.QuadPart -= ticks.QuadPart % 10'000'000ull;
    utc.dwLowDateTime = ticks.LowPart;
    utc.dwHighDateTime = ticks.HighPart;

    SYSTEMTIME universal{};
    SYSTEMTIME local{};
    FileTimeToSystemTime(&utc, &universal);
    SystemTimeToTzSpecificLocalTime(nullptr, &universal, &local);
    return {local.wYear, local.wMonth, local.wDay, local.wHour, local.wMinute, local.wSecond};
}

std::uint32_t millisecondClock() {
    return std::uint32_t(timeGetTime());
}

void beginTimerPeriod() {
    timeBeginPeriod(1);
}

void endTimerPeriod() {
    timeEndPeriod(1);
}

void sleepMilliseconds(std::uint32_t ms) {
    Sleep(DWORD(ms));
}

void sleepMicroseconds(std::uint64_t us) {
    // A paced sender would rather wake early and spin than late.
    if (fineDelay != nullptr) {
        if (us <= fineSleepSlackUs) {
            Sleep(0);
            return;
        }
        LARGE_INTEGER span{};
        span.QuadPart = -std::int64_t(us - fineSleepSlackUs) * 10;
        fineDelay(FALSE, &span);
        return;
    }
    // Sleep has whole-millisecond steps and may run over by one of them, even
    // at a 1 ms timer period: sleep a millisecond less than the span, and
    // only yield for less than two.
    std::uint64_t ms = us / 1000;
    Sleep(ms >= 2 ? DWORD(ms - 1) : 0);
}

void yieldThread() {
    Sleep(0);
}

}  // namespace NORVA::Platform
