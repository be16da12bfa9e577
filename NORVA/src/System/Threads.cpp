#include "System/Threads.h"

#include <algorithm>

namespace NORVA {

ThreadId currentThreadId() {
    return Platform::currentThreadId();
}

bool setCurrentThreadLevel(int level) {
    return setThreadLevel(level, Platform::currentThreadId());
}

bool setThreadLevel(int level, ThreadId threadId) {
    return Platform::setThreadPriorityValue(threadId, priorityValue(level));
}

bool keepCurrentSpinnerRunnable() {
    return Platform::keepSpinnerRunnable(Platform::currentThreadId());
}

int processLevel() {
    return classLevel(Platform::processPriorityClass());
}

bool setThreadProcessors(int first, int count, ThreadId threadId) {
    return Platform::setThreadAffinity(threadId, processorMask(first, count));
}

bool setCurrentThreadProcessors(int first, int count) {
    return setThreadProcessors(first, count, Platform::currentThreadId());
}

std::uint16_t processorCount() {
    return Platform::processorCount();
}

SteadyClock::time_point SteadyClock::now() noexcept {
    return time_point(duration(nanoseconds(Platform::counterNow(), Platform::counterFrequency())));
}

void yield() {
    Platform::yieldThread();
}

void sleepMilliseconds(std::uint32_t ms) {
    Platform::sleepMilliseconds(ms);
}

void sleepMicroseconds(std::uint64_t us) {
    Platform::sleepMicroseconds(us);
}

void sleepUntil(SteadyClock::time_point point) {
    using namespace std::chrono;
    for (;;) {
        SteadyClock::time_point now = SteadyClock::now();
        if (now >= point) return;
        nanoseconds rest = point - now;
        if (rest >= milliseconds(1)) {
            // Whole milliseconds first; a sleep may end early, so look again.
            auto ms = duration_cast<milliseconds>(rest).count();
            Platform::sleepMilliseconds(std::uint32_t(std::min<decltype(ms)>(ms, 0x7FFFFFFF)));
        } else {
            // The last part of a millisecond, rounded up: one short sleep where
            // the system has them, yields until the point where it has not.
            Platform::sleepMicroseconds(std::uint64_t((rest.count() + 999) / 1000));
        }
    }
}

}  // namespace NORVA
