// The planner of transfer profiles: from the stream's format, the packet
// limits of the path and what the sink says of its cycle, it works out the
// cycle, the packets per cycle and their size.
//
// Every search here is bounded: a plan that can't be found, or that the
// stream worker couldn't carry out, is a failure, never a hang.
#pragma once

#include <array>
#include <cstdint>

#include "Format/FormatID.h"
#include "Network/TimeValue.h"
#include "Stream/TransferProfile.h"

namespace VELMORA {

// What the sink said of its cycle, with the frame measures of its masks.
struct SinkCycle {
    static constexpr std::uint16_t ownTimeOnly = 0x01;   // only limitCycle judges a cycle
    static constexpr std::uint16_t constantSize = 0x02;  // plan Var
    static constexpr std::uint16_t searchUpward = 0x04;  // else take max as it is
    static constexpr std::uint16_t fragments = 0x08;     // search over packet counts
    static constexpr std::uint16_t sinkFixesCycle = 0x20;

    std::uint16_t min = 0;  // least cycle, units of 10 us
    std::uint16_t max = 0;  // greatest cycle, units of 10 us
    std::uint16_t prof = 0;
    std::uint32_t baseMin = 0;   // least frame measure of the sink's masks, per base rate
    std::uint32_t frameMax = 0;  // greatest frame size of the sink's masks
    bool triangolo = false;      // the sink's cycle is a fraction of 1/300 s

    // Stores a SINKINFO answer. `triangolo` is decided anew unless all three
    // are 0, which means a sink without a profile.
    void setAnswer(std::uint16_t least, std::uint16_t greatest, std::uint16_t profile);
    bool hasProfile() const { return min != 0 || max != 0 || prof != 0; }
};

// What the stream offers a plan: its format and the path's packet limits.
struct StreamPath {
    FormatID format;
    std::uint16_t maxPacketSize = 1432;
    std::uint16_t maxPacketCount = 10;
};

// The planner's working record. The profile fields hold the last result; a
// plan that fails leaves them as far as it got.
class TransferConfig : public TransferProfile {
  public:
    SinkCycle sink;
    FormatID config;
    NORVA::TimeValue limitCycle;  // the cycle may not be shorter
    std::uint16_t packDataSize = 0;
    std::uint16_t packDataCount = 0;
    bool fragmentRetry = false;

    void setInputs(const StreamPath& path, NORVA::TimeValue limit);

    // A `count` of 0 means packDataCount; a greater one is cut to it.
    bool planFix(std::int32_t count, NORVA::TimeValue wanted);
    bool planVar(std::int32_t count, NORVA::TimeValue wanted);
    // The fewest packets that reach `wanted`, or past which one more gains nothing.
    bool planFixAuto(NORVA::TimeValue wanted);
    bool planVarAuto(NORVA::TimeValue wanted);
    // The greatest packets, as many per cycle as reach limitCycle.
    bool planMax();
    // planFix with each cycle's length drawn between `shortest` and its cycle.
    bool planRandom(std::int32_t count, NORVA::TimeValue wanted, NORVA::TimeValue shortest);
    // The plan the sink's profile asks for.
    bool planProfile();
    // planProfile, then over packet counts, then with no limit on packets.
    bool planProfileAuto(NORVA::TimeValue hint);
    // The fast profile for `limit` and the one to fall back on for `slow`.
    std::array<TransferProfile, 2> configTransfer(const StreamPath& path, NORVA::TimeValue limit,
                                                  NORVA::TimeValue hint, NORVA::TimeValue slow);

    const TransferProfile& profile() const { return *this; }

  private:
    enum class Outcome { failed, done, keptUnlogged };
    struct Division {
        std::uint64_t part;
        std::uint32_t packets;
    };
    using Plan = bool (TransferConfig::*)(std::int32_t, NORVA::TimeValue);

    std::uint32_t packetsAllowed(std::int32_t count) const;
    std::uint64_t bytesPerCycle(std::uint64_t cycleUs, float headroom) const;
    bool accept() const;
    bool searchPacketCounts(Plan plan, NORVA::TimeValue wanted);
    bool searchPlan(bool var, NORVA::TimeValue wanted);
    NORVA::TimeValue limitWithHeadroom() const;
    bool isGood(bool var, NORVA::TimeValue least) const;
    Outcome searchFromMin(bool var);
    Outcome takeMax(bool var);
    bool planSinkCycle(const char*& name);
    bool triangoloDivision(std::uint64_t bytesPerSecond, Division& division) const;
    bool sinkCycleDivision(std::uint64_t bytesPerSecond, Division& division) const;
    bool fitSinkCycle(const Division& division);
    bool planWithoutPacketLimit(NORVA::TimeValue hint);
};

}  // namespace VELMORA
