// The host's side of one audio stream to one sink: what the sink can take,
// the latency, transfer mode and packet size that the path allows, the
// exchanges that prepare a connection, and the worker thread that carries it.
//
// open, getInfo, connectPrepare and connect run on the caller's thread while
// no worker exists; from connect on, the socket belongs to the worker until
// it ends.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Format/FormatNegotiation.h"
#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Network/TimeValue.h"
#include "Protocol/Connection.h"
#include "Stream/StreamMessages.h"
#include "Stream/TransferConfig.h"
#include "Stream/TransferProfile.h"
#include "Stream/WorkerTiming.h"

namespace VELMORA {

// Audio bytes that the worker takes from the ring, without owning them.
struct StreamChunk {
    const std::uint8_t* data = nullptr;
    std::uint32_t size = 0;
};

// The bits of `threadFlags`.
namespace ThreadFlag {
inline constexpr std::uint32_t critical = 0x0001;        // time-critical priority, else highest
inline constexpr std::uint32_t noShortSleep = 0x0002;    // spin the last stretch of each wait
inline constexpr std::uint32_t noSleep4Core = 0x0004;    // spin all the way, on 3 processors or more
inline constexpr std::uint32_t occupied = 0x0010;        // a processor of its own
inline constexpr std::uint32_t feedbackMask = 0x00E0;    // feedback values averaged, less 1
inline constexpr std::uint32_t noFastFeedback = 0x0100;  // a late cycle doesn't catch up
inline constexpr std::uint32_t yieldOnce = 0x0200;
inline constexpr std::uint32_t yieldAlways = 0x0400;
inline constexpr std::uint32_t noSleepForce = 0x0800;  // spin all the way on any machine
inline constexpr std::uint32_t shortPool = 0x1000;     // keep 100 ms of packets, not a second
inline constexpr std::uint32_t noProbe = 0x2000;       // keep 1500-byte packets
inline constexpr std::uint32_t noStatusRequest = 0x4000;
inline constexpr std::uint32_t noRawFrames = 0x8000;  // never take the raw frame mode
}  // namespace ThreadFlag

// How the worker runs on this machine: threadFlags without the spin of NOSLEEP4CORE on 2 processors or fewer
// (unless forced), and whether a cycle under 1 ms must start on the last, slowest profile.
struct WorkerPlacement {
    std::uint32_t flags = 0;
    bool lowCpu = false;
};
WorkerPlacement placementFor(std::uint32_t threadFlags, std::uint16_t cpus, NORVA::TimeValue firstCycle);

class Sync : public Connection {
  public:
    enum ConnectState : std::int32_t { idle = 0, starting = 1, connected = 2, disconnecting = 3 };

    static constexpr std::uint32_t releaseNumber = 148;
    static constexpr std::size_t profileSlots = 10;
    static constexpr std::uint16_t debugPort = 19642;
    // The least latency, in cycles of the first profile.
    static constexpr std::uint64_t leastLatencyCycles = 8;
    // The connect exchanges wait this long per try: the sink may be opening
    // its audio device.
    static constexpr NORVA::TimeValue connectTimeout = NORVA::TimeValue::fromSeconds(10);

    // The thread that carries the stream; not joinable when there is none.
    std::thread workerThread;
    // Serve only connectWait's wait: connectState itself is read without them.
    std::mutex stateMutex;
    std::condition_variable stateChanged;
    std::atomic<std::int32_t> connectState{idle};
    std::atomic<std::uint8_t> playing{0};  // audio is wanted from getBuffer
    std::atomic<bool> disconnectRequested{false};

    NORVA::IPAddress targetAddress;  // the sink, set at the end of getInfo
    NORVA::IPAddress debugAddress;   // its target's control port, for HOSTDEBUG_REQ
    // Source and wire formats, the sink's masks, the copy kernel and polarity.
    FormatNegotiation format;

    std::uint16_t latency = 0;                         // units of 100 us, agreed with the sink
    std::uint16_t latencyMax = 0;                      // units of 100 us
    std::uint16_t latencyHw = 0;                       // units of 100 us
    std::uint16_t cycleDataMax = defaultCycleDataMax;  // 0xFFFF: no limit
    std::uint16_t dataMin = defaultPacket;
    std::uint16_t dataReq = defaultPacket;
    std::uint32_t dataMax = 0;
    std::uint16_t msa = 0;               // SYNCHRO_CHANNEL_ANS's capability word
    std::uint16_t smtu = defaultPacket;  // link MTU the packets are sized for

    std::uint32_t threadFlags = 0;
    std::int32_t cpuSend = -1;
    std::int32_t cpuOther = -1;
    std::int32_t cpuOtherCount = 0;
    NORVA::TimeValue infoRequestTime;  // how often the worker asks for feedback

    std::uint16_t maxPacketSize = 1432;  // audio payload of one packet
    std::uint16_t maxPacketCount = 10;   // packets in one cycle
    std::array<TransferProfile, profileSlots> profiles{};
    std::int32_t profileCount = 0;
    TransferConfig transfer;
    bool lowCpu = false;  // the worker's; read it once the worker has ended
    // The running stream's correction, cycles and resends, from any thread.
    WorkerTiming timing;

    std::string syncName;  // shown on the target
    std::uint64_t productId = 0;
    std::uint32_t msMode = msModeNone;
    // The raw frame path's socket; null where the build has none.
    NORVA::UDPV6* rawSocket = nullptr;

    // What the connect answer told, for the stream worker.
    ConnectAnswer connectAnswer;
    NORVA::IPAddress statusAddress;  // SYNCHRO_STATUS_REQ and DISCONNECT_REQ
    NORVA::IPAddress dataAddress;    // audio
    StreamRoute route;

    // With sockets of its own, the raw frame path's among them.
    Sync();
    // With the caller's sockets; `raw` may be null.
    Sync(NORVA::UDPV6& shared, NORVA::UDPV6* raw);
    ~Sync() override;

    bool open(std::uint32_t flags, NORVA::TimeValue infoCycle, std::uint16_t scope, const std::string& name,
              std::uint64_t product, std::int32_t sendCpu, std::int32_t otherCpu, std::int32_t otherCpuCount);
    // Learns from the sink at `target` its formats, cycle profile, latency,
    // transfer mode and packet size. `latencyBuffer` 0 takes the sink's
    // latency; `mtu` is the measured path MTU.
    bool getInfo(const NORVA::IPAddress& target, NORVA::TimeValue latencyBuffer, bool nopBreak,
                 std::uint32_t mtu);
    // Fixes the latency (at least eight cycles of profiles[0]) and names the
    // host. The profiles must be chosen first.
    bool connectPrepare();
    // Starts the worker, which makes the connect exchange.
    bool connect();
    // Waits, bounded, while the worker is still connecting. False if no
    // connection was under way; connectState then tells the outcome.
    bool connectWait();
    // Joins a worker that is left. Not from the worker itself.
    void joinWorker();

    // Asks the worker to play out and end the stream; never blocks.
    void requestDisconnect();
    // requestDisconnect for a caller that doesn't know the state.
    void disconnect();
    // Joins the worker after a disconnect was asked for; false, at once, if
    // none was.
    bool disconnectWait();
    // Whether getBuffer is asked for audio; the connection stays as it is.
    void play();
    void stop();

    // The next audio bytes for a packet.
    virtual bool getBuffer(StreamChunk& chunk) = 0;
    // Once per cycle, after the packets are built.
    virtual bool onCycle() { return true; }
    virtual bool startWorker();
    // After each change of connectState.
    virtual void onStateChange() {}

  protected:
    static constexpr std::uint16_t defaultPacket = 1500;
    static constexpr std::uint16_t defaultCycleDataMax = 15000;
    // Queued datagrams that an exchange drops before it sends, at most.
    static constexpr int staleAnswersDropped = 64;

    // The worker's body.
    void workerMain();
    // Stores `state`, wakes connectWait and tells onStateChange.
    void setConnectState(ConnectState state);

  private:
    friend class SyncWorker;

    bool startOnProcessor();
    bool bindToProcessor();
    void announceToTarget(bool starting);
    bool exchange(ConnectionBuffer& request, const NORVA::IPAddress& peer, ConnectionBuffer& answer,
                  NORVA::TimeValue timeout);
    bool exchangeFormats(const NORVA::IPAddress& target);
    bool askFormatMask(const NORVA::IPAddress& target, std::uint64_t query, FormatID& mask);
    bool exchangeSinkInfo(const NORVA::IPAddress& target);
    bool exchangeLatency(const NORVA::IPAddress& target, NORVA::TimeValue latencyBuffer);
    bool exchangeTransferMode(const NORVA::IPAddress& target);
    // Opens the raw path on the interface of `target`: whether it can carry
    // the stream.
    bool offerRawFrames(const NORVA::IPAddress& target);
    // Frees the raw path when the stream goes another way.
    void keepRawFramesFor(std::uint32_t mode);
    // A raw socket of its own starts each open afresh.
    void resetRawSocket();
    void exchangeDataSize(const NORVA::IPAddress& target, std::uint32_t mtu);
    std::uint16_t probe(const NORVA::IPAddress& target, std::uint32_t candidate, std::uint32_t req);
    bool probeTry(const NORVA::IPAddress& target, std::uint32_t size, std::uint32_t& echoed);
    void setPayloadSize();
    std::uint16_t connectLatency() const;
    bool connectExchange();
    void recordRoute(const ConnectionBuffer& answer);

    std::uint32_t probeSeed = 0;
    std::uint8_t hostMac[6] = {};  // raw frames: the interface that sends them
    std::unique_ptr<NORVA::UDPV6> ownedRawSocket;
};

}  // namespace VELMORA
