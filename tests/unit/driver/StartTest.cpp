// What start does before it reaches the network: format word, silence, ring
// and the transfer plan. Without a target, connectPrepare is where it stops.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "../Velmora/LogCapture.h"
#include "DriverEnvironment.h"
#include "asio_velmora.h"

namespace {

using VELMORA::FormatID;

void ASIO_CALLBACK ignoreSwitch(AsioLong, ASIOBool) {}

class Start : public DriverEnvironment {
  protected:
    // As init leaves it for a stereo sink of 16 and 32-bit integers at 44.1
    // and 48 kHz times 1 to 4, and DSD64 MSB first.
    Start() {
        driver.sync.format.sink = {FormatID(0xA02u, 0x3Eu), FormatID(), FormatID(0x2A10002u, 0x202u)};
        driver.formatMode = 0x200;
        driver.sampleWidth = 2;
        driver.channelCount = 2;
    }
    void makeBuffers(AsioLong size) {
        ASSERT_EQ(driver.createBuffers(records, 2, size, &callbacks), ASE_OK);
        for (auto& record : records) {
            std::memset(record.buffers[0], 0xAB, driver.bufferBytes);
            std::memset(record.buffers[1], 0xAB, driver.bufferBytes);
        }
    }
    bool buffersHold(std::uint8_t byte) {
        for (auto& record : records) {
            auto* block = static_cast<std::uint8_t*>(record.buffers[0]);
            if (!std::all_of(block, block + 2 * driver.bufferBytes,
                             [&](std::uint8_t b) { return b == byte; }))
                return false;
        }
        return true;
    }

    AsioVelmora driver{nullptr, nullptr};
    ASIOCallbacks callbacks{ignoreSwitch, nullptr, nullptr, nullptr};
    ASIOBufferInfo records[2] = {{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}};
};

TEST_F(Start, DsdRingScalesWithTheRateAndStartsInSilence) {
    ASIOIoFormat dsd{};
    dsd.FormatType = kASIODSDFormat;
    driver.future(kAsioSetIoFormat, &dsd);
    driver.settings.dsdMsb = true;
    driver.settings.asioBufferMulti = true;
    driver.setSampleRate(2822400);
    makeBuffers(4096);
    LogCapture log;

    EXPECT_EQ(driver.start(), ASE_NotPresent);
    EXPECT_TRUE(log.has("configTransfer Fix"));
    EXPECT_EQ(driver.sync.format.sourceFormat, FormatID(0x2A10002u, 0x202u));
    EXPECT_TRUE(buffersHold(0x96));
    // 2 x (2822400 / (44100 x 64)) times the six buffers, and the spare slot.
    EXPECT_EQ(driver.sync.slotCount(), 13u);
    EXPECT_EQ(driver.sync.slotBytes, 1024u);
    EXPECT_TRUE(driver.running) << "only stop clears it";
    EXPECT_EQ(driver.start(), ASE_NotPresent) << "not again before stop";
    driver.stop();
    EXPECT_FALSE(driver.running);
}

TEST_F(Start, HostBufferFixesTheCycle) {
    driver.settings.flexFixAsio = true;
    makeBuffers(512);
    LogCapture log;
    EXPECT_EQ(driver.start(), ASE_NotPresent);
    // 2048 bytes a buffer: two packets of 1024, 11.61 ms of audio.
    EXPECT_TRUE(log.has("configTransfer VarASIO 1024x2"));
    EXPECT_TRUE(log.has("start cycle=11610usec 86Hz size=1024 cycleMin=0usec 0Hz 1024x2ppc"));
    EXPECT_TRUE(buffersHold(0));
    EXPECT_EQ(driver.sync.profileCount, 1);
    driver.stop();
}

// The settings pick the planner (the planners' own results are TransferProfileTest's), at 44.1 kHz
// 16-bit stereo and a 1 ms cycle; the target's packet size reaches it, and a failed plan fails start with
// its own text.
TEST_F(Start, TheSettingsPickThePlan) {
    const struct {
        bool optimize, flexCycle, flexMax, flexRandom;
        std::uint16_t packetSize;  // that the target takes
        std::uint64_t cycleMinUs;
        const char* logged;     // the plan's line, or its failure's
        std::uint16_t packets;  // 0: start fails at the plan
    } rows[] = {
        {true, false, false, false, 1400, 0, "configTransfer FixAuto", 1},
        {true, true, false, false, 1400, 0, "configTransfer VarAuto", 1},
        {false, false, false, false, 1400, 0, "configTransfer Fix", 1},
        {false, true, false, false, 1400, 0, "configTransfer Var", 1},
        {false, true, true, false, 1400, 0, "configTransfer VarMax", 1},
        {false, true, false, true, 1400, 300, "configTransfer Random", 1},
        {true, true, false, false, 100, 0, "configTransfer VarAuto", 2},
        {true, false, false, false, 2, 0, "error configTransfer FixAuto", 0},
        {false, true, false, true, 1400, 1000, "error configTransfer Var", 0},  // not below the cycle
    };
    makeBuffers(256);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        driver.settings.fragmentOptimize = row.optimize;
        driver.settings.flexCycle = row.flexCycle;
        driver.settings.flexMax = row.flexMax;
        driver.settings.flexRandom = row.flexRandom;
        driver.settings.cycleMinTime = NORVA::TimeValue::fromUs(row.cycleMinUs);
        driver.sync.maxPacketSize = row.packetSize;
        driver.sync.profiles[0] = {};
        LogCapture log;
        EXPECT_EQ(driver.start(), ASE_NotPresent);
        EXPECT_TRUE(log.has(row.logged));
        EXPECT_EQ(log.has("connectPrepare error"), row.packets != 0) << "the plan let start go on";
        EXPECT_EQ(driver.sync.profiles[0].packetCount, row.packets);
        driver.stop();
    }
}

// With a limit for the target's profile two profiles are planned; a first cycle of 1 ms or more lets the
// worker sleep, so the spin bits go.
TEST_F(Start, TargetProfileLimitPlansTwoProfilesAndLongCyclesSleep) {
    struct Case {
        std::uint64_t limitUs;
        std::uint64_t firstCycleUs;
        std::uint32_t flagsLeft;
    };
    const std::uint32_t spin = VELMORA::ThreadFlag::noSleep4Core | VELMORA::ThreadFlag::noSleepForce;
    const Case cases[] = {{949, 999, spin | 1}, {950, 1000, 1}};
    makeBuffers(256);
    for (const Case& c : cases) {
        driver.sync.threadFlags = driver.settings.thredMode = spin | 1;  // as init leaves them
        driver.settings.targetProfileLimitTime = NORVA::TimeValue::fromUs(c.limitUs);
        LogCapture log;
        EXPECT_EQ(driver.start(), ASE_NotPresent);
        EXPECT_TRUE(log.has("configTransfer profile"));
        EXPECT_EQ(driver.sync.profileCount, 2);
        EXPECT_EQ(driver.sync.profiles[0].cycle.toUs(), c.firstCycleUs);
        EXPECT_EQ(driver.sync.threadFlags, c.flagsLeft) << c.limitUs;
        driver.stop();
    }
}

}  // namespace
