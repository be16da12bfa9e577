#include "Stream/WorkerTiming.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace VELMORA {

void WorkerTiming::clear() {
    adjust.store(0, std::memory_order_relaxed);
    cycles.store(0, std::memory_order_relaxed);
    overTime.store(0, std::memory_order_relaxed);
    resendRequests.store(0, std::memory_order_relaxed);
    latestUs.store(0, std::memory_order_relaxed);
    ringDry.store(0, std::memory_order_relaxed);
    for (auto& bin : lateness) bin.store(0, std::memory_order_relaxed);
}

void WorkerTiming::addCycle(NORVA::TimeValue late) {
    std::uint64_t us = late.toUs();
    // The worker alone writes: no exchange loop is needed.
    if (us > latestUs.load(std::memory_order_relaxed))
        latestUs.store(std::uint32_t(std::min<std::uint64_t>(us, UINT32_MAX)), std::memory_order_relaxed);
    std::uint64_t bin = us / binUs;
    if (bin >= bins) bin = bins - 1;
    lateness[bin].fetch_add(1, std::memory_order_relaxed);
    cycles.fetch_add(1, std::memory_order_relaxed);
}

std::uint32_t WorkerTiming::latenessUsAt(double share) const {
    std::uint64_t total = 0;
    for (const auto& bin : lateness) total += bin.load(std::memory_order_relaxed);
    if (total == 0) return 0;
    auto wanted = std::uint64_t(std::ceil(share * double(total)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < bins; ++i) {
        seen += lateness[i].load(std::memory_order_relaxed);
        if (seen >= wanted && seen != 0) return std::uint32_t((i + 1) * binUs);
    }
    return std::uint32_t(bins * binUs);
}

}  // namespace VELMORA
