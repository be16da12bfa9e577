#include "Stream/TransferConfig.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "System/Log.h"

using NORVA::LogLine;
using NORVA::TimeValue;

namespace VELMORA {

namespace {

constexpr TimeValue searchStep = TimeValue::fromUs(50);
// A search that raises its cycle goes at most this far past the least cycle
// that could pass. By then a Var plan, whose packets hold at most 64 frames
// less than asked for, has caught up, and a Fix plan could only shrink.
constexpr TimeValue searchReach = TimeValue::fromMs(10);
// And never more steps than this (100 ms), whatever the limits.
constexpr std::uint64_t searchSteps = 2000;
constexpr std::uint64_t psPerSecond = 1'000'000'000'000ull;
constexpr std::uint64_t psPerTenUs = 10'000'000ull;
constexpr std::uint32_t feedbackTopQ14 = 491;  // the feedback may raise a packet by about 3 %
constexpr float fixHeadroom = 1.03f;
constexpr double varHeadroom = 1.03;
// Plans with more packets per cycle are refused, which also bounds every
// loop over packet counts.
constexpr std::uint32_t maxPackets = TransferProfile::maxPacketsPerCycle;
// Least cycles, in units of 10 us, that are fractions of 1/300 s.
constexpr std::uint16_t triangoloMins[] = {33,  333,  3333, 33333, 16,   166, 1666, 16666, 83, 833, 8333, 41,
                                           416, 4166, 20,   208,   2083, 10,  104,  1041,  5,  52,  520};

TimeValue tenUs(std::uint16_t units) {
    return TimeValue::fromUs(10ull * units);
}

std::uint64_t roundUp(std::uint64_t value, std::uint64_t unit) {
    return (value + unit - 1) / unit * unit;
}

std::uint64_t roundDown(std::uint64_t value, std::uint64_t unit) {
    return value - value % unit;
}

// A float result as a whole count, kept far from the integer's limits.
std::uint64_t ceilToCount(double value) {
    return static_cast<std::uint64_t>(std::ceil(std::min(value, 1e15)));
}

// How many cycles a search tries, from `first` upward, for a result of at
// least `target`.
std::uint64_t stepsToTry(TimeValue first, TimeValue target) {
    TimeValue last = std::max(first, target) + searchReach;
    return std::min(searchSteps, (last - first).raw() / searchStep.raw() + 1);
}

// `cycle` lowered by `steps` search steps, as that many TimeValue
// subtractions would give it; the steps end short of 0.
TimeValue stepsBelow(TimeValue cycle, std::uint64_t steps) {
    if (steps == 0) return cycle;
    return TimeValue::fromRaw((cycle.raw() - steps * searchStep.raw()) | 1);
}

std::uint32_t baseRateOf(FormatID format) {
    std::uint32_t bits = format.high();
    if (bits & FormatID::base44100) return 44100;
    if (bits & FormatID::base48000) return 48000;
    if (bits & FormatID::base8000) return 8000;
    return 0;
}

}  // namespace

void SinkCycle::setAnswer(std::uint16_t least, std::uint16_t greatest, std::uint16_t profile) {
    min = least;
    max = greatest;
    prof = profile;
    if (!hasProfile()) return;
    triangolo = ((prof & sinkFixesCycle) != 0 && min == 3) ||
                std::find(std::begin(triangoloMins), std::end(triangoloMins), min) != std::end(triangoloMins);
}

void TransferConfig::setInputs(const StreamPath& path, TimeValue limit) {
    config = path.format;
    packDataSize = path.maxPacketSize;
    packDataCount = path.maxPacketCount;
    limitCycle = limit;
}

std::uint32_t TransferConfig::packetsAllowed(std::int32_t count) const {
    if (count < 0) return 0;
    if (count == 0 || static_cast<std::uint32_t>(count) > packDataCount) return packDataCount;
    return static_cast<std::uint32_t>(count);
}

// Bytes of one cycle, in single precision, rounded up to whole frames.
std::uint64_t TransferConfig::bytesPerCycle(std::uint64_t cycleUs, float headroom) const {
    float cyclesPerSecond = 1000000.0f / static_cast<float>(cycleUs);
    float bytes = static_cast<float>(config.byteRate()) / cyclesPerSecond * headroom;
    return roundUp(ceilToCount(bytes), config.frameBytes());
}

bool TransferConfig::accept() const {
    return isRunnable(1) && fixedSize <= packDataSize;
}

bool TransferConfig::planFix(std::int32_t count, TimeValue wanted) {
    std::uint64_t capacity = std::uint64_t{packDataSize} * packetsAllowed(count);
    if (capacity == 0 || config.byteRate() == 0 || wanted.toUs() == 0) return false;
    fixedSize = 0;

    // The cycle falls by search steps until its bytes fit. The bytes only
    // grow with the cycle, so a bisection finds the step that walking would.
    auto fits = [&](std::uint64_t steps) {
        return bytesPerCycle(stepsBelow(wanted, steps).toUs(), fixHeadroom) < capacity;
    };
    std::uint64_t steps = 0;
    if (!fits(0)) {
        std::uint64_t tooFew = 0;
        std::uint64_t enough = (wanted.raw() - 1) / searchStep.raw();
        if (!fits(enough)) return false;
        while (enough - tooFew > 1) {
            std::uint64_t middle = tooFew + (enough - tooFew) / 2;
            if (fits(middle)) {
                enough = middle;
            } else {
                tooFew = middle;
            }
        }
        steps = enough;
    }
    cycle = stepsBelow(wanted, steps);
    std::uint64_t cycleUs = cycle.toUs();
    std::uint64_t bytes = bytesPerCycle(cycleUs, fixHeadroom);

    packetCount =
        static_cast<std::uint16_t>(std::max<std::uint64_t>(1, (bytes + packDataSize - 1) / packDataSize));
    std::uint64_t framesPerSecond = config.byteRate() / config.frameBytes();
    sizeQ14 = static_cast<std::uint32_t>(framesPerSecond * 16384 * (cycleUs / packetCount) / 1000000);
    std::uint64_t headroomFrames =
        (((std::uint64_t{sizeQ14} * feedbackTopQ14) >> 14) + 0x3FFF + sizeQ14) >> 14;
    dataSize = static_cast<std::uint32_t>(config.frameBytes() * headroomFrames);
    mode = transferFix;
    return accept();
}

bool TransferConfig::planVar(std::int32_t count, TimeValue wanted) {
    std::uint64_t capacity = std::uint64_t{packDataSize} * packetsAllowed(count);
    std::uint32_t byteRate = config.byteRate();
    if (capacity == 0 || byteRate == 0 || wanted.toUs() == 0) return false;

    std::uint64_t bytes = std::min(bytesPerCycle(wanted.toUs(), 1.0f), capacity);
    std::uint64_t packets = (packDataSize - 1 + bytes) / packDataSize;
    if (packets == 0) return false;
    std::uint64_t per = roundDown(bytes / packets, config.frameBytes());
    if (per == 0) return false;
    packetCount = static_cast<std::uint16_t>(packets);
    fixedSize = dataSize = static_cast<std::uint32_t>(per);
    sizeQ14 = static_cast<std::uint32_t>((per / config.frameBytes()) << 14);
    double cyclesPerSecond = static_cast<double>(byteRate) / static_cast<double>(packets * per);
    cycle = TimeValue::fromUs(ceilToCount(1000000.0 / cyclesPerSecond));
    mode = transferVar;
    return accept();
}

// Stops when one more packet gains nothing, and then takes the plan with
// the fewer packets. No packet is gained past the worker's limit either, so
// there the last plan stands.
// A failed plan leaves its cycle as far as it got, and that too is the cycle
// the next count is compared with.
bool TransferConfig::searchPacketCounts(Plan plan, TimeValue wanted) {
    TimeValue previous;
    bool planned = false;
    for (std::int32_t packets = 1; packets <= static_cast<std::int32_t>(maxPackets); ++packets) {
        planned = (this->*plan)(packets, wanted);
        if (planned && cycle == wanted) return true;
        if (planned && cycle == previous) return (this->*plan)(packets - 1, wanted);
        previous = cycle;
    }
    return planned;
}

bool TransferConfig::planFixAuto(TimeValue wanted) {
    return searchPacketCounts(&TransferConfig::planFix, wanted);
}

bool TransferConfig::planVarAuto(TimeValue wanted) {
    return searchPacketCounts(&TransferConfig::planVar, wanted);
}

bool TransferConfig::planMax() {
    std::uint32_t size = static_cast<std::uint32_t>(roundDown(packDataSize, config.frameBytes()));
    if (size == 0 || config.byteRate() == 0) return false;
    float byteRate = static_cast<float>(config.byteRate());
    fixedSize = dataSize = size;
    sizeQ14 = (size / config.frameBytes()) << 14;
    for (std::uint32_t packets = 1; packets <= maxPackets; ++packets) {
        float cyclesPerSecond = byteRate / static_cast<float>(packets * size);
        packetCount = static_cast<std::uint16_t>(packets);
        cycle = TimeValue::fromUs(ceilToCount(1000000.0f / cyclesPerSecond));
        if (cycle >= limitCycle) {
            // Random would draw cycles that this plan never sized for.
            if (mode == transferRandom) mode = transferVar;
            return accept();
        }
    }
    return false;
}

bool TransferConfig::planRandom(std::int32_t count, TimeValue wanted, TimeValue shortest) {
    if (shortest.raw() < TimeValue::fromUs(1).raw()) return false;
    if (!planFix(count, wanted) || !(cycle > shortest)) return false;
    cycleMin = shortest;
    mode = transferRandom;
    return true;
}

bool TransferConfig::searchPlan(bool var, TimeValue wanted) {
    bool overCounts = (sink.prof & SinkCycle::fragments) != 0 || fragmentRetry;
    if (var) return overCounts ? planVarAuto(wanted) : planVar(1, wanted);
    return overCounts ? planFixAuto(wanted) : planFix(1, wanted);
}

// limitCycle with room for the feedback to shorten the cycle by 3 %.
TimeValue TransferConfig::limitWithHeadroom() const {
    double limitUs = static_cast<float>(limitCycle.toUs());
    return TimeValue::fromUs(static_cast<std::uint64_t>(limitUs * varHeadroom));
}

bool TransferConfig::isGood(bool var, TimeValue least) const {
    if (cycle < least) return false;
    if (sink.prof & SinkCycle::ownTimeOnly) return true;
    return cycle >= tenUs(sink.min) && (!var || cycle <= tenUs(sink.max));
}

TransferConfig::Outcome TransferConfig::searchFromMin(bool var) {
    TimeValue least = var ? limitWithHeadroom() : limitCycle;
    TimeValue wanted = std::max(tenUs(sink.min), limitCycle);
    if (!var && (sink.prof & SinkCycle::ownTimeOnly)) wanted = limitCycle;
    TimeValue target = (sink.prof & SinkCycle::ownTimeOnly) ? least : std::max(least, tenUs(sink.min));
    TimeValue previous;
    for (std::uint64_t steps = stepsToTry(wanted, target); steps > 0; --steps, wanted = wanted + searchStep) {
        if (!searchPlan(var, wanted)) continue;
        if (isGood(var, least)) return Outcome::done;
        if (cycle == previous) return Outcome::failed;
        previous = cycle;
    }
    return Outcome::failed;
}

TransferConfig::Outcome TransferConfig::takeMax(bool var) {
    TimeValue least = var ? limitWithHeadroom() : limitCycle;
    if (!searchPlan(var, tenUs(sink.max))) return Outcome::failed;
    if (sink.prof & SinkCycle::ownTimeOnly) {
        if (cycle >= least) return Outcome::done;
        return var ? Outcome::keptUnlogged : Outcome::failed;
    }
    bool inRange = cycle >= least && cycle >= tenUs(sink.min) && cycle <= tenUs(sink.max);
    return inRange ? Outcome::done : Outcome::failed;
}

bool TransferConfig::planProfile() {
    cycle = TimeValue();
    if (!sink.hasProfile()) return false;
    LogLine(6) << "PROFILE min=" << sink.min << " max=" << sink.max << " prof" << sink.prof << " config"
               << config.value << " PackDataSize" << packDataSize << " PackDataCount" << packDataCount
               << " limitCycle" << limitCycle.toUs() << " baseMin" << sink.baseMin;

    const char* name = nullptr;
    Outcome outcome;
    if (sink.prof & SinkCycle::sinkFixesCycle) {
        outcome = planSinkCycle(name) ? Outcome::done : Outcome::failed;
    } else {
        bool var = (sink.prof & SinkCycle::constantSize) != 0;
        name = var ? "Var" : "Fix";
        outcome = (sink.prof & SinkCycle::searchUpward) ? searchFromMin(var) : takeMax(var);
    }
    if (outcome == Outcome::done) LogLine(6) << "PROFILE done " << name;
    return outcome != Outcome::failed;
}

// The sink sets the packet rate; the host fits whole frames into it.
bool TransferConfig::planSinkCycle(const char*& name) {
    name = "SinkCycle";
    std::uint32_t base = baseRateOf(config);
    if (base == 0 || sink.frameMax == 0 || config.byteRate() == 0) return false;
    std::uint64_t bytesPerSecond = std::uint64_t{sink.baseMin} * base;

    Division division{};
    bool divided = false;
    if (sink.triangolo && base == 8000) {
        LogLine(4) << "TriangoloMode base rate talt";
    } else if (sink.triangolo) {
        divided = triangoloDivision(bytesPerSecond, division) && division.part % sink.frameMax == 0;
        if (divided) {
            name = "Triangolo";
        } else {
            LogLine(4) << "TriangoloMode fragment talt";
        }
    }
    if (!divided && !sinkCycleDivision(bytesPerSecond, division)) return false;
    return fitSinkCycle(division);
}

// A 300th of a second, halved until a share fits in one packet; false if
// that takes more packets than the worker sends in a cycle.
bool TransferConfig::triangoloDivision(std::uint64_t bytesPerSecond, Division& division) const {
    std::uint64_t share = bytesPerSecond / 300;
    std::uint32_t packets = 1;
    while (share / packets > packDataSize) {
        packets *= 2;
        if (packets > maxPackets) return false;
    }
    division = {share / packets, packets};
    return true;
}

// The sink's least cycle, cut into packets that fit.
bool TransferConfig::sinkCycleDivision(std::uint64_t bytesPerSecond, Division& division) const {
    std::uint64_t minTenUs = std::uint64_t{sink.min} * 10;
    if (minTenUs != 0 && bytesPerSecond > UINT64_MAX / minTenUs) return false;
    std::uint64_t bytes = roundUp(minTenUs * bytesPerSecond / 1000000, sink.frameMax);
    std::uint64_t part = bytes;
    std::uint32_t packets = 1;
    while (part > packDataSize) {
        if (++packets > maxPackets) return false;
        std::uint64_t share = bytes / packets;
        if (share == 0) return false;
        part = share - (share + sink.frameMax - 1) % sink.frameMax;
    }
    division = {part, packets};
    return true;
}

// Adds packets until the cycle reaches both limits.
bool TransferConfig::fitSinkCycle(const Division& division) {
    std::uint64_t frames = division.part / sink.frameMax;
    std::uint64_t size = config.frameBytes() * frames;
    if (frames == 0 || size > packDataSize) return false;
    std::uint64_t sinkLeast = std::uint64_t{sink.min} * psPerTenUs;
    for (std::uint32_t packets = division.packets; packets <= maxPackets; ++packets) {
        std::uint64_t length = packets * size * psPerSecond / config.byteRate();
        if (length < limitCycle.raw() || length < sinkLeast) continue;
        cycle = TimeValue::fromRaw(length);
        packetCount = static_cast<std::uint16_t>(packets);
        LogLine(6) << "SINCCYCLE=" << size << "x" << packets << " cycle=" << length << "ps";
        fixedSize = dataSize = static_cast<std::uint32_t>(size);
        sizeQ14 = static_cast<std::uint32_t>(frames << 14);
        mode = transferSinkCycle;
        return accept();
    }
    return false;
}

bool TransferConfig::planWithoutPacketLimit(TimeValue hint) {
    LogLine(6) << "configTransferAuto falt";
    std::uint16_t savedCount = packDataCount;
    packDataCount = 0xFFFF;
    bool planned = false;
    if (sink.prof & SinkCycle::sinkFixesCycle) {
        planned = planMax();
    } else {
        Plan plan =
            (sink.prof & SinkCycle::constantSize) ? &TransferConfig::planVar : &TransferConfig::planFix;
        TimeValue least = limitWithHeadroom();
        TimeValue wanted = hint.isSet() ? hint : limitCycle;
        for (std::uint64_t steps = stepsToTry(wanted, least); steps > 0 && !planned;
             --steps, wanted = wanted + searchStep) {
            planned = searchPacketCounts(plan, wanted) && cycle >= least;
        }
    }
    packDataCount = savedCount;
    return planned;
}

bool TransferConfig::planProfileAuto(TimeValue hint) {
    LogLine(6) << "configTransferAuto " << limitCycle.toUs();
    bool planned = planProfile();
    if (!planned) {
        fragmentRetry = true;
        planned = planProfile() || planWithoutPacketLimit(hint);
        fragmentRetry = false;
    }
    LogLine(6) << "configTransferAuto done";
    return planned;
}

std::array<TransferProfile, 2> TransferConfig::configTransfer(const StreamPath& path, TimeValue limit,
                                                              TimeValue hint, TimeValue slow) {
    LogLine(6) << "configTransferAuto "
               << " limit" << limit.toUs() << " maxPacketSize" << path.maxPacketSize << " maxPacketCount"
               << path.maxPacketCount;
    std::array<TransferProfile, 2> profiles;
    setInputs(path, limit);
    planProfileAuto(hint);
    profiles[0] = profile();
    setInputs(path, slow);
    fragmentRetry = true;
    planProfileAuto(TimeValue());
    profiles[1] = profile();
    fragmentRetry = false;
    LogLine(6) << "configTransferAuto done";
    return profiles;
}

}  // namespace VELMORA
