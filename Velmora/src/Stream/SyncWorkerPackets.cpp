// Building a cycle's packets: resends first, then new audio sized with a
// Q14 carry so that no fraction of a frame is lost, silence where the source
// has nothing, and the feedback request on the cycle's last packet.
#include <cstring>

#include "Protocol/MessageTypes.h"
#include "Stream/SyncWorker.h"
#include "System/Log.h"

using NORVA::LogLine;

namespace VELMORA {

namespace {
constexpr std::uint16_t packetFlagBits = streamLastOfCycle | streamWantsFeedback;
// A source that keeps handing out empty chunks gets this many tries per body.
constexpr int faultyChunksPerBody = 16;
}  // namespace

std::uint32_t PacketSizeRule::next(std::int32_t& carry, std::int64_t framesQ14) const {
    if (fixedSize != 0) return fixedSize;
    std::int64_t total = carry + framesQ14;
    carry = std::int32_t(total & 0x3FFF);
    std::uint64_t bytes = std::uint64_t(total >> 14) * frameBytes;
    // The excess fraction is dropped: the feedback makes up for it.
    if (bytes > maxPacket) bytes = maxPacket - maxPacket % frameBytes;
    return std::uint32_t(bytes);
}

std::uint32_t SyncWorker::nextPacketBytes(bool firstBurst) {
    sizeRule.fixedSize = profile().fixedSize;
    std::int64_t frames = sizeNow;
    if (profile().mode == transferRandom) {
        float scaled = firstBurst ? float(sizeNow) : float(sizeNow) * ratio;
        frames = std::int64_t(double(scaled) + (firstBurst ? 0.0 : 0.5));
    }
    return sizeRule.next(carry, frames);
}

bool SyncWorker::buildPackets(std::uint32_t packets, bool wantInfo) {
    for (std::uint32_t k = 1; k <= packets; ++k) {
        bool last = k == packets;
        if (resendCount != 0) {
            resendOne(last);
        } else if (!buildNew(last, wantInfo)) {
            return false;
        }
    }
    return true;
}

void SyncWorker::resendOne(bool last) {
    ConnectionBuffer& packet = (*pool)[(seq - resendCount) & ringMask];
    // A resent packet never asks for feedback: its answer would be stale.
    packet.setFlags(packetFlagBits, last ? streamLastOfCycle : 0);
    addToBatch(packet);
    --resendCount;
}

ConnectionBuffer& SyncWorker::startPacket(std::uint32_t bytes) {
    ConnectionBuffer& packet = (*pool)[seq & ringMask];
    packet.setHeader(MessageType::STREAM_DATA, 0, std::uint16_t(seq), 0, 0, 0);
    packet.setBodySize(std::uint16_t(bytes));
    return packet;
}

bool SyncWorker::buildNew(bool last, bool wantInfo) {
    std::uint32_t bytes = nextPacketBytes(false);
    ConnectionBuffer& packet = startPacket(bytes);
    if (!fillBody(packet.body(), bytes)) return false;
    std::uint16_t flags = 0;
    if (last) {
        flags = streamLastOfCycle;
        if (wantInfo) {
            if (!askFeedback()) return false;
            flags |= streamWantsFeedback;
            if (endState == silenceBuilt) endState = lastFeedbackAsked;
        }
    }
    packet.setFlags(packetFlagBits, flags);
    addToBatch(packet);
    if (endState == sourceEnded) endState = silenceBuilt;
    ++seq;
    return true;
}

bool SyncWorker::fillBody(std::uint8_t* destination, std::uint32_t bytes) {
    int faults = 0;
    while (bytes > 0) {
        if (chunkPos >= chunk.size) {
            ChunkOutcome outcome = takeChunk();
            if (outcome == ChunkOutcome::failed) return false;
            if (outcome == ChunkOutcome::silence) break;
        }
        if (chunk.data == nullptr) {
            LogLine(3) << "buffer falt";
            chunk = {};
            chunkPos = 0;
            if (++faults < faultyChunksPerBody) continue;
            break;
        }
        std::uint32_t piece = std::min(bytes, chunk.size - chunkPos);
        sync.format.copyKernel(destination, chunk.data + chunkPos, piece);
        destination += piece;
        chunkPos += piece;
        bytes -= piece;
    }
    std::memset(destination, sync.format.silenceByte(), bytes);
    return true;
}

SyncWorker::ChunkOutcome SyncWorker::takeChunk() {
    if (sync.playing == 0 || endState != streaming) {
        // A stopped source is silence; the chunk in hand was used up first.
        chunkPos = chunk.size;
        if (endState == streaming && sync.connectState == Sync::disconnecting) {
            LogLine(6) << "buffer disconnect";
            endState = sourceEnded;
        }
        return ChunkOutcome::silence;
    }
    chunkPos = 0;
    if (sync.getBuffer(chunk)) return ChunkOutcome::taken;
    chunk = {};
    // Read only now: a disconnect asked for while getBuffer ran is what made
    // it fail, and is the normal end, not a source that stopped answering.
    if (sync.connectState != Sync::disconnecting) {
        LogLine(4) << "buffer timeout";
        return ChunkOutcome::failed;
    }
    LogLine(6) << "buffer Final";
    endState = sourceEnded;
    return ChunkOutcome::silence;
}

bool SyncWorker::askFeedback() {
    if ((flags & ThreadFlag::noStatusRequest) == 0 &&
        now - lastReceived >= NORVA::TimeValue::fromRaw(infoTime.raw() * 4)) {
        // Quiet for long: ask the status port directly as well.
        if (!socket.send(*statusRequest->frame)) {
            LogLine(3) << "wth udp send error";
            return false;
        }
    }
    lastRequest = now;
    LogLine(7) << "Request Info " << now.toUs();
    return true;
}

}  // namespace VELMORA
