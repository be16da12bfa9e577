// Thread priority levels, processor placement, sleeping and bounded waits.
//
// Threads themselves are std::thread; locks and waits are std::mutex and
// std::condition_variable. Every wait of a real-time thread goes through
// waitUntil()/waitFor(), so that a lost wake-up costs time, never a hang.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <mutex>

#include "Platform/Platform.h"

namespace NORVA {

using ThreadId = Platform::ThreadId;

// ---- Priority levels ------------------------------------------------------

// Levels: 0 critical, 1 high, 2 normal, 3 idle.
inline constexpr int levelCritical = 0;
inline constexpr int levelHigh = 1;
inline constexpr int levelNormal = 2;
inline constexpr int levelIdle = 3;

// The SetThreadPriority value of a level: 15, 2, 0, -15; 0 outside the table.
constexpr int priorityValue(int level) {
    switch (level) {
        case levelCritical:
            return 15;
        case levelHigh:
            return 2;
        case levelNormal:
            return 0;
        case levelIdle:
            return -15;
        default:
            return 0;
    }
}

// A process priority class value read as a level; unknown classes are normal.
constexpr int classLevel(std::uint32_t priorityClass) {
    switch (priorityClass) {
        case 256:
            return levelCritical;  // realtime
        case 128:
            return levelHigh;  // high
        case 32768:
            return levelHigh;  // above normal
        case 32:
            return levelNormal;  // normal
        case 16384:
            return levelIdle;  // below normal
        case 64:
            return levelIdle;  // idle
        default:
            return levelNormal;
    }
}

ThreadId currentThreadId();
bool setCurrentThreadLevel(int level);
bool setThreadLevel(int level, ThreadId threadId);
// The level of the process's priority class.
int processLevel();
// The calling thread will spin through its waits from now on: see
// Platform::keepSpinnerRunnable. True if its priority changed for it.
bool keepCurrentSpinnerRunnable();

// ---- Processors -----------------------------------------------------------

// Bit i for each processor i of [first, first + count); only 0..31 fit.
constexpr std::uint32_t processorMask(int first, int count) {
    const std::int64_t begin = first < 0 ? 0 : first;
    const std::int64_t end = std::int64_t(first) + count;
    std::uint32_t mask = 0;
    for (std::int64_t i = begin; i < end && i < 32; ++i) mask |= std::uint32_t(1) << i;
    return mask;
}

// False if the thread can't be reached or the range holds none of its
// allowed processors (an empty range always fails).
bool setThreadProcessors(int first, int count, ThreadId threadId);
bool setCurrentThreadProcessors(int first, int count);
std::uint16_t processorCount();

// ---- Clock and sleeping ---------------------------------------------------

// The performance counter as a std::chrono clock in nanoseconds.
struct SteadyClock {
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<SteadyClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept;

    // Nanoseconds of a counter reading. At 10 MHz a tick is 100 ns exactly;
    // otherwise whole seconds and the remainder are scaled apart, so that
    // the product can't overflow.
    static constexpr rep nanoseconds(std::uint64_t counter, std::uint64_t frequency) {
        if (frequency == 10'000'000) return rep(counter * 100);
        std::uint64_t seconds = counter / frequency;
        std::uint64_t rest = counter % frequency;
        return rep(seconds * 1'000'000'000ull + rest * 1'000'000'000ull / frequency);
    }
};

// now + span, held at the largest time point instead of overflowing; a span
// of 0 or less gives now.
constexpr SteadyClock::time_point deadlineAfter(SteadyClock::time_point now, SteadyClock::duration span) {
    if (span.count() <= 0) return now;
    if (now.time_since_epoch().count() > std::numeric_limits<SteadyClock::rep>::max() - span.count()) {
        return SteadyClock::time_point::max();
    }
    return now + span;
}
inline SteadyClock::time_point deadlineAfter(SteadyClock::duration span) {
    return deadlineAfter(SteadyClock::now(), span);
}

void yield();
void sleepMilliseconds(std::uint32_t ms);
// May end early on Windows; sleepUntil is the exact one.
void sleepMicroseconds(std::uint64_t us);
// Sleeps until the clock has reached the point; never returns before it.
void sleepUntil(SteadyClock::time_point point);

// ---- Bounded waits --------------------------------------------------------

// A counter to sleep on, for a thread that waits for another's progress
// without either taking a lock: the waiter reads the count, looks at what it
// waits for, and sleeps only while the count is still the one it read, so a
// step made in between is never missed. Bumping costs no system call; wake()
// does, so the one that bumps can save it when nobody could be waiting.
class WakeWord {
  public:
    std::uint32_t count() const { return word.load(std::memory_order_acquire); }
    void bump() { word.fetch_add(1, std::memory_order_acq_rel); }
    void wake() { Platform::wakeWord(word); }
    void bumpAndWake() {
        bump();
        wake();
    }
    // Returns on a wake, a bump since `seen`, or after `limit`; maybe early.
    void waitWhile(std::uint32_t seen, SteadyClock::duration limit) {
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
        Platform::waitOnWord(word, seen, us > 0 ? std::uint64_t(us) : 0);
    }

  private:
    std::atomic<std::uint32_t> word{0};
};

// Waits with lock held (as condition_variable::wait) until ready() holds or
// the deadline passes; returns ready()'s last result. The caller then looks
// at its outside conditions again.
template <class Predicate>
bool waitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
               SteadyClock::time_point deadline, Predicate ready) {
    // Each step waits at most this long, so that the standard library's
    // conversion to its own clock never sees a saturated deadline.
    constexpr std::chrono::nanoseconds longestStep = std::chrono::hours(1);
    while (!ready()) {
        SteadyClock::time_point now = SteadyClock::now();
        if (now >= deadline) return false;
        std::chrono::nanoseconds rest = deadline - now;
        changed.wait_for(lock, rest < longestStep ? rest : longestStep);
    }
    return true;
}

// The same with the deadline computed once from the limit.
template <class Predicate>
bool waitFor(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
             SteadyClock::duration limit, Predicate ready) {
    return waitUntil(changed, lock, deadlineAfter(limit), ready);
}

}  // namespace NORVA
