// Times and spans as an unsigned 64-bit count of picoseconds.
//
// 0 means "not set". Points in time wrap every 2^64 ps (about 213 days), so
// they are ordered by their wrapped difference. Sums and differences have
// their lowest bit forced to 1, so that a computed time is never 0.
#pragma once

#include <cstdint>

namespace NORVA {

class TimeValue {
  public:
    constexpr TimeValue() = default;

    static constexpr TimeValue fromRaw(std::uint64_t ps) { return TimeValue(ps); }
    static constexpr TimeValue fromUs(std::uint64_t us) { return TimeValue(us * 1'000'000ull); }
    static constexpr TimeValue fromMs(std::uint64_t ms) { return TimeValue(ms * 1'000'000'000ull); }
    static constexpr TimeValue fromSeconds(std::uint64_t s) { return TimeValue(s * 1'000'000'000'000ull); }
    // The performance counter in picoseconds; never 0.
    static TimeValue now();
    // The rule of now() for a given counter reading and frequency.
    static constexpr TimeValue fromCounter(std::uint64_t counter, std::uint64_t frequency) {
        std::uint64_t ps = (1'000'000'000'000ull / frequency) * counter;
        return TimeValue(ps == 0 ? 1 : ps);
    }

    constexpr std::uint64_t raw() const { return value; }
    constexpr std::uint64_t toUs() const { return value / 1'000'000ull; }
    constexpr std::uint64_t toMs() const { return value / 1'000'000'000ull; }
    constexpr bool isSet() const { return value != 0; }

    constexpr TimeValue operator+(TimeValue other) const { return TimeValue((value + other.value) | 1); }
    constexpr TimeValue operator-(TimeValue other) const { return TimeValue((value - other.value) | 1); }
    constexpr bool operator==(TimeValue other) const { return value == other.value; }
    constexpr bool operator!=(TimeValue other) const { return value != other.value; }

    // Wrapped order: -1 earlier, 0 equal, 1 later.
    constexpr int compare(TimeValue other) const {
        std::uint64_t d = value - other.value;
        if (d == 0) return 0;
        return d < (1ull << 63) ? 1 : -1;
    }
    constexpr bool operator>(TimeValue other) const { return compare(other) > 0; }
    constexpr bool operator>=(TimeValue other) const { return compare(other) >= 0; }
    constexpr bool operator<(TimeValue other) const { return compare(other) < 0; }
    constexpr bool operator<=(TimeValue other) const { return compare(other) <= 0; }

  private:
    constexpr explicit TimeValue(std::uint64_t ps) : value(ps) {}
    std::uint64_t value = 0;
};

}  // namespace NORVA
