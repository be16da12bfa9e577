// The ring without a network: the test thread plays the stream worker,
// calling getBuffer and onCycle as its cycle would.
#include "Samples/SyncBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "FindPeer.h"
#include "System/Threads.h"
#include "TestStream.h"

namespace {

using namespace VELMORA;

// A source whose every slot carries its fill number in each 32-bit word.
class CountingBuffer : public SyncBuffer {
  public:
    std::atomic<std::uint32_t> fills{0};
    std::atomic<std::uint32_t> marks{0};
    CountingBuffer() { format.sourceFormat = stereoS32At48k; }
    ~CountingBuffer() override {
        pretendGone();
        if (bufferThread.joinable()) bufferThread.join();
    }
    void fillBuffer(StreamBuffer& slot, bool mark) override {
        std::uint32_t n = ++fills;
        if (mark) ++marks;
        for (std::uint64_t at = 0; at + 4 <= slot.size; at += 4) std::memcpy(slot.data + at, &n, 4);
    }
    // The stream is gone, as far as the ring can tell.
    void pretendGone() {
        connectState = idle;
        onStateChange();
    }
};

bool allBytes(const StreamChunk& chunk, std::uint8_t value) {
    return std::all_of(chunk.data, chunk.data + chunk.size, [=](std::uint8_t b) { return b == value; });
}

TEST(SyncBufferRing, StartsWithCountSlotsOfSilenceThenTenMillisecondsOfIt) {
    CountingBuffer sync;
    sync.format.sourceFormat = FormatID(0x202u, 0x000Au);  // 16-bit stereo at 44.1 kHz
    ASSERT_TRUE(sync.setupRing(64, 6, 0, FormatID()));
    EXPECT_EQ(sync.slotBytes, 256u);
    EXPECT_EQ(sync.slotCount(), 7u);
    EXPECT_EQ(sync.filledSlots(), 6u);
    StreamChunk chunk;
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(sync.getBuffer(chunk));
        EXPECT_EQ(chunk.size, 256u);
        EXPECT_TRUE(allBytes(chunk, 0));
    }
    // Empty, neither muted nor stopping: the worker is behind.
    ASSERT_TRUE(sync.getBuffer(chunk));
    EXPECT_EQ(chunk.size, 1764u);
    EXPECT_TRUE(allBytes(chunk, 0));
    EXPECT_FALSE(sync.muteReached);
    EXPECT_EQ(sync.timing.ringDry.load(), 1u) << "counted, where a muted ring's silence is not";
    EXPECT_FALSE(sync.setupRing(64, 0, 0, FormatID()));
}

// The leading slot and the silence of a ring that ran dry alike.
TEST(SyncBufferRing, SilenceOfDsdFollowsItsBitOrder) {
    CountingBuffer sync;
    StreamChunk chunk;
    for (auto [format, silence] :
         {std::pair{FormatID(0x2510002u, 0x0202u), 0x69}, {FormatID(0x2610002u, 0x0202u), 0x96}}) {
        sync.format.sourceFormat = format;
        ASSERT_TRUE(sync.setupRing(8, 1, 0, FormatID()));
        for (int take = 0; take < 2; ++take) {
            ASSERT_TRUE(sync.getBuffer(chunk));
            EXPECT_GT(chunk.size, 0u);
            EXPECT_TRUE(allBytes(chunk, std::uint8_t(silence))) << take;
        }
    }
}

TEST(SyncBufferRing, DataGoesOutBeforeMuteAndStop) {
    CountingBuffer sync;
    sync.setupRing(16, 2, 0, FormatID());
    sync.muteRequested = 1;
    StreamChunk chunk;
    ASSERT_TRUE(sync.getBuffer(chunk));
    ASSERT_TRUE(sync.getBuffer(chunk));
    EXPECT_FALSE(sync.muteReached);
    // Muted and empty: whole slots of silence, and the mute is reached.
    ASSERT_TRUE(sync.getBuffer(chunk));
    EXPECT_EQ(chunk.size, sync.slotBytes);
    EXPECT_TRUE(sync.muteReached);
    EXPECT_EQ(sync.timing.ringDry.load(), 0u);
    sync.setupRing(16, 2, 0, FormatID());
    sync.stopRequested = 1;
    EXPECT_TRUE(sync.getBuffer(chunk));
    EXPECT_TRUE(sync.getBuffer(chunk));
    EXPECT_FALSE(sync.getBuffer(chunk));
    EXPECT_EQ(chunk.data, nullptr);
    EXPECT_EQ(chunk.size, 0u);
}

TEST(SyncBufferRing, PushWaitsForAFreeSlotAndSeekStaysInsideTheData) {
    CountingBuffer sync;
    sync.setupRing(4, 3, 0, stereoS32At48k);
    sync.connectState = Sync::connected;
    StreamBuffer own;
    own.fill(sync.slotBytes, 0xAB);
    const std::uint8_t* ownBytes = own.data;
    // Full ring: the wait gives up once the stream is gone.
    std::thread ender([&] {
        NORVA::sleepMilliseconds(20);
        sync.pretendGone();
    });
    EXPECT_FALSE(sync.push(own));
    ender.join();
    EXPECT_EQ(own.data, ownBytes);
    sync.connectState = Sync::connected;
    StreamChunk chunk;
    ASSERT_TRUE(sync.getBuffer(chunk));
    ASSERT_TRUE(sync.push(own));
    EXPECT_NE(own.data, ownBytes);  // the slot's storage came back instead
    EXPECT_EQ(sync.filledSlots(), 3u);
    sync.seek(2);
    EXPECT_EQ(sync.filledSlots(), 1u);
    ASSERT_TRUE(sync.getBuffer(chunk));
    EXPECT_EQ(chunk.data, ownBytes);  // no copy: the pushed bytes themselves
    sync.seek(10);
    EXPECT_EQ(sync.filledSlots(), 0u);
    sync.seek(-10);  // back to the slot after writePos: all but the spare
    EXPECT_EQ(sync.filledSlots(), 3u);
    sync.flush();
    EXPECT_EQ(sync.filledSlots(), 3u);
}

TEST(SyncBufferWorker, MarksTheFirstFillAfterACycleOnly) {
    CountingBuffer sync;
    sync.setupRing(8, 4, 0, stereoS32At48k);
    sync.connectState = Sync::connected;
    sync.play();
    StreamChunk chunk;
    sync.getBuffer(chunk);
    sync.onCycle();
    sync.onCycle();
    ASSERT_TRUE(sync.startBufferThread());
    ASSERT_TRUE(eventually([&] { return sync.filledSlots() == 4; }));
    EXPECT_EQ(sync.fills, 1u);
    EXPECT_EQ(sync.marks, 1u);
    // Two takes and a cycle: one marked fill of the two.
    sync.getBuffer(chunk);
    sync.getBuffer(chunk);
    sync.onCycle();
    ASSERT_TRUE(eventually([&] { return sync.fills == 3; }));
    EXPECT_EQ(sync.marks, 2u);
}

// The connect exchange waits 10 s a try for a sink that never answers; the
// object's end must not wait for that.
TEST(SyncBufferShutdown, EndsAWorkerInsideTheConnectExchangeAtOnce) {
    if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
    FindPeer mute([](FindPeer&, const Receive&) {});
    auto sync = std::make_unique<CountingBuffer>();
    ASSERT_TRUE(sync->open(0, NORVA::TimeValue::fromMs(100), 0, "studio", 1, -1, -1, 0));
    sync->targetAddress = mute.address;
    planTestStream(*sync);
    sync->setupRing(48, 2, 0, stereoS32At48k);
    ASSERT_TRUE(sync->connect());
    ASSERT_TRUE(eventually([&] { return !mute.requestsOf(MessageType::CONNECT_REQ).empty(); }));
    EXPECT_EQ(sync->connectState, Sync::starting);
    auto begin = std::chrono::steady_clock::now();
    sync.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
}

}  // namespace
