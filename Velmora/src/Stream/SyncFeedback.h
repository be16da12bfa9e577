// How the target's reports of its buffer become a correction of the stream's
// rate: an average over the last reports, a proportional and derivative
// term, and a clamped accumulator in Q14.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Network/TimeValue.h"

namespace VELMORA {

class FeedbackFilter {
  public:
    // About -10 per cent and +3 per cent; the top is the headroom that a
    // Fix plan leaves.
    static constexpr std::int16_t adjustMin = -1638;
    static constexpr std::int16_t adjustMax = 491;
    static constexpr std::size_t maxDepth = 8;

    // `depth` reports are averaged, 1 to 8.
    explicit FeedbackFilter(std::uint32_t depth);

    // Takes one deviation (Q14, positive: the target holds too much) and
    // returns the new correction.
    std::int16_t add(std::int16_t deviation);

    std::int16_t adjust() const { return correction; }
    std::int16_t average() const { return previous; }

  private:
    std::uint32_t depth;
    std::array<std::int16_t, maxDepth> history{};  // newest first
    std::int16_t previous = 0;
    std::int16_t correction = 0;
};

// `feedbackDepth` from the bits of threadFlags.
constexpr std::uint32_t feedbackDepthOf(std::uint32_t threadFlags) {
    return ((threadFlags >> 5) & 7) + 1;
}

// A profile's frames per packet (Q14) under the correction.
std::int32_t correctedSize(std::uint32_t sizeQ14, std::int16_t adjust);
// A profile's cycle under the correction: a positive one shortens it.
NORVA::TimeValue correctedCycle(NORVA::TimeValue cycle, std::int16_t adjust);

// The move between profiles under load: +1 to the next, slower one once late
// cycles have scored enough, -1 back once the score is clear, otherwise 0.
std::int32_t profileStepUnderLoad(std::int32_t lateScore, std::int32_t profileIndex,
                                  std::int32_t profileCount);

// A Q14 value as the trace line shows it, 8 characters: " -1.2345".
// `out` takes them and a terminating zero.
void formatQ14(char (&out)[9], std::int32_t value);

}  // namespace VELMORA
