#include "Stream/SyncWorker.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "Protocol/MessageTypes.h"
#include "System/Log.h"
#include "System/Threads.h"

using NORVA::LogLine;
using NORVA::TimeValue;

namespace VELMORA {

namespace {
// Ends the stream when the target has been silent this long, at least.
constexpr TimeValue leastReceiveTimeout = TimeValue::fromMs(1000);
constexpr TimeValue disconnectGiveUp = TimeValue::fromSeconds(2);
constexpr TimeValue disconnectWait = TimeValue::fromMs(100);
constexpr TimeValue disconnectFastRepeat = TimeValue::fromMs(10);
constexpr std::uint32_t leastPool = 32;
constexpr std::int32_t lateScoreLimit = 1000;
}  // namespace

std::int32_t waitModeFor(std::uint32_t threadFlags) {
    // The group picks spin or sleep, the yield bits the variant within it;
    // yielding on every pass goes before yielding once.
    std::int32_t variant = (threadFlags & ThreadFlag::yieldAlways) != 0 ? 1
                           : (threadFlags & ThreadFlag::yieldOnce) != 0 ? 2
                                                                        : 0;
    if ((threadFlags & (ThreadFlag::noSleep4Core | ThreadFlag::noSleepForce)) != 0) return 4 + variant;
    if ((threadFlags & ThreadFlag::noShortSleep) != 0) return 1 + variant;
    return 0;
}

std::uint32_t poolSizeFor(const TransferProfile& profile, std::uint32_t sendDepth, bool shortPool) {
    std::uint64_t spanUs = shortPool ? TransferProfile::poolSpanUs / 10 : TransferProfile::poolSpanUs;
    std::uint64_t cycleUs = profile.cycle.toUs();
    if (cycleUs == 0) return 0;
    std::uint64_t packets = spanUs / cycleUs * profile.packetCount + sendDepth;
    if (packets > TransferProfile::maxPoolPackets) return 0;
    return std::uint32_t(std::max<std::uint64_t>(std::bit_ceil(packets), leastPool));
}

void logWorkerStart(std::uint32_t threadFlags, std::uint16_t cpus, TimeValue infoRequestTime) {
    LogLine line(6);
    line << "wth start ";
    if (threadFlags & ThreadFlag::critical) line << "CRITICAL ";
    if (threadFlags & ThreadFlag::noShortSleep) line << "NOSHORTSLEEP ";
    if (threadFlags & ThreadFlag::noSleep4Core) line << "NOSLEEP4CORE ";
    if (threadFlags & ThreadFlag::noSleepForce) line << "NOSLEEPFORCE ";
    if (threadFlags & ThreadFlag::occupied) line << "OCCUPIED ";
    line << "CPU:" << cpus << " FEEDBACK:" << feedbackDepthOf(threadFlags);
    line << ((threadFlags & ThreadFlag::noFastFeedback) ? " NOFASTFEEDBACK " : " ");
    line << " Info=" << infoRequestTime.toMs();
}

SyncWorker::SyncWorker(Sync& owner, std::uint32_t workerFlags)
    : sync(owner),
      flags(workerFlags),
      socket(*owner.socket),
      filter(feedbackDepthOf(workerFlags)),
      random(5489) {}

void SyncWorker::run() {
    sync.timing.clear();
    if (setUp()) loop();
    sync.setConnectState(Sync::idle);
}

// ---- Set-up -----------------------------------------------------------------------

bool SyncWorker::setUp() {
    const TransferProfile& first = sync.profiles[0];
    ringSize = poolSizeFor(first, socket.sendDepth(), (flags & ThreadFlag::shortPool) != 0);
    if (ringSize == 0 || !profilesRunnable()) {
        LogLine(3) << "wth profile not runnable";
        return false;
    }
    ringMask = ringSize - 1;
    if (first.mode == transferRandom) random.seed(std::random_device()());
    if (sync.lowCpu && sync.profileCount > 1) {
        profileIndex = sync.profileCount - 1;
        LogLine(6) << "low cpu change profile " << profileIndex;
    }
    useProfile(profileIndex);
    sizeRule.frameBytes = sync.format.streamFormat.frameBytes();
    sizeRule.maxPacket = sync.maxPacketSize;

    if (!sync.connectExchange()) return false;
    sinkInvert = sync.connectAnswer.sinkInvert;
    hostInvertSeen = sync.format.hostInvert;
    ms = sync.route.ms;
    if (!buildPool()) return false;
    setInfoTimes();

    start = nextSend = TimeValue::now();
    if (!sendFirstBurst()) return false;
    // connectWait returns now that audio is under way. The lock keeps the
    // wake from falling between a waiter's test and its wait.
    { std::lock_guard<std::mutex> lock(sync.stateMutex); }
    sync.stateChanged.notify_all();
    lastRequest = lastReceived = start;
    LogLine(6) << "redy to play loop start" << std::int32_t(sync.playing.load());
    socket.waitMode = waitModeFor(flags);
    if (NORVA::EthernetSocket::neverSleeps(socket.waitMode) && NORVA::keepCurrentSpinnerRunnable()) {
        LogLine(6) << "wth spins: normal class at its highest priority";
    }
    return true;
}

// A profile change under load may take any of them, and a late cycle
// doubles its packets: each must fit the batch.
bool SyncWorker::profilesRunnable() const {
    if (sync.profileCount < 1 || std::size_t(sync.profileCount) > sync.profiles.size()) return false;
    for (std::int32_t i = 0; i < sync.profileCount; ++i) {
        if (!sync.profiles[std::size_t(i)].isRunnable(socket.sendDepth())) return false;
    }
    return true;
}

bool SyncWorker::buildPool() {
    const StreamRoute& route = sync.route;
    if (route.rawFrames && sync.rawSocket != nullptr) {
        pool.emplace(*sync.rawSocket, sync.dataAddress, sync.hostMac, sync.connectAnswer.targetMac,
                     sync.connectAnswer.dataPort, sync.connectAnswer.linkByte, route.framing);
    } else {
        FramingMode framing = route.rawFrames ? FramingMode::header : route.framing;
        pool.emplace(socket, sync.dataAddress, sync.hostMac, sync.hostMac, 0, 0, framing);
    }
    pool->resize(ringSize);
    // Every buffer gets the storage of the greatest packet now, so that the
    // cycle never grows one.
    std::uint32_t greatest = sync.maxPacketSize;
    for (std::int32_t i = 0; i < sync.profileCount; ++i) {
        greatest = std::max(greatest, sync.profiles[std::size_t(i)].fixedSize);
    }
    for (std::uint32_t i = 0; i < ringSize; ++i) (*pool)[i].setBodySize(std::uint16_t(greatest));
    for (std::size_t i = 0; i < receiveSlots; ++i) {
        ConnectionBuffer& buffer = receiveBuffers[i].emplace(socket);
        buffer.frame->resize(std::max<std::uint32_t>(socket.receiveSize, 4096), 0);
        buffer.clear();
        receiveFrames[i] = buffer.frame.get();
    }
    statusRequest.emplace(socket, sync.statusAddress, MessageType::SYNCHRO_STATUS_REQ);
    disconnectRequest.emplace(socket, sync.statusAddress, MessageType::DISCONNECT_REQ);
    return true;
}

void SyncWorker::setInfoTimes() {
    infoTime = sync.infoRequestTime;
    TimeValue least = TimeValue::fromRaw(cycleTime.raw() * 16);
    if (infoTime < least) {
        LogLine(6) << "infoRequestTime change " << infoTime.toMs() << "ms to " << least.toMs() << "ms";
        infoTime = least;
    }
    receiveTimeout = TimeValue::fromRaw(infoTime.raw() * 8);
    if (receiveTimeout < leastReceiveTimeout) receiveTimeout = leastReceiveTimeout;
}

bool SyncWorker::sendFirstBurst() {
    const std::uint8_t silence = sync.format.silenceByte();
    const std::uint16_t packets = sync.profiles[0].packetCount;
    for (std::uint32_t round = 0; round < socket.sendDepth(); ++round) {
        std::uint32_t bytes = nextPacketBytes(true);
        for (std::uint16_t k = 0; k < packets; ++k) {
            ConnectionBuffer& packet = startPacket(bytes);
            std::memset(packet.body(), silence, bytes);
            packet.setFlags(0x60, 0);
            addToBatch(packet);
            ++seq;
        }
        if (!transferBatch(false)) return false;
        nextSend = nextSend + cycleTime;
    }
    return true;
}

// ---- The cycle ----------------------------------------------------------------------

void SyncWorker::loop() {
    while (runCycle()) {
    }
}

bool SyncWorker::runCycle() {
    std::int32_t state = sync.connectState;
    if (state != Sync::connected && state != Sync::disconnecting) return false;
    if (endState == targetAnswered) {
        disconnectExchange();
        return false;
    }
    now = TimeValue::now();
    // nextSend is still the deadline just sent at, or one yet to come.
    sync.timing.addCycle(nextSend < now ? now - nextSend : TimeValue());
    ratio = 1.0f;
    nextSend = nextSend + cycleLength();
    std::uint32_t packets = packetsThisCycle();
    if (!buildPackets(packets, wantsInfo())) return false;
    sync.onCycle();
    if (!transferBatch(true)) return false;
    if (receiveBuffers[0]->isEmpty()) {
        TimeValue silent = now - lastReceived;
        if (silent < receiveTimeout) return true;
        LogLine(6) << "   timeout " << silent.toUs();
        return false;
    }
    return handleReceived();
}

TimeValue SyncWorker::cycleLength() {
    const TransferProfile& current = profile();
    if (current.mode != transferRandom || cycleTime <= current.cycleMin) return cycleTime;
    // Each cycle carries `ratio` of the audio, so the mean rate stays right.
    std::uint64_t span = (cycleTime - current.cycleMin).toUs();
    std::uint64_t full = cycleTime.toUs();
    std::uint64_t pick = std::uint64_t(random()) % (span + 1);
    std::uint64_t lengthUs = full - pick;
    ratio = float(lengthUs) / float(full);
    return TimeValue::fromUs(lengthUs);
}

std::uint32_t SyncWorker::packetsThisCycle() {
    std::uint32_t packets = profile().packetCount;
    bool doubled = false;
    if (nextSend <= now) {
        // A whole cycle is lost: carry two cycles' worth and move on by one.
        LogLine(4) << "over time " << (now - nextSend).toUs() << " " << lateScore;
        sync.timing.overTime.fetch_add(1, std::memory_order_relaxed);
        if ((flags & ThreadFlag::noFastFeedback) == 0) {
            packets *= 2;
            doubled = true;
            nextSend = nextSend + cycleTime;
        }
        if (lateScore < lateScoreLimit) lateScore += 10;
    } else if (lateScore > 0) {
        --lateScore;
    }
    // With a data port of its own, resent packets travel beside new audio.
    if (ms && resendCount != 0 && !doubled) packets *= 2;
    return packets;
}

bool SyncWorker::wantsInfo() const {
    switch (endState) {
        case streaming:
            return now - lastRequest >= infoTime;
        case sourceEnded:
        case silenceBuilt:
            return true;
        default:
            return false;
    }
}

bool SyncWorker::transferBatch(bool receive) {
    NORVA::BufferList sending(batch.data(), batchCount);
    NORVA::BufferList receiving(receiveFrames.data(), receive ? receiveSlots : 0);
    bool sent;
    if (sync.route.rawFrames && sync.rawSocket != nullptr && sync.rawSocket != &socket) {
        sent = sync.rawSocket->transfer(sending, nextSend, receiving, nullptr, &socket);
    } else {
        sent = socket.transfer(sending, nextSend, receiving, nullptr, nullptr);
    }
    batchCount = 0;
    if (!sent) LogLine(3) << "udp stream socket error";
    return sent;
}

// ---- The end ------------------------------------------------------------------------

void SyncWorker::disconnectExchange() {
    ConnectionBuffer& answer = *receiveBuffers[0];
    const TimeValue begin = TimeValue::now();
    TimeValue lastSent = begin - disconnectFastRepeat;
    for (;;) {
        TimeValue at = TimeValue::now();
        TimeValue elapsed = at - begin;
        if (elapsed > disconnectGiveUp) break;
        // Quick repeats at first, for a target that only missed the first.
        TimeValue interval = elapsed > disconnectWait ? disconnectWait : disconnectFastRepeat;
        if (at - lastSent > interval) {
            LogLine(6) << "DISCONNECT_REQ sent";
            lastSent = at;
            if (!socket.send(*disconnectRequest->frame)) break;
        }
        answer.clear();
        if (!sync.receive(answer, nullptr, disconnectWait)) break;
        if (answer.isEmpty() || !answer.isValid()) continue;
        std::uint16_t type = answer.type();
        if (type == MessageType::DISCONNECT_ANS) {
            LogLine(6) << "DISCONNECT_REQ done";
            return;
        }
        // Feedback and debug answers may still be under way.
        if (type != MessageType::HOSTDEBUG_ANS && type != MessageType::STREAM_ANS) {
            LogLine(6) << "DISCONNECT_REQ err rcv " << type;
        }
    }
    LogLine(6) << "DISCONNECT_REQ ERROR ";
}

}  // namespace VELMORA
