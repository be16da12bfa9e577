#include "Stream/Sync.h"

#include <chrono>
#include <cstring>

#include "Protocol/MessageTypes.h"
#include "Stream/SyncFeedback.h"
#include "Stream/SyncWorker.h"
#include "System/Log.h"
#include "System/Threads.h"

using NORVA::IPAddress;
using NORVA::LogLine;
using NORVA::TimeValue;

namespace VELMORA {

namespace {
// connectWait's bound on a connection that doesn't come up.
constexpr TimeValue connectWaitLimit = TimeValue::fromSeconds(50);
}  // namespace

Sync::Sync() : ownedRawSocket(NORVA::UDPV6::create(true)) {
    rawSocket = ownedRawSocket.get();
    transfer.cycle = TimeValue::fromMs(1000);
    transfer.packetCount = 1;
}

Sync::Sync(NORVA::UDPV6& shared, NORVA::UDPV6* raw) : Connection(shared), rawSocket(raw) {
    transfer.cycle = TimeValue::fromMs(1000);
    transfer.packetCount = 1;
}

Sync::~Sync() {
    connectState = idle;
    playing = 0;
    // The socket is shut before the join: a worker inside the connect
    // exchange would otherwise hold the caller for up to 30 s.
    Connection::interrupt();
    joinWorker();
    Connection::close();
}

bool Sync::open(std::uint32_t flags, TimeValue infoCycle, std::uint16_t scope, const std::string& name,
                std::uint64_t product, std::int32_t sendCpu, std::int32_t otherCpu,
                std::int32_t otherCpuCount) {
    LogLine(6) << "Velmora Sync Library ReleaseNo : " << releaseNumber << " [" << scope << "]";
    threadFlags = flags;
    cpuSend = sendCpu;
    cpuOther = otherCpu;
    cpuOtherCount = otherCpuCount;
    infoRequestTime = infoCycle;
    format.hostInvert = false;
    msMode = msModeNone;

    IPAddress any;
    any.setScope(scope);
    if (!Connection::open(any)) return false;
    resetRawSocket();

    maxPacketSize = 1432;
    maxPacketCount = 10;
    syncName = name;
    productId = product;
    connectState = idle;
    playing = 0;
    disconnectRequested = false;
    return true;
}

bool Sync::exchange(ConnectionBuffer& request, const IPAddress& peer, ConnectionBuffer& answer,
                    TimeValue timeout) {
    // A late answer to a request that was sent again would pass for the
    // answer to this one (many share an answer type), so drop what waits.
    for (int stale = 0; stale < staleAnswersDropped; ++stale) {
        if (!receive(answer, nullptr, TimeValue()) || answer.isEmpty()) break;
    }
    return sendAck(request, peer, awaitedAnswer(request.header.type()), answer, timeout);
}

// ---- Connecting ---------------------------------------------------------------

bool Sync::connect() {
    connectState = idle;
    joinWorker();
    if (!isValidStream(format.streamFormat)) {
        LogLine(3) << "sinkConfig invalid";
        return false;
    }
    playing = 0;
    disconnectRequested = false;
    connectState = starting;
    if (!startWorker()) {
        LogLine(3) << "Sync Worker Start Error";
        connectState = idle;
        playing = 0;
        Connection::close();
        joinWorker();
        return false;
    }
    return true;
}

bool Sync::startWorker() {
    if (workerThread.joinable()) return false;  // connect joins the last one first
    workerThread = std::thread([this] { workerMain(); });
    return true;
}

void Sync::joinWorker() {
    if (workerThread.joinable()) workerThread.join();
}

bool Sync::connectWait() {
    std::int32_t state = connectState;
    if (state != starting && state != connected) return false;
    {
        std::unique_lock<std::mutex> lock(stateMutex);
        bool ended = NORVA::waitFor(stateChanged, lock, std::chrono::microseconds(connectWaitLimit.toUs()),
                                    [this] { return connectState != starting; });
        LogLine(6) << (ended ? "connectWait notimeout" : "connectWait timeout");
    }
    LogLine(6) << "connectWait " << connectState.load();
    return true;
}

void Sync::setConnectState(ConnectState state) {
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        connectState = state;
    }
    stateChanged.notify_all();
    onStateChange();
}

// ---- Ending ---------------------------------------------------------------------

void Sync::requestDisconnect() {
    std::int32_t expected = connected;
    if (!connectState.compare_exchange_strong(expected, disconnecting)) return;
    onStateChange();
    disconnectRequested = true;
    LogLine(6) << "discone flgset";
}

void Sync::disconnect() {
    LogLine(6) << "discone";
    std::int32_t state = connectState;
    if (state != connected && state != disconnecting) return;
    requestDisconnect();
    disconnectRequested = true;
}

bool Sync::disconnectWait() {
    if (!disconnectRequested) {
        LogLine(6) << "discone wait cancel";
        return false;
    }
    // The worker's playout and its disconnect exchange are bounded.
    joinWorker();
    LogLine(6) << "discone done";
    return true;
}

void Sync::play() {
    playing.exchange(1);
    LogLine(6) << "play " << connectState.load();
}

void Sync::stop() {
    playing.exchange(0);
    LogLine(6) << "stop " << connectState.load();
}

// ---- The worker ---------------------------------------------------------------

void Sync::workerMain() {
    bool started = startOnProcessor();
    if (started) {
        announceToTarget(true);
        SyncWorker(*this, threadFlags).run();
        announceToTarget(false);
        // How well this machine kept the worker's time: the first thing to
        // read in a log of clicks.
        LogLine(6) << "wth lateness us median " << timing.latenessUsAt(0.5) << " p99 "
                   << timing.latenessUsAt(0.99) << " latest " << timing.latestUs.load() << ", over time "
                   << timing.overTime.load() << " of " << timing.cycles.load() << " cycles, ring dry "
                   << timing.ringDry.load();
    }
    setConnectState(idle);
    if (started) LogLine(6) << "wth end";
}

WorkerPlacement placementFor(std::uint32_t threadFlags, std::uint16_t cpus, TimeValue firstCycle) {
    WorkerPlacement placement{threadFlags, false};
    if ((threadFlags & ThreadFlag::noSleepForce) == 0 && cpus <= 2) {
        // Spinning through whole cycles would starve the rest of a small machine.
        placement.flags &= ~ThreadFlag::noSleep4Core;
        placement.lowCpu = firstCycle < TimeValue::fromMs(1);
    }
    return placement;
}

// The worker owns threadFlags while it runs: what it clears for this
// machine stays cleared for the next connect too.
bool Sync::startOnProcessor() {
    std::uint16_t cpus = NORVA::processorCount();
    WorkerPlacement placement = placementFor(threadFlags, cpus, profiles[0].cycle);
    threadFlags = placement.flags;
    lowCpu = placement.lowCpu;
    const std::uint32_t flags = threadFlags;
    logWorkerStart(flags, cpus, infoRequestTime);
    if (NORVA::processLevel() == NORVA::levelCritical) {
        LogLine(6) << "wth Realtime Class not change priority";
    } else {
        bool critical = (flags & ThreadFlag::critical) != 0;
        if (!NORVA::setCurrentThreadLevel(critical ? NORVA::levelCritical : NORVA::levelHigh)) {
            LogLine(3) << "Worker Thread Priority set Error";
            return false;
        }
        LogLine(6) << "Worker Thread Priority change " << (critical ? "CRITICAL" : "HIGH");
    }
    return (flags & ThreadFlag::occupied) == 0 || bindToProcessor();
}

bool Sync::bindToProcessor() {
    if (cpuSend != -1) {
        if (!NORVA::setCurrentThreadProcessors(cpuSend, 1)) {
            LogLine(3) << "Worker Thread CPU set error " << cpuSend;
            return false;
        }
        LogLine(6) << "Worker Thread CPU change " << cpuSend;
        return true;
    }
    // Processor 0 takes the system's interrupts; the second core has fewer.
    for (int cpu : {2, 1}) {
        if (NORVA::setCurrentThreadProcessors(cpu, 1)) {
            LogLine(6) << "Worker Thread CPU change " << cpu;
            return true;
        }
    }
    LogLine(3) << "Worker Thread CPU set error 2 1";
    return false;
}

void Sync::announceToTarget(bool starting) {
    if (NORVA::logThreshold.load() < 6) return;
    ConnectionBuffer request(*socket, debugAddress);
    buildHostDebugRequest(request, starting);
    ConnectionBuffer answer(*socket);
    sendAck(request, debugAddress, MessageType::HOSTDEBUG_ANS, answer, ackTimeout);
}

bool Sync::connectExchange() {
    // Each connection names its own interface; a MAC of an earlier one would
    // send raw frames from an address that may no longer be ours.
    std::memset(hostMac, 0, sizeof hostMac);
    const std::uint8_t* mac = nullptr;
    std::vector<LocalAddressEntry> locals;
    if (msMode == msModeRawFrames && getMyLocalAddresV6(locals, false, false)) {
        for (const LocalAddressEntry& entry : locals) {
            if (entry.interfaceIndex == targetAddress.scope()) {
                std::memcpy(hostMac, entry.mac, sizeof hostMac);
                mac = hostMac;
            }
        }
    }
    ConnectionBuffer request(*socket, targetAddress);
    buildConnectRequest(request, msMode, format.streamFormat, mac);
    ConnectionBuffer answer(*socket);
    if (!exchange(request, targetAddress, answer, connectTimeout)) {
        LogLine(3) << "wth CR send err";
        return false;
    }
    if (answer.isEmpty()) {
        LogLine(6) << "wth CR ack none";
        return false;
    }
    recordRoute(answer);
    format.applyPhase(connectAnswer.sinkInvert);
    // No wake yet: a connectWait already waiting returns once the first
    // burst is out (SyncWorker wakes it).
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        connectState = connected;
    }
    onStateChange();
    return true;
}

void Sync::recordRoute(const ConnectionBuffer& answer) {
    connectAnswer = readConnectAnswer(answer.received());
    route = streamRouteFor(msMode, connectAnswer.dataPort);
    statusAddress = targetAddress;
    statusAddress.setPort(connectAnswer.statusPort);
    dataAddress = statusAddress;
    if (route.ms && !route.rawFrames) dataAddress.setPort(connectAnswer.dataPort);
    static constexpr const char* modeNames[] = {"disable", "mode1", "mode2", "disable", "RFS(mode3)"};
    LogLine(6) << "MS " << (route.ms && msMode < 5 ? modeNames[msMode] : "disable");
}

}  // namespace VELMORA
