// What the stream worker tells of its stream while it runs, for tools,
// tests and reports: the correction in force, the resends asked for, how
// late its cycles came round, and how often the host's ring ran dry. The worker alone writes, with relaxed
// stores; any thread may read at any time. Nothing here allocates.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "Network/TimeValue.h"

namespace VELMORA {

class WorkerTiming {
  public:
    static constexpr std::uint32_t binUs = 10;
    // Lateness up to 5 ms in steps of binUs; later cycles count in the last.
    static constexpr std::size_t bins = 500;

    std::atomic<std::int16_t> adjust{0};  // Q14, as the feedback left it
    std::atomic<std::uint32_t> cycles{0};
    std::atomic<std::uint32_t> overTime{0};        // cycles that lost a whole cycle
    std::atomic<std::uint32_t> resendRequests{0};  // accepted requests to send again
    std::atomic<std::uint32_t> latestUs{0};        // the latest a cycle came round
    std::atomic<std::uint32_t> ringDry{0};         // silences sent for want of the host's audio

    // At the start of a stream, on the worker.
    void clear();
    // A cycle that came round `late` after its deadline.
    void addCycle(NORVA::TimeValue late);
    // The lateness that `share` (0 to 1) of the cycles stayed within, to the
    // upper edge of its step; 0 before any cycle.
    std::uint32_t latenessUsAt(double share) const;

  private:
    std::array<std::atomic<std::uint32_t>, bins> lateness{};
};

}  // namespace VELMORA
