#include "Stream/TransferProfile.h"

namespace VELMORA {

std::uint64_t TransferProfile::poolPackets(std::uint32_t sendDepth) const {
    std::uint64_t cycleUs = cycle.toUs();
    if (cycleUs == 0) return UINT64_MAX;
    return poolSpanUs / cycleUs * packetCount + sendDepth;
}

bool TransferProfile::isRunnable(std::uint32_t sendDepth) const {
    if (cycle.toUs() == 0) return false;
    if (packetCount == 0 || packetCount > maxPacketsPerCycle) return false;
    if (fixedSize == 0 && sizeQ14 == 0) return false;
    return poolPackets(sendDepth) <= maxPoolPackets;
}

}  // namespace VELMORA
