#include "Stream/StreamMessages.h"

#include <algorithm>
#include <cstring>

#include "Protocol/MessageTypes.h"

namespace VELMORA {

namespace {

std::uint32_t readU32(const std::uint8_t* bytes) {
    return std::uint32_t(bytes[0]) | std::uint32_t(bytes[1]) << 8 | std::uint32_t(bytes[2]) << 16 |
           std::uint32_t(bytes[3]) << 24;
}

// The kind byte of CONNECTPRE_REQ: 1 integer PCM, 2 floating PCM, 8 DSD,
// 4 for anything else.
std::uint64_t connectKind(FormatID streamFormat) {
    std::uint32_t sample = streamFormat.low() & FormatID::sampleMask;
    if (sample == 0x2000 || sample == 0x4000) return 2;
    if (sample == FormatID::dsdOneBit || sample == FormatID::dsdFourBit) return 8;
    if ((sample & FormatID::pcmMask) != 0 && (sample & FormatID::dsdMask) == 0) return 1;
    return 4;
}

// Q14 deviation of the three feedback encodings.
std::int16_t deviationOf(int encoding, const Receive& answer) {
    switch (encoding) {
        case 1:
            return std::int16_t(std::uint16_t((answer.param0() - 0x2000) * 2));
        case 2: {
            std::uint16_t bits = answer.param0() & 0x7FFF;
            if ((bits & 0x4000) != 0) bits |= 0x8000;
            return std::int16_t(bits);
        }
        case 3: {
            std::int32_t level = answer.param1();
            std::int32_t wanted = answer.param2();
            return std::int16_t(((level - wanted) * 16384) / wanted);
        }
        default:
            return 0;
    }
}

void writeU32(std::uint8_t* bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[i] = std::uint8_t(value >> (8 * i));
}

void setBare(Message& request, std::uint16_t type, std::uint64_t value = 0) {
    request.setHeader(type, 0, value);
    request.finish();
}

int feedbackEncoding(const Receive& answer) {
    if ((answer.param0() & 0x8000) != 0) return 2;
    if (answer.param0() != 0) return 1;
    return answer.param2() != 0 ? 3 : 0;
}

}  // namespace

LatencyAnswer readLatencyAnswer(const Receive& answer) {
    return {answer.param0(), answer.param1(), answer.param2()};
}

SinkInfoAnswer readSinkInfoAnswer(const Receive& answer) {
    return {answer.param0(), answer.param1(), answer.param2()};
}

DataSizeAnswer readDataSizeAnswer(const Receive& answer) {
    DataSizeAnswer result;
    result.leastPacket = answer.param0();
    result.mostPerCycle = answer.param1();
    result.wantedPacket = answer.param2();
    result.probeSum = answer.param3();
    std::uint32_t size = answer.bodySize();
    if (size >= 4) {
        result.hasProbeSize = true;
        result.probeSize = readU32(answer.body());
    }
    if (size >= 8) {
        result.hasGreatestPacket = true;
        result.greatestPacket = readU32(answer.body() + 4);
    }
    return result;
}

std::uint64_t connectPreValue(FormatID streamFormat, std::uint16_t latency) {
    return std::uint64_t(streamFormat.low() & FormatID::channelMask) | connectKind(streamFormat) << 8 |
           std::uint64_t(latency) << 16 | std::uint64_t(streamFormat.high()) << 32;
}

std::uint16_t fillProbeBytes(std::uint8_t* bytes, std::uint32_t size, std::uint32_t& seed) {
    if (seed == 0) seed = 0x9E3779B9u;  // xorshift never leaves 0
    for (std::uint32_t i = 0; i < size; ++i) {
        seed ^= seed << 13;
        seed ^= seed >> 17;
        seed ^= seed << 5;
        bytes[i] = std::uint8_t(seed >> 24);
    }
    return probeSum(bytes, size);
}

std::uint16_t probeSum(const std::uint8_t* bytes, std::uint32_t size) {
    std::uint16_t sum = 0;
    for (std::uint32_t i = 0; i < size; ++i) sum = std::uint16_t(sum + bytes[i]);
    return sum;
}

bool probeEchoed(const DataSizeAnswer& answer, std::uint32_t frameSize, std::uint16_t sum) {
    if (answer.probeSum != sum) return false;
    return !answer.hasProbeSize || answer.probeSize == frameSize;
}

std::uint16_t msConnectFlags(std::uint32_t msMode) {
    switch (msMode) {
        case msMode1:
            return 1;
        case msMode2:
            return 2;
        case msModeRawFrames:
            return 3;
        default:
            return 0;
    }
}

void writeMsConnectBody(std::uint8_t (&body)[msConnectBodySize], std::uint32_t msMode,
                        const std::uint8_t* mac) {
    std::memset(body, 0, sizeof body);
    if (msMode == msModeRawFrames && mac != nullptr) std::memcpy(body + 8, mac, 6);
}

ConnectAnswer readConnectAnswer(const Receive& answer) {
    ConnectAnswer result;
    result.statusPort = answer.param0();
    result.dataPort = answer.param1();
    result.linkByte = std::uint8_t(answer.param2());
    result.sinkInvert = sinkInvertOf(answer.flags());
    if (answer.bodySize() >= 6) {
        result.hasTargetMac = true;
        std::memcpy(result.targetMac, answer.body(), 6);
    }
    return result;
}

StreamRoute streamRouteFor(std::uint32_t msMode, std::uint16_t dataPort) {
    if (dataPort == 0) return {};
    switch (msMode) {
        case msMode1:
            return {FramingMode::tagLast, true, false};
        case msMode2:
            return {FramingMode::tagFirst, true, false};
        case msModeRawFrames:
            return {FramingMode::ethernet, true, true};
        default:
            return {};
    }
}

StreamAnswer readStreamAnswer(const Receive& answer) {
    StreamAnswer result;
    // The resend form comes first: it carries no feedback and no phase.
    if ((answer.flags() & streamAnswerResend) != 0) {
        result.resend = true;
        result.resendFrom = answer.param1();
        result.resendNote = answer.param2();
        return result;
    }
    result.encoding = feedbackEncoding(answer);
    result.deviation = deviationOf(result.encoding, answer);
    result.sinkInvert = sinkInvertOf(answer.flags());
    return result;
}

// ---- The host's messages ---------------------------------------------------

void buildFormatRequest(Message& request, std::uint64_t query) {
    setBare(request, MessageType::FORMAT_REQ, query);
}

void buildLatencyRequest(Message& request, std::uint16_t wanted) {
    setBare(request, MessageType::LATENCY_REQ, wanted);
}

void buildDataSizeRequest(Message& request) {
    setBare(request, MessageType::DATASIZE_REQ);
}

std::uint16_t buildDataSizeProbe(ConnectionBuffer& request, std::uint16_t frameSize, std::uint32_t& seed) {
    frameSize = std::max<std::uint16_t>(frameSize, headerSize);
    request.setHeader(MessageType::DATASIZE_REQ, 0);
    request.setFrameSize(frameSize);
    std::uint16_t sum = fillProbeBytes(request.body(), frameSize - headerSize, seed);
    request.finish();
    return sum;
}

void buildSinkInfoRequest(Message& request, FormatID streamFormat) {
    setBare(request, MessageType::SINKINFO_REQ, streamFormat.value);
}

void buildConnectPreRequest(Message& request, FormatID streamFormat, std::uint16_t latency) {
    setBare(request, MessageType::CONNECTPRE_REQ, connectPreValue(streamFormat, latency));
}

void buildConnectName(ConnectionBuffer& request, std::uint64_t productId, std::string_view name) {
    request.setHeader(MessageType::CONNECTNAME_SET, flagYes, productId);
    request.setBodyText(name);
    request.finish();
}

void buildNopBreak(Message& request) {
    setBare(request, MessageType::NOPBREAK_REQ);
}

void buildSynchroChannelRequest(Message& request) {
    setBare(request, MessageType::SYNCHRO_CHANNEL_REQ);
}

void buildConnectRequest(ConnectionBuffer& request, std::uint32_t msMode, FormatID streamFormat,
                         const std::uint8_t* mac) {
    if (msMode == msModeNone) {
        setBare(request, MessageType::CONNECT_REQ, streamFormat.value);
        return;
    }
    request.setHeader(MessageType::MSCONNECT_REQ, msConnectFlags(msMode), streamFormat.value);
    request.setBodySize(msConnectBodySize);
    std::uint8_t body[msConnectBodySize];
    writeMsConnectBody(body, msMode, mac);
    std::memcpy(request.body(), body, sizeof body);
    request.finish();
}

void buildHostDebugRequest(Message& request, bool starting) {
    setBare(request, MessageType::HOSTDEBUG_REQ, starting ? 1 : 0);
}

// ---- The sink's side --------------------------------------------------------

ConnectPreRequest readConnectPreRequest(const Receive& request) {
    std::uint64_t value = request.paramU64();
    return {std::uint8_t(value), std::uint8_t(value >> 8), std::uint16_t(value >> 16),
            std::uint32_t(value >> 32)};
}

ConnectName readConnectName(const Receive& request) {
    ConnectName result;
    result.productId = request.paramU64();
    request.bodyText(result.name);
    return result;
}

bool isDataSizeProbe(const Receive& request) {
    return request.size > headerSize;
}

ConnectRequest readConnectRequest(const Receive& request) {
    ConnectRequest result;
    result.streamFormat = FormatID(request.paramU64());
    if (request.type() != MessageType::MSCONNECT_REQ) return result;
    switch (request.flags()) {
        case 1:
            result.msMode = msMode1;
            break;
        case 2:
            result.msMode = msMode2;
            break;
        case 3:
            result.msMode = msModeRawFrames;
            break;
        default:
            result.msMode = msModeNone;
    }
    if (result.msMode == msModeRawFrames && request.bodySize() >= msConnectBodySize) {
        result.hasHostMac = true;
        std::memcpy(result.hostMac, request.body() + 8, 6);
    }
    return result;
}

void buildFormatAnswer(SendBuffer& answer, std::uint64_t value) {
    answer.setHeader(MessageType::FORMAT_ANS, flagYes, value);
    answer.finish();
}

void buildLatencyAnswer(SendBuffer& answer, const LatencyAnswer& latency) {
    answer.setHeader(MessageType::LATENCY_ANS, flagYes, latency.granted, latency.hardware, latency.greatest,
                     0);
    answer.finish();
}

void buildDataSizeAnswer(SendBuffer& answer, const DataSizeAnswer& sizes) {
    answer.setHeader(MessageType::DATASIZE_ANS, flagYes, sizes.leastPacket, sizes.mostPerCycle,
                     sizes.wantedPacket, sizes.probeSum);
    if (sizes.hasGreatestPacket) {
        answer.setBodySize(8);
        writeU32(answer.body(), sizes.probeSize);
        writeU32(answer.body() + 4, sizes.greatestPacket);
    } else if (sizes.hasProbeSize) {
        answer.setBodySize(4);
        writeU32(answer.body(), sizes.probeSize);
    }
    answer.finish();
}

void buildSinkInfoAnswer(SendBuffer& answer, const SinkInfoAnswer& info) {
    answer.setHeader(MessageType::SINKINFO_ANS, flagYes, info.minCycle, info.maxCycle, info.profile, 0);
    answer.finish();
}

void buildSynchroChannelAnswer(SendBuffer& answer, std::uint16_t msa) {
    answer.setHeader(MessageType::SYNCHRO_CHANNEL_ANS, flagYes, msa, 0, 0, 0);
    answer.finish();
}

void buildConnectPreAnswer(SendBuffer& answer, std::uint16_t latency) {
    answer.setHeader(MessageType::CONNECTPRE_ANS, flagYes, 0, latency, 0, 0);
    answer.finish();
}

void buildConnectAnswer(SendBuffer& answer, std::uint16_t requestType, const ConnectAnswer& route) {
    std::uint16_t flags = std::uint16_t(flagYes | (route.sinkInvert ? 0x100 : 0));
    answer.setHeader(awaitedAnswer(requestType), flags, route.statusPort, route.dataPort, route.linkByte, 0);
    if (route.hasTargetMac) {
        answer.setBodySize(6);
        std::memcpy(answer.body(), route.targetMac, 6);
    }
    answer.finish();
}

void buildEmptyAnswer(SendBuffer& answer, std::uint16_t requestType) {
    answer.setHeader(awaitedAnswer(requestType), flagYes);
    answer.finish();
}

}  // namespace VELMORA
