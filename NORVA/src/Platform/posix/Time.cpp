// Clocks and sleeping on Linux. The monotonic clock in nanoseconds stands in
// for the performance counter; there is no timer granularity to request.
#include <sched.h>
#include <time.h>

#include <cerrno>

#include "Platform/Platform.h"

namespace NORVA::Platform {

namespace {

void sleepFor(timespec rest) {
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

}  // namespace

std::uint64_t counterFrequency() {
    return 1'000'000'000ull;
}

std::uint64_t counterNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::uint64_t(now.tv_sec) * 1'000'000'000ull + std::uint64_t(now.tv_nsec);
}

CalendarTime localTimeNow() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    time_t seconds = now.tv_sec;
    tm local{};
    localtime_r(&seconds, &local);
    return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec};
}

std::uint32_t millisecondClock() {
    return std::uint32_t(counterNow() / 1'000'000ull);
}

void beginTimerPeriod() {}
void endTimerPeriod() {}

void sleepMilliseconds(std::uint32_t ms) {
    sleepFor({time_t(ms / 1000), long(ms % 1000) * 1'000'000L});
}

void sleepMicroseconds(std::uint64_t us) {
    sleepFor({time_t(us / 1'000'000ull), long(us % 1'000'000ull) * 1000L});
}

void yieldThread() {
    sched_yield();
}

}  // namespace NORVA::Platform
