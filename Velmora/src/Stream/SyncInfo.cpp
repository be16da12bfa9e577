// The set-up exchanges with the sink: getInfo and connectPrepare.
#include <algorithm>

#include "Protocol/MessageTypes.h"
#include "Stream/Sync.h"
#include "System/Log.h"
#include "System/Threads.h"

using NORVA::IPAddress;
using NORVA::LogLine;
using NORVA::TimeValue;

namespace VELMORA {

namespace {

constexpr std::uint32_t kindsPcm = 0xFF00;
constexpr std::uint32_t kindsDsd = 0xF0000;
constexpr std::uint32_t kindsDsdLsb = 0x100000;
constexpr std::uint32_t kindsDsdMsb = 0x200000;
// A probe frame must hold its header; the link MTU it stands for must fit
// in smtu's 16 bits, which also keeps the frame within one datagram.
constexpr std::uint32_t leastProbe = probeFrameBelowMtu + headerSize;
constexpr std::uint32_t greatestProbe = 0xFFFF;
constexpr TimeValue nameTimeout = Connection::ackTimeout;

}  // namespace

bool Sync::getInfo(const IPAddress& target, TimeValue latencyBuffer, bool nopBreak, std::uint32_t mtu) {
    if (nopBreak) {
        ConnectionBuffer request(*socket, target);
        buildNopBreak(request);
        ConnectionBuffer answer(*socket);
        if (!exchange(request, target, answer, ackTimeout)) return false;
    }
    if (!exchangeFormats(target)) return false;
    if (!exchangeSinkInfo(target)) return false;
    if (!exchangeLatency(target, latencyBuffer)) return false;
    if (!exchangeTransferMode(target)) return false;
    exchangeDataSize(target, mtu);
    setPayloadSize();
    targetAddress = target;
    debugAddress = target;
    debugAddress.setPort(debugPort);
    // Lets the log listener take in the lines so far before the stream starts.
    if (NORVA::logThreshold >= 6) NORVA::sleepMilliseconds(110);
    return true;
}

bool Sync::askFormatMask(const IPAddress& target, std::uint64_t query, FormatID& mask) {
    ConnectionBuffer request(*socket, target);
    buildFormatRequest(request, query);
    ConnectionBuffer answer(*socket);
    if (!exchange(request, target, answer, ackTimeout) || answer.isEmpty()) return false;
    mask = FormatID(answer.paramU64());
    return true;
}

bool Sync::exchangeFormats(const IPAddress& target) {
    FormatID kindsWord;
    if (!askFormatMask(target, formatKindsQuery, kindsWord) || kindsWord.value == 0) return false;
    std::uint32_t kinds = kindsWord.low();
    SinkFormats& sink = format.sink;
    sink = SinkFormats{};
    if ((kinds & kindsPcm) != 0 && !askFormatMask(target, kinds & kindsPcm, sink.pcm)) return false;
    if ((kinds & kindsDsd) != 0) {
        if ((kinds & kindsDsdLsb) != 0 && !askFormatMask(target, formatDsdLsbQuery, sink.dsdLsb))
            return false;
        if ((kinds & kindsDsdMsb) != 0 && !askFormatMask(target, formatDsdMsbQuery, sink.dsdMsb))
            return false;
    }
    return sink.pcm.value != 0 || sink.dsdLsb.value != 0 || sink.dsdMsb.value != 0;
}

bool Sync::exchangeSinkInfo(const IPAddress& target) {
    std::uint32_t baseMin = format.sink.unitLeast();
    std::uint32_t frameMax = format.sink.unitGreatest();
    ConnectionBuffer request(*socket, target);
    buildSinkInfoRequest(request, format.streamFormat);
    ConnectionBuffer answer(*socket);
    if (!exchange(request, target, answer, ackTimeout)) return false;
    SinkInfoAnswer info = answer.isEmpty() ? SinkInfoAnswer{} : readSinkInfoAnswer(answer.received());
    transfer.sink.setAnswer(info.minCycle, info.maxCycle, info.profile);
    transfer.sink.baseMin = baseMin;
    transfer.sink.frameMax = frameMax;
    transfer.cycle = TimeValue();
    return true;
}

bool Sync::exchangeLatency(const IPAddress& target, TimeValue latencyBuffer) {
    ConnectionBuffer request(*socket, target);
    buildLatencyRequest(request, 0);
    ConnectionBuffer answer(*socket);
    if (!exchange(request, target, answer, ackTimeout) || answer.isEmpty()) return false;
    LatencyAnswer sinkLatency = readLatencyAnswer(answer.received());
    latencyHw = sinkLatency.hardware;
    latencyMax = sinkLatency.greatest;

    std::uint16_t wanted = std::uint16_t(latencyBuffer.toUs() / 100);
    if (wanted == 0) {
        latency = sinkLatency.granted;
        LogLine(6) << "LATENCY_REQ hw=" << latencyHw * 100 << "us latency=" << latency * 100 << "us";
        return true;
    }
    buildLatencyRequest(request, wanted);
    if (!exchange(request, target, answer, ackTimeout) || answer.isEmpty()) return false;
    latency = readLatencyAnswer(answer.received()).granted;
    LogLine(6) << "LATENCY_REQ hw=" << latencyHw * 100 << "us request=" << wanted * 100
               << "us latency=" << latency * 100 << "us";
    return true;
}

bool Sync::exchangeTransferMode(const IPAddress& target) {
    ConnectionBuffer request(*socket, target);
    buildSynchroChannelRequest(request);
    ConnectionBuffer answer(*socket);
    if (!exchange(request, target, answer, ackTimeout)) return false;
    bool answered = !answer.isEmpty();
    msa = answered ? answer.param0() : 0;
    bool mode2 = (msa & channelOffersMode2) != 0;
    bool rawFrames = (msa & channelOffersRawFrames) != 0;
    // Offered whether or not the sink answered, as the raw path opens here.
    if (!offerRawFrames(target) || (threadFlags & ThreadFlag::noRawFrames) != 0) rawFrames = false;
    if (!answered) {
        msMode = msModeNone;
    } else if (rawFrames) {
        msMode = msModeRawFrames;
    } else {
        msMode = mode2 ? msMode2 : msMode1;
    }
    keepRawFramesFor(msMode);
    LogLine(6) << "SYNCHRO_CHANNEL_REQ msa=" << msa;
    return true;
}

void Sync::exchangeDataSize(const IPAddress& target, std::uint32_t mtu) {
    smtu = defaultPacket;
    cycleDataMax = defaultCycleDataMax;
    dataMin = defaultPacket;
    dataReq = defaultPacket;
    dataMax = 0;
    ConnectionBuffer request(*socket, target);
    buildDataSizeRequest(request);
    ConnectionBuffer answer(*socket);
    // Silence, or a failed socket, leaves the defaults.
    if (!exchange(request, target, answer, ackTimeout) || answer.isEmpty()) return;
    DataSizeAnswer sizes = readDataSizeAnswer(answer.received());
    dataMin = sizes.leastPacket;
    cycleDataMax = sizes.mostPerCycle;
    dataReq = sizes.wantedPacket;
    if (sizes.hasGreatestPacket) dataMax = sizes.greatestPacket;
    bool wantsLarger = dataReq > defaultPacket || dataMax > defaultPacket;
    if ((threadFlags & ThreadFlag::noProbe) == 0 && wantsLarger && mtu > defaultPacket) {
        smtu = probe(target, std::min(mtu, std::max<std::uint32_t>(dataReq, dataMax)), dataReq);
    }
    LogLine(6) << "DATASIZE_REQ smtu=" << smtu << " amtu=" << mtu << " min=" << dataMin << " req=" << dataReq
               << " max=" << dataMax;
}

std::uint16_t Sync::probe(const IPAddress& target, std::uint32_t candidate, std::uint32_t req) {
    if (candidate <= defaultPacket) return defaultPacket;
    std::uint32_t echoed = 0;
    if (probeTry(target, candidate, echoed) && echoed == candidate) return std::uint16_t(candidate);
    if (!probeTry(target, req, echoed)) return defaultPacket;
    return echoed == req && req != 0 ? std::uint16_t(req) : defaultPacket;
}

// One probe frame of a link MTU of `size`; `echoed` is `size` if the sink
// echoed it whole, else 0. False only if the socket failed.
bool Sync::probeTry(const IPAddress& target, std::uint32_t size, std::uint32_t& echoed) {
    echoed = 0;
    if (size < leastProbe || size > greatestProbe) return true;
    std::uint32_t frameSize = size - probeFrameBelowMtu;
    ConnectionBuffer request(*socket, target);
    std::uint16_t sum = buildDataSizeProbe(request, std::uint16_t(frameSize), probeSeed);
    ConnectionBuffer answer(*socket);
    if (!exchange(request, target, answer, ackTimeout)) return false;
    if (!answer.isEmpty() && probeEchoed(readDataSizeAnswer(answer.received()), frameSize, sum))
        echoed = size;
    return true;
}

void Sync::setPayloadSize() {
    switch (msMode) {
        case msMode1:
            maxPacketSize = std::uint16_t(smtu - 49);
            break;
        case msMode2:
            maxPacketSize = std::uint16_t(smtu - 50);
            break;
        case msModeRawFrames:
            maxPacketSize = std::uint16_t(smtu - 2);
            break;
        default:
            maxPacketSize = std::uint16_t((smtu - 64) & 0xFFF8);
    }
    maxPacketCount = cycleDataMax == 0xFFFF ? 0xFFFF : std::uint16_t(cycleDataMax / smtu);
}

// ---- connectPrepare ---------------------------------------------------------

// The latency to ask for: at least eight cycles of the first profile, but
// never more than the greatest latency the sink offers, even if that is 0.
std::uint16_t Sync::connectLatency() const {
    std::uint64_t cycleUs = profiles[0].cycle.toUs();
    if (std::uint64_t(latency) * 100 / cycleUs >= leastLatencyCycles) return latency;
    std::uint64_t wanted = std::min<std::uint64_t>(leastLatencyCycles * cycleUs / 100, 0xFFFF);
    wanted = std::min<std::uint64_t>(wanted, latencyMax);
    LogLine(6) << "latency change " << latency * 100 << "us to " << wanted * 100 << "us";
    return std::uint16_t(wanted);
}

bool Sync::connectPrepare() {
    if (profiles[0].cycle.toUs() == 0) {
        LogLine(3) << "connectPrepare: no transfer profile planned";
        return false;
    }
    ConnectionBuffer request(*socket, targetAddress);
    buildConnectPreRequest(request, format.streamFormat, connectLatency());
    ConnectionBuffer answer(*socket);
    if (!exchange(request, targetAddress, answer, connectTimeout)) {
        LogLine(3) << "wth CR send err";
        setConnectState(idle);
        return false;
    }
    if (answer.isEmpty()) return true;
    LogLine(6) << "CONNECTPRE_REQ latency=" << answer.param1() * 100 << "us";

    ConnectionBuffer name(*socket, targetAddress);
    buildConnectName(name, productId, syncName);
    return exchange(name, targetAddress, answer, nameTimeout);
}

}  // namespace VELMORA
