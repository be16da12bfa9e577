// The stream the worker tests play, and the source they play.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "PatternSources.h"
#include "System/Threads.h"
#include "TestFormats.h"
#include "WorkerPriority.h"

// Stereo 32-bit at 48 kHz to a sink that takes it, in 1 ms cycles of two
// packets of 24 frames.
inline void planTestStream(VELMORA::Sync& sync) {
    sync.format.sink.pcm = VELMORA::FormatID(0xE06u, 0x003Eu);
    EXPECT_TRUE(sync.format.setFormat(stereoS32At48k));
    VELMORA::TransferProfile& profile = sync.profiles[0];
    profile.cycle = NORVA::TimeValue::fromUs(1000);
    profile.packetCount = 2;
    profile.sizeQ14 = 24u << 14;
    profile.dataSize = 24 * 8;
    profile.mode = VELMORA::transferFix;
    sync.profileCount = 1;
}

// Polls for up to 10 s, as a busy machine may need.
template <class Done>
bool eventually(Done done) {
    for (int i = 0; i < 5000 && !done(); ++i) NORVA::sleepMilliseconds(2);
    return done();
}

// A fixture for streams in millisecond cycles, which need a fine timer and the worker's priority.
template <class Base = ::testing::Test>
class TimedStreamTest : public Base {
  protected:
    void SetUp() override {
#ifdef _WIN32
        GTEST_SKIP() << "a Wine timer tick of 15 ms is too coarse for millisecond cycles";
#endif
        if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
    }
};
