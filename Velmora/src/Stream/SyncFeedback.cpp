// What the worker does with the frames that came in during a cycle's wait:
// feedback that binds the stream's rate to the target's clock, requests to
// send packets again, and the move to a slower profile under load.
#include "Stream/SyncFeedback.h"

#include <cstdio>

#include "Protocol/MessageTypes.h"
#include "Stream/SyncWorker.h"
#include "System/Log.h"

using NORVA::LogLine;
using NORVA::TimeValue;

namespace VELMORA {

namespace {
constexpr std::int32_t proportionalQ14 = 655;   // about 0.04 of the average
constexpr std::int32_t derivativeQ14 = 1638;    // about 0.1 of its change
constexpr std::int32_t profileDownScore = 200;  // lateScore that moves to a slower profile
constexpr std::uint16_t debugTextAnswer = 2;
}  // namespace

FeedbackFilter::FeedbackFilter(std::uint32_t averaged)
    : depth(averaged < 1          ? 1
            : averaged > maxDepth ? std::uint32_t(maxDepth)
                                  : averaged) {}

std::int16_t FeedbackFilter::add(std::int16_t deviation) {
    for (std::size_t i = maxDepth - 1; i > 0; --i) history[i] = history[i - 1];
    history[0] = deviation;
    std::int32_t sum = 0;
    for (std::uint32_t i = 0; i < depth; ++i) sum += history[i];
    std::int16_t average = std::int16_t(sum / std::int32_t(depth));
    std::int16_t delta = std::int16_t(average - previous);
    previous = average;
    std::int16_t proportional = std::int16_t((std::int32_t(average) * proportionalQ14) >> 14);
    std::int16_t derivative = std::int16_t((std::int32_t(delta) * derivativeQ14) >> 14);
    std::int16_t change = std::int16_t(proportional + derivative);
    std::int16_t next = std::int16_t(correction - change);
    correction = next > adjustMax ? adjustMax : next < adjustMin ? adjustMin : next;
    return correction;
}

std::int32_t correctedSize(std::uint32_t sizeQ14, std::int16_t adjust) {
    return std::int32_t(std::int64_t(sizeQ14) + ((std::int64_t(adjust) * std::int64_t(sizeQ14)) >> 14));
}

TimeValue correctedCycle(TimeValue cycle, std::int16_t adjust) {
    std::int64_t ps = std::int64_t(cycle.raw());
    return TimeValue::fromRaw(std::uint64_t(ps - ((std::int64_t(adjust) * ps) >> 14)));
}

void formatQ14(char (&out)[9], std::int32_t value) {
    std::uint32_t magnitude = std::uint32_t(value < 0 ? -value : value);
    std::uint32_t decimals = ((((magnitude & 0x3FFF) * 100000u) >> 14) + 5) / 10;
    std::snprintf(out, sizeof out, " %c%u.%04u", value < 0 ? '-' : ' ', (magnitude >> 14) % 10,
                  decimals % 10000);
}

// ---- The worker's side --------------------------------------------------------------

void SyncWorker::useProfile(std::int32_t index) {
    profileIndex = index;
    const TransferProfile& current = profile();
    sizeNow = correctedSize(current.sizeQ14, filter.adjust());
    cycleTime = current.fixedSize != 0 ? correctedCycle(current.cycle, filter.adjust()) : current.cycle;
}

bool SyncWorker::handleReceived() {
    Reading reading = Reading::next;
    for (std::size_t i = 0; i < receiveSlots && reading == Reading::next; ++i) {
        if (receiveBuffers[i]->isEmpty()) break;
        reading = handleOne(*receiveBuffers[i]);
    }
    for (auto& slot : receiveBuffers) slot->clear();
    return reading != Reading::endStream;
}

SyncWorker::Reading SyncWorker::handleOne(const ConnectionBuffer& frame) {
    if (!frame.isValid()) return Reading::next;
    lastReceived = now;
    switch (frame.type()) {
        case MessageType::STREAM_ANS: {
            if (endState == lastFeedbackAsked) endState = targetAnswered;
            StreamAnswer answer = readStreamAnswer(frame.received());
            if (answer.resend) return onResendRequest(answer);
            onFeedback(frame, answer);
            return Reading::next;
        }
        case MessageType::SYNCHRO_STATUS_ANS:
            LogLine(7) << "SYNCHRO_STATUS_ANS ";
            return Reading::next;
        case MessageType::DISCONNECT_ANS:
            // The target's wish to end shows when it stops answering.
            LogLine(6) << "DISCONNECT_ANS ";
            return Reading::stop;
        case MessageType::HOSTDEBUG_ANS:
            if (frame.param0() == debugTextAnswer && NORVA::logThreshold.load() >= 6) {
                std::string_view text(reinterpret_cast<const char*>(frame.body()), frame.bodySize());
                LogLine(6) << "Target: " << text.substr(0, text.find('\0'));
            }
            return Reading::next;
        default:
            return Reading::next;
    }
}

SyncWorker::Reading SyncWorker::onResendRequest(const StreamAnswer& answer) {
    // Go-back-N: everything from the first packet missing goes out again.
    std::uint16_t count = std::uint16_t(std::uint16_t(seq) - answer.resendFrom);
    if (count >= ringSize) {
        LogLine(6) << "   count error " << answer.resendFrom << "   " << answer.resendNote << " " << count;
        return Reading::endStream;
    }
    resendCount = count;
    sync.timing.resendRequests.fetch_add(1, std::memory_order_relaxed);
    if (ms) {
        LogLine(6) << "   count resend " << answer.resendFrom << "(" << (answer.resendFrom & 0x7F) << ")   "
                   << answer.resendNote << " " << count;
    } else {
        LogLine(6) << "   count resend " << answer.resendFrom << "   " << answer.resendNote << " " << count;
    }
    return Reading::next;
}

void SyncWorker::onFeedback(const ConnectionBuffer& frame, const StreamAnswer& answer) {
    sync.timing.adjust.store(filter.add(answer.deviation), std::memory_order_relaxed);
    changeProfileUnderLoad();
    applyCorrection();
    checkPhase(sinkInvertOf(frame.flags()));
    traceFeedback(answer);
}

std::int32_t profileStepUnderLoad(std::int32_t lateScore, std::int32_t profileIndex,
                                  std::int32_t profileCount) {
    if (lateScore >= profileDownScore && profileIndex + 1 < profileCount) return 1;
    if (lateScore == 0 && profileIndex > 0) return -1;
    return 0;
}

void SyncWorker::changeProfileUnderLoad() {
    std::int32_t step = profileStepUnderLoad(lateScore, profileIndex, sync.profileCount);
    if (step > 0) {
        lateScore = 10;
        LogLine(4) << "over time change profile " << profileIndex << " to " << profileIndex + 1;
    } else if (step < 0) {
        LogLine(4) << "over time recover profile " << profileIndex << " to " << profileIndex - 1;
    }
    if (step != 0) useProfile(profileIndex + step);
}

void SyncWorker::applyCorrection() {
    // Always from the profile's own value, so that nothing accumulates.
    const TransferProfile& current = profile();
    if (current.fixedSize == 0) {
        sizeNow = correctedSize(current.sizeQ14, filter.adjust());
    } else {
        cycleTime = correctedCycle(current.cycle, filter.adjust());
    }
}

void SyncWorker::checkPhase(bool flagsInvert) {
    bool hostInvert = sync.format.hostInvert;
    if (flagsInvert == sinkInvert && hostInvert == hostInvertSeen) return;
    sinkInvert = flagsInvert;
    hostInvertSeen = hostInvert;
    sync.format.applyPhase(sinkInvert);
}

void SyncWorker::traceFeedback(const StreamAnswer& answer) {
    if (NORVA::logThreshold.load() < 6) return;
    char deviation[9], average[9], adjust[9];
    formatQ14(deviation, answer.deviation);
    formatQ14(average, filter.average());
    formatQ14(adjust, filter.adjust());
    LogLine line(6);
    line << "info rcv " << answer.encoding << deviation << average << adjust;
    const TransferProfile& current = profile();
    if (current.fixedSize != 0) {
        line << " cy=" << cycleTime.raw();
        return;
    }
    std::int64_t perCycle = std::int64_t(sizeNow) * current.packetCount;
    char fraction[9];
    formatQ14(fraction, std::int32_t(perCycle & 0x3FFF));
    line << " fs=" << (perCycle >> 14) << "." << std::string_view(fraction + 4, 4);
}

}  // namespace VELMORA
