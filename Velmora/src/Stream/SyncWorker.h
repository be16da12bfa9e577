// The stream worker's loop: the connect exchange, a pool of packets that
// keeps the last second for resending, and the paced cycle that builds a
// burst, hands it to the socket with its deadline and acts on what came
// back. Everything here lives on the worker thread; after the set-up the
// cycle allocates nothing.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <random>

#include "Network/TimeValue.h"
#include "Protocol/ConnectionBuffer.h"
#include "Stream/Sync.h"
#include "Stream/SyncFeedback.h"
#include "Stream/TransferProfile.h"

namespace VELMORA {

// The socket's wait mode that the bits of threadFlags choose.
std::int32_t waitModeFor(std::uint32_t threadFlags);
// Packets in the pool: a second (or 100 ms) of the profile and the socket's
// depth, as a power of two, at least 32; 0 if 16 bits can't number it.
std::uint32_t poolSizeFor(const TransferProfile& profile, std::uint32_t sendDepth, bool shortPool);
void logWorkerStart(std::uint32_t threadFlags, std::uint16_t cpus, NORVA::TimeValue infoRequestTime);

// The size of the next packet in bytes. Without a fixed size, `framesQ14`
// frames are added to the fraction `carry` left over, whole frames go out
// and the rest stays; a packet above `maxPacket` is cut to whole frames.
struct PacketSizeRule {
    std::uint32_t fixedSize = 0;
    std::uint32_t frameBytes = 1;
    std::uint32_t maxPacket = 0;
    std::uint32_t next(std::int32_t& carry, std::int64_t framesQ14) const;
};

class SyncWorker {
  public:
    // `flags`: the worker's own copy of threadFlags.
    SyncWorker(Sync& sync, std::uint32_t flags);
    SyncWorker(const SyncWorker&) = delete;
    SyncWorker& operator=(const SyncWorker&) = delete;

    // Connects, streams until the end, and leaves connectState at idle.
    void run();

  private:
    enum EndState : std::int32_t {
        streaming = 0,
        sourceEnded = 1,   // silence from here on
        silenceBuilt = 2,  // a packet has been built since
        lastFeedbackAsked = 3,
        targetAnswered = 4,  // go on to disconnect
    };
    static constexpr std::size_t batchSlots = 2 * TransferProfile::maxPacketsPerCycle;
    static constexpr std::size_t receiveSlots = 4;

    bool setUp();
    bool profilesRunnable() const;
    bool buildPool();
    void setInfoTimes();
    bool sendFirstBurst();
    void loop();
    bool runCycle();
    NORVA::TimeValue cycleLength();
    std::uint32_t packetsThisCycle();
    bool wantsInfo() const;
    // Sends the batch at nextSend, receiving meanwhile if `receive`.
    bool transferBatch(bool receive);
    void disconnectExchange();

    // Packets.
    bool buildPackets(std::uint32_t packets, bool wantInfo);
    void resendOne(bool last);
    bool buildNew(bool last, bool wantInfo);
    ConnectionBuffer& startPacket(std::uint32_t bytes);
    std::uint32_t nextPacketBytes(bool firstBurst);
    bool fillBody(std::uint8_t* destination, std::uint32_t bytes);
    enum class ChunkOutcome { taken, silence, failed };
    ChunkOutcome takeChunk();
    bool askFeedback();
    void addToBatch(ConnectionBuffer& packet) { batch[batchCount++] = packet.frame.get(); }

    // What came back.
    enum class Reading { next, stop, endStream };
    // False ends the stream.
    bool handleReceived();
    Reading handleOne(const ConnectionBuffer& frame);
    Reading onResendRequest(const StreamAnswer& answer);
    void onFeedback(const ConnectionBuffer& frame, const StreamAnswer& answer);
    void changeProfileUnderLoad();
    void applyCorrection();
    void checkPhase(bool flagsInvert);
    void traceFeedback(const StreamAnswer& answer);
    void useProfile(std::int32_t index);
    const TransferProfile& profile() const { return sync.profiles[std::size_t(profileIndex)]; }

    Sync& sync;
    const std::uint32_t flags;
    NORVA::UDPV6& socket;
    std::uint32_t ringSize = 0;
    std::uint32_t ringMask = 0;
    std::optional<ConnectionBufferPool> pool;
    std::array<NORVA::EthernetBuffer*, batchSlots> batch{};
    std::uint32_t batchCount = 0;
    std::array<std::optional<ConnectionBuffer>, receiveSlots> receiveBuffers;
    std::array<NORVA::EthernetBuffer*, receiveSlots> receiveFrames{};
    std::optional<ConnectionBuffer> statusRequest;
    std::optional<ConnectionBuffer> disconnectRequest;

    std::uint32_t seq = 0;
    std::int32_t carry = 0;
    std::int32_t profileIndex = 0;
    NORVA::TimeValue cycleTime;
    std::int32_t sizeNow = 0;
    FeedbackFilter filter;
    std::int32_t lateScore = 0;
    std::uint16_t resendCount = 0;
    std::int32_t endState = streaming;
    NORVA::TimeValue start;
    NORVA::TimeValue now;
    NORVA::TimeValue nextSend;
    NORVA::TimeValue infoTime;
    NORVA::TimeValue receiveTimeout;
    NORVA::TimeValue lastRequest;
    NORVA::TimeValue lastReceived;
    float ratio = 1.0f;
    bool ms = false;
    bool sinkInvert = false;
    bool hostInvertSeen = false;
    StreamChunk chunk;
    std::uint32_t chunkPos = 0;
    PacketSizeRule sizeRule;
    std::mt19937 random;
};

}  // namespace VELMORA
