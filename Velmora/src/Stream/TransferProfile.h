// One way of moving a stream: how long a cycle is, how many packets it
// holds and how big they are.
#pragma once

#include <cstdint>

#include "Network/TimeValue.h"

namespace VELMORA {

enum TransferMode : std::uint32_t {
    transferVar = 0,        // packets of constant size, the cycle follows the feedback
    transferFix = 1,        // a constant cycle, the packet size follows the feedback
    transferRandom = 2,     // as Fix, with each cycle's length drawn between cycleMin and cycle
    transferSinkCycle = 3,  // the sink's own packet rate
};

struct TransferProfile {
    // The stream worker doubles a late cycle's packets into a list of 128.
    static constexpr std::uint32_t maxPacketsPerCycle = 64;
    // The worker's packet pool, which holds the last second of packets, is
    // numbered in 16 bits.
    static constexpr std::uint64_t maxPoolPackets = 32768;
    static constexpr std::uint64_t poolSpanUs = 1000000;

    NORVA::TimeValue cycle;
    std::uint32_t fixedSize = 0;  // not 0: every packet has this size
    std::uint32_t dataSize = 0;   // greatest packet the profile makes
    std::uint32_t sizeQ14 = 0;    // frames per packet when fixedSize is 0
    std::uint16_t packetCount = 0;
    NORVA::TimeValue cycleMin;  // Random only
    std::uint32_t mode = transferVar;

    // Packets the worker's pool must hold for one second of this profile.
    std::uint64_t poolPackets(std::uint32_t sendDepth) const;
    // Whether the stream worker can carry the profile out: a cycle of at
    // least 1 us, 1 to 64 packets of some size, and a pool it can number.
    bool isRunnable(std::uint32_t sendDepth) const;
};

}  // namespace VELMORA
