#include "Sink/StreamSink.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "System/Log.h"
#include "System/Threads.h"

using NORVA::IPAddress;
using NORVA::LogLine;

namespace VELMORA {

namespace {

// Room for the largest probe a datagram can carry.
constexpr std::size_t datagramRoom = 65536;
// Datagrams read in one go at most, so that a flood doesn't hide stop.
constexpr std::size_t drainLimit = 4096;

void refuse(SendBuffer& reply, std::uint16_t requestType) {
    reply.setHeader(awaitedAnswer(requestType), 0);
    reply.finish();
}

}  // namespace

StreamSink::StreamSink(const StreamSinkConfig& settings, std::unique_ptr<PlayoutOutput> output)
    : config(settings), bound(settings.address), playout(settings.play, std::move(output)) {
    for (std::size_t i = 0; i < batchSize; ++i) {
        datagrams[i].bytes.resize(datagramRoom);
        batchData[i] = datagrams[i].bytes.data();
    }
}

StreamSink::~StreamSink() {
    stop();
}

bool StreamSink::start() {
    if (thread.joinable()) {
        LogLine(3) << "StreamSink already running on port " << port();
        return false;
    }
    bound = config.address;
    dataBound = config.address;
    dataBound.setPort(0);
    if (!socket.openNonBlocking() || !socket.bind(bound) || !dataSocket.openNonBlocking() ||
        !dataSocket.bind(dataBound) || !raw.open()) {
        LogLine(3) << "StreamSink can't bind " << config.address.toStringPort() << " error "
                   << socket.lastError << " " << dataSocket.lastError;
        socket.close();
        dataSocket.close();
        return false;
    }
    // Batches are taken late by design: the level counts each packet from
    // its arrival. Where the system can't stamp them, from when taken.
    socket.stampArrivals();
    dataSocket.stampArrivals();
    sockets.clear();
    sockets.add(socket);
    sockets.add(dataSocket);
    if (raw.enabled()) sockets.add(raw.socket);
    stopping = false;
    thread = std::thread([this] { run(); });
    LogLine(6) << "StreamSink answers on " << bound.toStringPort();
    return true;
}

void StreamSink::stop() {
    if (!thread.joinable()) return;
    stopping = true;
    thread.join();
    socket.close();
    dataSocket.close();
    raw.close();
    connected = false;
    endStream();
}

void StreamSink::endStream() {
    if (!playout.isStreaming()) return;
    playout.end();
    SinkStats stats = playout.stats();
    LogLine(5) << "StreamSink " << port() << " stream: " << stats.text();
    if (config.statsPath.empty()) return;
    std::FILE* file = std::fopen(config.statsPath.c_str(), "w");
    if (file == nullptr) {
        LogLine(3) << "StreamSink can't write " << config.statsPath;
        return;
    }
    std::string text = stats.json();
    std::fwrite(text.data(), 1, text.size(), file);
    std::fputc('\n', file);
    std::fclose(file);
}

// What has arrived counts before the clock is read: a sink thread that was
// kept from running must not take its own delay for an underrun, nor tell
// the host of a buffer lower than it holds.
//
// The thread asks for a high priority, as a device's own would: a sink
// kept from running by the host's real-time threads would hold packets in
// its socket while its clock played on. Refused, it runs as it is.
//
// While a stream comes, the thread wakes once per batch wait rather than
// once per packet: it sleeps that long after taking what waited, and then
// reads all that came meanwhile in a call or two. Each wake costs far more
// than a packet's handling, on virtual machines most of all.
void StreamSink::run() {
    if (!NORVA::setCurrentThreadLevel(NORVA::levelHigh)) LogLine(7) << "StreamSink runs at normal priority";
    while (!stopping.load()) {
        int ready = sockets.wait(pollInterval);
        if (ready == 0) {
            LogLine(3) << "StreamSink wait failed, error " << socket.lastError;
            return;
        }
        bool tookAudio = false;
        if (ready == 2) {
            if (!drain(tookAudio)) return;
            if (sockets.isReady(raw.socket)) receiveRaw();
        }
        playout.advance(SinkPlayout::Clock::now());
        if (!tookAudio) continue;
        // One sleep: a little early or late matters nothing here.
        auto rest =
            std::chrono::duration_cast<std::chrono::microseconds>(playout.batchWait(batchSize)).count();
        if (rest > 0) NORVA::sleepMicroseconds(std::uint64_t(rest));
    }
}

bool StreamSink::drain(bool& tookAudio) {
    backlog = true;
    bool ok = (!sockets.isReady(dataSocket) || drainSocket(dataSocket, tookAudio)) &&
              (!sockets.isReady(socket) || drainSocket(socket, tookAudio));
    backlog = false;
    if (!tookAudio) return ok;
    SinkPlayout::Answer answers[2];
    int count = playout.settle(SinkPlayout::Clock::now(), answers);
    for (int i = 0; i < count; ++i) sendAnswer(answers[i], audioFrom);
    return ok;
}

bool StreamSink::drainSocket(NORVA::UDPV6& from, bool& tookAudio) {
    bool onDataPort = &from == &dataSocket;
    for (std::size_t read = 0; read < drainLimit;) {
        std::size_t taken = 0;
        if (!from.receiveMany(batchData, datagramRoom, batchLengths, batchPeers, batchAges, batchSize,
                              taken)) {
            LogLine(3) << "StreamSink receive failed, error " << from.lastError;
            return false;
        }
        for (std::size_t i = 0; i < taken; ++i) {
            Datagram& datagram = datagrams[i];
            datagram.size = batchLengths[i];
            datagram.from = batchPeers[i];
            datagram.waited = batchAges[i];
            datagram.onDataPort = onDataPort;
            tookAudio = dispatch(datagram) || tookAudio;
        }
        if (taken < batchSize) break;
        read += taken;
    }
    return true;
}

bool StreamSink::dispatch(const Datagram& datagram) {
    if (datagram.onDataPort) return receiveData(datagram);
    Receive request(datagram.bytes.data(), std::uint32_t(datagram.size));
    return request.isValid() && handle(request, datagram);
}

// The compact framings: a tag byte after the body (mode 1) or a 16-bit tag
// ahead of it (mode 2); bit 7 asks for feedback, the rest is the sequence.
bool StreamSink::receiveData(const Datagram& datagram) {
    std::size_t received = datagram.size;
    bool second = mode.load() == msMode2;
    if (received < (second ? 2u : 1u)) return false;
    std::uint8_t tag = second ? datagram.bytes[0] : datagram.bytes[received - 1];
    SinkPlayout::Packet packet;
    packet.compact = true;
    packet.queuedBehind = backlog;
    packet.sequence = tag & 0x7F;
    packet.wantsFeedback = (tag & 0x80) != 0;
    packet.waited = datagram.waited;
    packet.body = datagram.bytes.data() + (second ? 2 : 0);
    packet.size = std::uint32_t(received - 1 - (second ? 1 : 0));
    play(packet, datagram.from);
    return true;
}

void StreamSink::play(const SinkPlayout::Packet& packet, const IPAddress& from) {
    SinkPlayout::Answer answers[2];
    int count = playout.receive(packet, SinkPlayout::Clock::now(), answers);
    audioFrom = from;
    for (int i = 0; i < count; ++i) sendAnswer(answers[i], from);
}

void StreamSink::sendAnswer(const SinkPlayout::Answer& answer, const IPAddress& to) {
    std::uint16_t flags = answer.resend ? streamAnswerResend : (config.invertPhase ? 0x100 : 0);
    SendBuffer reply;
    reply.setHeader(MessageType::STREAM_ANS, flags, answer.param0, answer.param1, answer.param2, 0);
    reply.finish();
    if (!socket.sendTo(to, true, reply.bytes.data, reply.bytes.size)) {
        LogLine(4) << "StreamSink send failed, error " << socket.lastError;
    }
}

bool StreamSink::handle(const Receive& request, const Datagram& datagram) {
    const IPAddress& from = datagram.from;
    if (request.type() == MessageType::STREAM_DATA) {
        SinkPlayout::Packet packet;
        packet.sequence = request.param0();
        packet.wantsFeedback = (request.flags() & streamWantsFeedback) != 0;
        packet.queuedBehind = backlog;
        packet.waited = datagram.waited;
        packet.body = request.body();
        packet.size = request.bodySize();
        play(packet, from);
        return true;
    }
    record(request);
    requester = from;
    SendBuffer reply;
    if (!answer(request, reply)) return false;
    if (!socket.sendTo(from, true, reply.bytes.data, reply.bytes.size)) {
        LogLine(4) << "StreamSink send failed, error " << socket.lastError;
    }
    return false;
}

// False: the request gets no answer.
bool StreamSink::answer(const Receive& request, SendBuffer& reply) {
    std::uint16_t type = request.type();
    switch (type) {
        case MessageType::FORMAT_REQ: {
            std::uint64_t value = formatAnswer(request.paramU64());
            if (value == 0 && request.paramU64() != formatKindsQuery) {
                refuse(reply, type);
            } else {
                buildFormatAnswer(reply, value);
            }
            return true;
        }
        case MessageType::LATENCY_REQ: {
            LatencyAnswer latency = latencyAnswer(request.param0());
            grantedLatency = latency.granted;
            buildLatencyAnswer(reply, latency);
            return true;
        }
        case MessageType::DATASIZE_REQ: {
            DataSizeAnswer sizes;
            if (!dataSizeAnswer(request, sizes)) return false;
            buildDataSizeAnswer(reply, sizes);
            return true;
        }
        case MessageType::SINKINFO_REQ:
            buildSinkInfoAnswer(reply, {config.cycleMin, config.cycleMax, config.profile});
            return true;
        case MessageType::SYNCHRO_CHANNEL_REQ:
            if (!config.answerSynchroChannel) return false;
            buildSynchroChannelAnswer(reply, config.msa);
            return true;
        case MessageType::CONNECTPRE_REQ:
            grantedLatency = latencyAnswer(readConnectPreRequest(request).latency).granted;
            buildConnectPreAnswer(reply, grantedLatency);
            return true;
        case MessageType::CONNECTNAME_SET: {
            std::lock_guard<std::mutex> lock(seenMutex);
            name = readConnectName(request);
            buildEmptyAnswer(reply, type);
            return true;
        }
        case MessageType::CONNECT_REQ:
        case MessageType::MSCONNECT_REQ:
            return connectAnswer(request, reply);
        case MessageType::DISCONNECT_REQ:
            connected = false;
            endStream();
            buildEmptyAnswer(reply, type);
            return true;
        case MessageType::NOPBREAK_REQ:
        case MessageType::SYNCHRO_STATUS_REQ:
            buildEmptyAnswer(reply, type);
            return true;
        default:
            if (!isRequest(type)) return false;
            // An unknown request is echoed as a refusal.
            reply.setHeader(type, 0);
            reply.finish();
            return true;
    }
}

// The kinds word for a query of 0, else the mask asked for; 0 for a query
// that names no kind.
std::uint64_t StreamSink::formatAnswer(std::uint64_t query) const {
    if (query == formatKindsQuery) {
        std::uint32_t kinds = config.pcm.low() & FormatID::pcmMask;
        kinds |= (config.dsdLsb.low() | config.dsdMsb.low()) & FormatID::dsdMask;
        if (config.dsdLsb.value != 0) kinds |= FormatID::dsdLsbFirst;
        if (config.dsdMsb.value != 0) kinds |= FormatID::dsdMsbFirst;
        return kinds;
    }
    if ((query & FormatID::pcmMask) != 0) return config.pcm.value;
    if (query == formatDsdLsbQuery) return config.dsdLsb.value;
    if (query == formatDsdMsbQuery) return config.dsdMsb.value;
    return 0;
}

LatencyAnswer StreamSink::latencyAnswer(std::uint16_t wanted) const {
    std::uint16_t granted = wanted == 0 ? config.latency
                                        : std::clamp(wanted, config.latencyLeast,
                                                     std::max(config.latencyLeast, config.latencyGreatest));
    return {granted, config.latencyHardware, config.latencyGreatest};
}

// False: no answer, for a silent sink or a probe larger than the link.
bool StreamSink::dataSizeAnswer(const Receive& request, DataSizeAnswer& sizes) const {
    if (!config.answerDataSize) return false;
    sizes.leastPacket = config.dataMin;
    sizes.mostPerCycle = config.cycleDataMax;
    sizes.wantedPacket = config.dataReq;
    sizes.hasGreatestPacket = config.dataMax != 0;
    sizes.greatestPacket = config.dataMax;
    if (!isDataSizeProbe(request)) return true;
    if (config.linkMtu != 0 && request.size + probeFrameBelowMtu > config.linkMtu) return false;
    sizes.probeSum = probeSum(request.body(), request.size - headerSize);
    sizes.hasProbeSize = true;
    sizes.probeSize = request.size;
    return true;
}

bool StreamSink::connectAnswer(const Receive& request, SendBuffer& reply) {
    ConnectRequest wanted = readConnectRequest(request);
    bool offered =
        wanted.msMode == msModeNone || (config.answerSynchroChannel && wanted.msMode == msMode1) ||
        (config.answerSynchroChannel && wanted.msMode == msMode2 && (config.msa & channelOffersMode2) != 0);
    ConnectAnswer route;
    // Raw frames need an interface to take them on, and the host's address there.
    if (wanted.msMode == msModeRawFrames)
        offered = config.answerSynchroChannel && raw.enabled() && raw.connect(wanted, requester, route);
    if (!offered) {
        LogLine(4) << "StreamSink refuses transfer mode " << wanted.msMode;
        refuse(reply, request.type());
        return true;
    }
    route.statusPort = port();
    if (wanted.msMode == msMode1 || wanted.msMode == msMode2) route.dataPort = dataPort();
    route.sinkInvert = config.invertPhase;
    buildConnectAnswer(reply, request.type(), route);
    mode = wanted.msMode;
    connected = true;
    endStream();
    std::uint16_t latency = grantedLatency != 0 ? grantedLatency : config.latency;
    playout.start(wanted.streamFormat, latency * 100u);
    return true;
}

void StreamSink::record(const Receive& request) {
    std::lock_guard<std::mutex> lock(seenMutex);
    if (seen.size() == keptRequests) seen.pop_front();
    seen.push_back({request.type(), request.flags(), request.paramU64(), request.size});
}

std::vector<StreamSink::Request> StreamSink::requests() const {
    std::lock_guard<std::mutex> lock(seenMutex);
    return {seen.begin(), seen.end()};
}

std::vector<StreamSink::Request> StreamSink::requestsOf(std::uint16_t type) const {
    std::vector<Request> result;
    for (const Request& request : requests()) {
        if (request.type == type) result.push_back(request);
    }
    return result;
}

ConnectName StreamSink::connectName() const {
    std::lock_guard<std::mutex> lock(seenMutex);
    return name;
}

}  // namespace VELMORA
