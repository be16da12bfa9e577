// The stream worker's cycle allocates nothing: the test binary's global
// allocation functions count per thread, and the worker reads its own count
// from onCycle, so the window covers whole cycles with their sends, waits,
// feedback and resends.
#include <gtest/gtest.h>

#include <array>

#include "AllocationCounter.h"
#include "Stream/Sync.h"
#include "SyncWorkerPeer.h"
#include "System/Log.h"
#include "System/Threads.h"
#include "WorkerPriority.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

// Notes its thread's allocations at two cycles and serves silence-free audio.
class CountingSync : public Sync {
  public:
    static constexpr std::uint32_t firstCycle = 40, lastCycle = 340;
    std::atomic<std::uint32_t> cycles{0};
    std::size_t atFirst = 0, atLast = 0;
    std::atomic<bool> measured{false};

    ~CountingSync() override {
        connectState = idle;
        joinWorker();
    }
    bool getBuffer(StreamChunk& out) override {
        chunk.fill(0x5A);
        out = {chunk.data(), std::uint32_t(chunk.size())};
        return true;
    }
    bool onCycle() override {
        std::uint32_t cycle = ++cycles;
        if (cycle == firstCycle) atFirst = allocationsOnThisThread();
        if (cycle == lastCycle) {
            atLast = allocationsOnThisThread();
            measured = true;
        }
        return true;
    }

  private:
    std::array<std::uint8_t, 700> chunk{};
};

TEST(SyncWorkerAllocations, TheCycleAllocatesNothing) {
    if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
    const std::int32_t threshold = NORVA::logThreshold.load();
    NORVA::logThreshold = 3;  // lines that pass the threshold may allocate
    SinkScript script;
    script.deviation = 3000;
    for (std::uint16_t seq = 100; seq < 600; seq += 97) script.lose.insert(seq);
    ScriptedSink sink(script);
    CountingSync sync;
    ASSERT_TRUE(sync.open(0, TimeValue::fromMs(1), 0, "count", 1, -1, -1, 0));
    sync.format.sink.pcm = FormatID(0xE06u, 0x003Eu);
    ASSERT_TRUE(sync.format.setFormat(FormatID(0x802u, 0x000Cu)));
    sync.profiles[0].cycle = TimeValue::fromUs(1000);
    sync.profiles[0].packetCount = 2;
    sync.profiles[0].sizeQ14 = 722534;  // 44.1 frames: the carry at work
    sync.profiles[0].mode = transferFix;
    sync.profileCount = 1;
    sync.targetAddress = sink.address;
    ASSERT_TRUE(sync.connect());
    ASSERT_TRUE(sync.connectWait());
    sync.play();
    for (int i = 0; i < 5000 && !sync.measured && sync.connectState == Sync::connected; ++i)
        NORVA::sleepMilliseconds(2);
    // The source never runs dry: stopping it lets the stream end.
    sync.stop();
    sync.requestDisconnect();
    EXPECT_TRUE(sync.disconnectWait());
    NORVA::logThreshold = threshold;

    ASSERT_TRUE(sync.measured) << "the stream ended early";
    EXPECT_EQ(sync.atLast - sync.atFirst, 0u);
    EXPECT_GT(sink.feedbackRequests(), 5u) << "feedback came in the window";
    EXPECT_GT(sink.arrivals().size(), 2 * std::size_t(CountingSync::lastCycle));
}

}  // namespace
