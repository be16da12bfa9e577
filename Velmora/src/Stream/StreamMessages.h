// The fields of the stream's own messages: the set-up questions, the connect
// exchange, the audio packets and the target's answers to them. Building a
// frame and the exchange itself belong to Protocol; this is what the words
// of those frames mean.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Format/FormatID.h"
#include "Protocol/ConnectionBuffer.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

namespace VELMORA {

// FORMAT_REQ: which kinds exist, then one mask per kind.
inline constexpr std::uint64_t formatKindsQuery = 0;
inline constexpr std::uint64_t formatDsdLsbQuery = 0x100000;
inline constexpr std::uint64_t formatDsdMsbQuery = 0x200000;

// SYNCHRO_CHANNEL_ANS: transfer modes beyond mode1, which any answer offers.
inline constexpr std::uint16_t channelOffersMode2 = 0x2;
inline constexpr std::uint16_t channelOffersRawFrames = 0x4;

// Transfer modes as `msMode` holds them.
inline constexpr std::uint32_t msModeNone = 0;
inline constexpr std::uint32_t msMode1 = 1;
inline constexpr std::uint32_t msMode2 = 2;
inline constexpr std::uint32_t msModeRawFrames = 4;

// STREAM_DATA flags in header framing.
inline constexpr std::uint16_t streamLastOfCycle = 0x40;
inline constexpr std::uint16_t streamWantsFeedback = flagTagHigh;

// STREAM_ANS: the resend form carries no feedback.
inline constexpr std::uint16_t streamAnswerResend = 0x08;

// A DATASIZE_REQ probe frame is this much below the link MTU it probes
// (IPv6 and UDP headers, and room kept for the link).
inline constexpr std::uint32_t probeFrameBelowMtu = 48;

struct LatencyAnswer {
    std::uint16_t granted = 0;   // units of 100 us
    std::uint16_t hardware = 0;  // units of 100 us
    std::uint16_t greatest = 0;  // units of 100 us
};
LatencyAnswer readLatencyAnswer(const Receive& answer);

struct SinkInfoAnswer {
    std::uint16_t minCycle = 0;  // units of 10 us
    std::uint16_t maxCycle = 0;  // units of 10 us
    std::uint16_t profile = 0;
};
SinkInfoAnswer readSinkInfoAnswer(const Receive& answer);

struct DataSizeAnswer {
    std::uint16_t leastPacket = 0;
    std::uint16_t mostPerCycle = 0;  // 0xFFFF: no limit
    std::uint16_t wantedPacket = 0;
    std::uint16_t probeSum = 0;
    bool hasProbeSize = false;  // the body's first word, the probe frame's size
    std::uint32_t probeSize = 0;
    bool hasGreatestPacket = false;
    std::uint32_t greatestPacket = 0;
};
DataSizeAnswer readDataSizeAnswer(const Receive& answer);

// The CONNECTPRE_REQ value: channel byte, kind, latency (units of 100 us)
// and the high half of the format.
std::uint64_t connectPreValue(FormatID streamFormat, std::uint16_t latency);

// Fills `size` bytes with pseudo-random values from `seed` (which advances)
// and returns their 16-bit sum, the check a target echoes.
std::uint16_t fillProbeBytes(std::uint8_t* bytes, std::uint32_t size, std::uint32_t& seed);
// The 16-bit sum of the bytes, as a target computes it.
std::uint16_t probeSum(const std::uint8_t* bytes, std::uint32_t size);
// True if the answer echoes a probe frame of `frameSize` bytes whose random
// bytes summed to `sum`.
bool probeEchoed(const DataSizeAnswer& answer, std::uint32_t frameSize, std::uint16_t sum);

// MSCONNECT_REQ: the flags that name the mode, and the 14-byte body, which
// carries the host's MAC address for raw frames only (`mac` may be null).
std::uint16_t msConnectFlags(std::uint32_t msMode);
inline constexpr std::uint16_t msConnectBodySize = 14;
void writeMsConnectBody(std::uint8_t (&body)[msConnectBodySize], std::uint32_t msMode,
                        const std::uint8_t* mac);

// The phase bits of a connect answer or a feedback: the sink inverts when
// bit 8 is set and bit 7 clear.
constexpr bool sinkInvertOf(std::uint16_t flags) {
    return (flags & 0x100) != 0 && (flags & 0x80) == 0;
}

// What CONNECT_ANS or MSCONNECT_ANS tells of the stream's route.
struct ConnectAnswer {
    std::uint16_t statusPort = 0;
    std::uint16_t dataPort = 0;  // modes 1 and 2; for raw frames the ether type
    std::uint8_t linkByte = 0;   // raw frames
    bool hasTargetMac = false;   // raw frames
    std::uint8_t targetMac[6] = {};
    bool sinkInvert = false;
};
ConnectAnswer readConnectAnswer(const Receive& answer);

// How the audio travels, from the mode in use and the answer's second port.
struct StreamRoute {
    FramingMode framing = FramingMode::header;
    bool ms = false;         // a data port apart from the status port
    bool rawFrames = false;  // through the raw socket
};
StreamRoute streamRouteFor(std::uint32_t msMode, std::uint16_t dataPort);

// A STREAM_ANS, read.
struct StreamAnswer {
    bool resend = false;
    std::uint16_t resendFrom = 0;  // first sequence number to send again
    std::uint16_t resendNote = 0;  // only logged
    int encoding = 0;              // of the feedback: 0 none, 1 centred, 2 signed, 3 level
    std::int16_t deviation = 0;    // Q14; positive: the target holds too much
    bool sinkInvert = false;
};
StreamAnswer readStreamAnswer(const Receive& answer);

// ---- The host's messages, built and finished, ready to send ----------------

void buildFormatRequest(Message& request, std::uint64_t query);
// `wanted` in units of 100 us; 0 only asks.
void buildLatencyRequest(Message& request, std::uint16_t wanted);
void buildDataSizeRequest(Message& request);
// A probe frame of exactly `frameSize` bytes (at least a header) filled with
// random bytes; returns their sum, which the echo must carry.
std::uint16_t buildDataSizeProbe(ConnectionBuffer& request, std::uint16_t frameSize, std::uint32_t& seed);
void buildSinkInfoRequest(Message& request, FormatID streamFormat);
void buildConnectPreRequest(Message& request, FormatID streamFormat, std::uint16_t latency);
void buildConnectName(ConnectionBuffer& request, std::uint64_t productId, std::string_view name);
void buildNopBreak(Message& request);
void buildSynchroChannelRequest(Message& request);
// CONNECT_REQ with no transfer mode, MSCONNECT_REQ with its body otherwise;
// `mac` is the host interface's address for raw frames, or null.
void buildConnectRequest(ConnectionBuffer& request, std::uint32_t msMode, FormatID streamFormat,
                         const std::uint8_t* mac);
void buildHostDebugRequest(Message& request, bool starting);

// ---- The sink's side: its readings of requests and its answers --------------

// The CONNECTPRE_REQ value taken apart.
struct ConnectPreRequest {
    std::uint8_t channels = 0;
    std::uint8_t kind = 0;      // 1 integer PCM, 2 floating PCM, 8 DSD, 4 other
    std::uint16_t latency = 0;  // units of 100 us
    std::uint32_t formatHigh = 0;
};
ConnectPreRequest readConnectPreRequest(const Receive& request);

struct ConnectName {
    std::uint64_t productId = 0;
    std::string name;
};
ConnectName readConnectName(const Receive& request);

// A DATASIZE_REQ that carries random bytes behind its header.
bool isDataSizeProbe(const Receive& request);

// The transfer mode that MSCONNECT_REQ's flags name (CONNECT_REQ: none), and
// for raw frames the host's MAC address from its body.
struct ConnectRequest {
    std::uint32_t msMode = msModeNone;
    FormatID streamFormat;
    bool hasHostMac = false;
    std::uint8_t hostMac[6] = {};
};
ConnectRequest readConnectRequest(const Receive& request);

// Answers are yes answers, built whole.
void buildFormatAnswer(SendBuffer& answer, std::uint64_t value);
void buildLatencyAnswer(SendBuffer& answer, const LatencyAnswer& latency);
// With a body when the answer has a probe size or a greatest packet.
void buildDataSizeAnswer(SendBuffer& answer, const DataSizeAnswer& sizes);
void buildSinkInfoAnswer(SendBuffer& answer, const SinkInfoAnswer& info);
void buildSynchroChannelAnswer(SendBuffer& answer, std::uint16_t msa);
void buildConnectPreAnswer(SendBuffer& answer, std::uint16_t latency);
// CONNECT_ANS or MSCONNECT_ANS, after `requestType`; the target's MAC goes
// into the body when the answer has one.
void buildConnectAnswer(SendBuffer& answer, std::uint16_t requestType, const ConnectAnswer& route);
// The plain yes of a request whose answer carries nothing.
void buildEmptyAnswer(SendBuffer& answer, std::uint16_t requestType);

}  // namespace VELMORA
