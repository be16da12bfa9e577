#include "Settings.h"

#include <gtest/gtest.h>

#include "System/Log.h"
#include "TempFolder.h"

namespace {

using NORVA::TimeValue;

constexpr std::uint16_t manyProcessors = 64;

struct Loaded {
    bool read;
    DriverSettings settings;
};

Loaded loadText(const std::string& text, std::uint16_t processors = manyProcessors) {
    TempFolder folder;
    Loaded loaded{false, {}};
    loaded.read = loaded.settings.load(folder.write("setting.inf", text), processors);
    return loaded;
}

DriverSettings load(const std::string& text, std::uint16_t processors = manyProcessors) {
    Loaded loaded = loadText(text, processors);
    EXPECT_TRUE(loaded.read);
    return loaded.settings;
}

void expectDefaults(const DriverSettings& s) {
    EXPECT_FALSE(s.dsdMsb);
    EXPECT_EQ(s.pcmRequest, 32);
    EXPECT_FALSE(s.covertS32);
    EXPECT_EQ(s.startDelay, 0);
    EXPECT_TRUE(s.targetAddress.isAnyNoPort());
    EXPECT_EQ(s.targetPort, 0);
    EXPECT_TRUE(s.findAddresses.empty());
    EXPECT_EQ(s.asioBufferSize, 0);
    EXPECT_EQ(s.asioBufferSizeMin, 1);
    EXPECT_EQ(s.asioBufferSizeMax, 16384);
    EXPECT_EQ(s.asioBufferSizePre, 512);
    EXPECT_EQ(s.syncBufferCount, 6);
    EXPECT_EQ(s.cycleTime, TimeValue::fromUs(1000));
    EXPECT_FALSE(s.cycleMinTime.isSet());
    EXPECT_FALSE(s.targetProfileLimitTime.isSet());
    EXPECT_EQ(s.fragment, 0);
    EXPECT_FALSE(s.fragmentOptimize);
    EXPECT_EQ(s.thredMode, 1u);
    EXPECT_EQ(s.infoCycle, TimeValue::fromUs(100000));
    EXPECT_FALSE(s.flexCycle || s.flexFixAsio || s.flexRandom || s.flexMax);
    EXPECT_FALSE(s.asioBufferMulti);
    EXPECT_EQ(s.interfaceNumber, 0);
    EXPECT_FALSE(s.interLoopback);
    EXPECT_FALSE(s.latencyBuffer.isSet());
    EXPECT_FALSE(s.phaseInvert);
    EXPECT_FALSE(s.nopBreak);
    EXPECT_EQ(s.cpuSend, -1);
    EXPECT_EQ(s.cpuOther, -1);
    EXPECT_EQ(s.cpuOtherCount, -1);
    EXPECT_FALSE(s.ackProcessCtl);
    EXPECT_FALSE(s.resetOnLoss);
}

TEST(Settings, UnreadableFileLeavesDefaultsAndResetsEarlierValues) {
    DriverSettings s = load("CycleTime=250\nFindIP=fe80::1\n");
    ASSERT_EQ(s.cycleTime, TimeValue::fromUs(250));

    TempFolder folder;
    EXPECT_FALSE(s.load(folder.file("missing.inf"), manyProcessors));
    expectDefaults(s);
    // A control character makes the whole file unreadable.
    EXPECT_FALSE(s.load(folder.write("bad.inf", "CycleTime=250\n\x01\n"), manyProcessors));
    expectDefaults(s);
}

TEST(Settings, EmptyFileGivesDefaults) {
    expectDefaults(load(""));
}

TEST(Settings, EveryKeyTaken) {
    DriverSettings s = load(
        "DSDMSB=enable\nPCMRequest=24\nStartDelay=5000\nTargetAddress=fe80::12,19642\nTargetPO=3\n"
        "FindIP=fe80::1;;nonsense;2001:db8::5\nASIOBufferSize=256\nASIOBufferSizeMin=64\n"
        "ASIOBufferSizeMax=4096\nASIOBufferSizePre=128\nSyncBufferCount=2\nCycleTime=2000\n"
        "CycleMinTime=500\nTargetProfileLimitTime=101\nFragment=7\nThredMode=8208\nInfoCycle=0\n"
        "FlexCycle=fixAsio\nASIOBufferMulti=enable\nInterface=12\nInterLoopback=enable\n"
        "LatencyBuffer=30000\nPhase=Invert\nNopBreak=enable\nCpuSend=0\nCpuOther=2-5\nAckProcessctl="
        "enable\nResetOnLoss=enable\n");
    EXPECT_TRUE(s.dsdMsb);
    EXPECT_EQ(s.pcmRequest, 24);
    EXPECT_FALSE(s.covertS32);
    EXPECT_EQ(s.startDelay, 5000);
    EXPECT_EQ(s.targetAddress.toStringPort(), "fe80::12,19642");
    EXPECT_EQ(s.targetPort, 3);
    ASSERT_EQ(s.findAddresses.size(), 2u);
    EXPECT_EQ(s.findAddresses[0].toString(), "fe80::1");
    EXPECT_EQ(s.findAddresses[1].toString(), "2001:db8::5");
    EXPECT_TRUE(s.findAddresses[1].noPort());
    EXPECT_EQ(s.asioBufferSize, 256);
    EXPECT_EQ(s.asioBufferSizeMin, 64);
    EXPECT_EQ(s.asioBufferSizeMax, 4096);
    EXPECT_EQ(s.asioBufferSizePre, 128);
    EXPECT_EQ(s.syncBufferCount, 2);
    EXPECT_EQ(s.cycleTime, TimeValue::fromUs(2000));
    EXPECT_EQ(s.cycleMinTime, TimeValue::fromUs(500));
    EXPECT_EQ(s.targetProfileLimitTime, TimeValue::fromUs(101));
    EXPECT_EQ(s.fragment, 7);
    EXPECT_EQ(s.thredMode, 0x2010u);
    EXPECT_FALSE(s.infoCycle.isSet());
    EXPECT_TRUE(s.flexFixAsio);
    EXPECT_FALSE(s.flexCycle);
    EXPECT_TRUE(s.asioBufferMulti);
    EXPECT_EQ(s.interfaceNumber, 12);
    EXPECT_TRUE(s.interLoopback);
    EXPECT_EQ(s.latencyBuffer, TimeValue::fromUs(30000));
    EXPECT_TRUE(s.phaseInvert);
    EXPECT_TRUE(s.nopBreak);
    EXPECT_EQ(s.cpuSend, 0);
    EXPECT_EQ(s.cpuOther, 2);
    EXPECT_EQ(s.cpuOtherCount, 4);
    EXPECT_TRUE(s.ackProcessCtl);
    EXPECT_TRUE(s.resetOnLoss);
}

TEST(Settings, RefusedValuesKeepDefaults) {
    // Each value fails the test of its key; every field must stay at its default.
    expectDefaults(
        load("DSDMSB=Enable\nPCMRequest=-1\nStartDelay=-5\nTargetAddress=fe80::1\nTargetPO=-2\nFindIP=;x;\n"
             "ASIOBufferSize=0\nASIOBufferSizeMin=0\nASIOBufferSizeMax=-1\nASIOBufferSizePre=0\n"
             "SyncBufferCount=1\nCPULOW=abc\nCycleTime=0\nTargetProfileLimitTime=100\n"
             "Fragment=-1\nThredMode=-1\nFlexCycle=on\nASIOBufferMulti=yes\nInterface=-1\n"
             "InterLoopback=1\nLatencyBuffer=-1\nPhase=invert\nNopBreak=true\nCpuSend=00\nCpuOther=x\n"
             "AckProcessctl=ENABLE\nResetOnLoss=on\n"));
}

// Text without a leading number reads as 0 and then meets its key's test;
// the sides of a CPU range are read on their own; times other than CycleTime
// take any value, CycleTime all but 0.
TEST(Settings, NumbersTextAndRangesAsTheKeysReadThem) {
    auto us = [](std::int64_t n) { return std::to_string(TimeValue::fromUs(std::uint64_t(n)).raw()); };
    struct Case {
        const char* text;
        std::string (*read)(const DriverSettings&);
        std::string expected;
    };
    auto pcm = [](const DriverSettings& s) { return std::to_string(s.pcmRequest); };
    auto thred = [](const DriverSettings& s) { return std::to_string(s.thredMode); };
    auto info = [](const DriverSettings& s) { return std::to_string(s.infoCycle.raw()); };
    auto cycle = [](const DriverSettings& s) { return std::to_string(s.cycleTime.raw()); };
    auto cycleMin = [](const DriverSettings& s) { return std::to_string(s.cycleMinTime.raw()); };
    auto delay = [](const DriverSettings& s) { return std::to_string(s.startDelay); };
    auto cpus = [](const DriverSettings& s) {
        return std::to_string(s.cpuOther) + " " + std::to_string(s.cpuOtherCount);
    };
    const Case cases[] = {
        {"PCMRequest=abc", pcm, "0"},
        {"ThredMode=none", thred, "0"},
        {"InfoCycle=x", info, "0"},
        {"InfoCycle=-5", info, us(-5)},
        {"CycleTime=-250", cycle, us(-250)},
        {"CycleTime=zero", cycle, us(1000)},
        {"CycleMinTime=-1", cycleMin, us(-1)},
        {"StartDelay=-5", delay, "0"},
        {"CpuOther=2-5", cpus, "2 4"},
        {"CpuOther=3", cpus, "3 1"},
        {"CpuOther=0", cpus, "0 1"},
        {"CpuOther=abc", cpus, "-1 -1"},
        {"CpuOther=5-4", cpus, "5 0"},
        {"CpuOther=3-x", cpus, "3 -1"},
        {"CpuOther=x-5", cpus, "-1 7"},
        {"CpuOther=5-2", cpus, "5 -2"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.read(load(std::string(c.text) + "\n")), c.expected) << c.text;
    }
}

TEST(Settings, NumbersReadTheirLeadingDigits) {
    DriverSettings s = load("CycleTime=1500us\nStartDelay=+20\nASIOBufferSize=99999999999\nTargetPO=65537\n");
    EXPECT_EQ(s.cycleTime, TimeValue::fromUs(1500));
    EXPECT_EQ(s.startDelay, 20);
    EXPECT_EQ(s.asioBufferSize, 2147483647);
    EXPECT_EQ(s.targetPort, 1);  // cut to 16 bits
}

TEST(Settings, KeywordsAreCaseSensitiveAndExact) {
    EXPECT_TRUE(load("PCMRequest=CovertS32\n").covertS32);
    EXPECT_EQ(load("PCMRequest=CovertS32\n").pcmRequest, 32);
    EXPECT_FALSE(load("PCMRequest=covertS32\n").covertS32);
    EXPECT_EQ(load("Fragment=disable\n").fragment, 1);
    EXPECT_EQ(load("Fragment=enable\n").fragment, 0);
    EXPECT_TRUE(load("Fragment=Optimize\n").fragmentOptimize);
    EXPECT_FALSE(load("Fragment=optimize\n").fragmentOptimize);
}

TEST(Settings, FlexCycleAfterFragment) {
    DriverSettings random = load("Fragment=Optimize\nFlexCycle=random\n");
    EXPECT_TRUE(random.flexRandom && random.flexCycle);
    EXPECT_FALSE(random.fragmentOptimize);

    DriverSettings max = load("Fragment=Optimize\nFlexCycle=max\n");
    EXPECT_TRUE(max.flexMax && max.flexCycle);
    EXPECT_FALSE(max.flexRandom);
    EXPECT_FALSE(max.fragmentOptimize);

    DriverSettings enable = load("Fragment=Optimize\nFlexCycle=enable\n");
    EXPECT_TRUE(enable.flexCycle);
    EXPECT_TRUE(enable.fragmentOptimize);
}

TEST(Settings, CpuSendNumbers) {
    EXPECT_EQ(load("CpuSend=0\n").cpuSend, 0);
    EXPECT_EQ(load("CpuSend=6\n").cpuSend, 6);
    EXPECT_EQ(load("CpuSend=-1\n").cpuSend, -1);
}

TEST(Settings, TargetAddressNeedsACommaAndPort) {
    EXPECT_TRUE(load("TargetAddress=::1\n").targetAddress.isAnyNoPort());
    EXPECT_TRUE(load("TargetAddress=zz::1,19642\n").targetAddress.isAnyNoPort());
    NORVA::IPAddress loopback = load("TargetAddress=::1,19642\n").targetAddress;
    EXPECT_TRUE(loopback.isLoopback());
    EXPECT_EQ(loopback.port(), 19642);
}

TEST(Settings, LowProfileOnSmallMachines) {
    const std::string text =
        "ASIOBufferSizePre=256\nCPULOW=4\nCycleTime=2000\nThredMode=3\n"
        "[LOW]\nASIOBufferSizePre=1024\nCycleTime=4000\n";

    DriverSettings small = load(text, 4);
    EXPECT_EQ(small.asioBufferSizePre, 256);  // read before CPULOW, from "global"
    EXPECT_EQ(small.cycleTime, TimeValue::fromUs(4000));
    EXPECT_EQ(small.thredMode, 1u);  // no fallback to "global" behind CPULOW

    DriverSettings large = load(text, 5);
    EXPECT_EQ(large.cycleTime, TimeValue::fromUs(2000));
    EXPECT_EQ(large.thredMode, 3u);

    // Without a "LOW" section everything behind CPULOW keeps its default.
    DriverSettings bare = load("CPULOW=8\nCycleTime=2000\nCpuSend=1\n", 2);
    EXPECT_EQ(bare.cycleTime, TimeValue::fromUs(1000));
    EXPECT_EQ(bare.cpuSend, -1);

    EXPECT_EQ(load("CPULOW=0\nCycleTime=2000\n[LOW]\nCycleTime=4000\n", 1).cycleTime,
              TimeValue::fromUs(2000));
}

class SettingsOverlay : public ::testing::Test {
  protected:
    void TearDown() override { NORVA::logThreshold.store(-1); }
    TempFolder folder;
};

TEST_F(SettingsOverlay, DebugFileBesideTheSettingsWins) {
    std::string path = folder.write("setting.inf", "CycleTime=2000\nStartDelay=10\n[LOW]\nCycleTime=3000\n");
    folder.write("debug.inf", "CycleTime=500\n[LOW]\nCycleTime=700\n");
    DriverSettings s;
    ASSERT_TRUE(s.load(path, manyProcessors));
    EXPECT_EQ(s.cycleTime, TimeValue::fromUs(500));
    EXPECT_EQ(s.startDelay, 10);
}

TEST_F(SettingsOverlay, DebugKeySetsTheLogThreshold) {
    std::string path = folder.write("setting.inf", "Debug=enable\n");
    DriverSettings s;
    ASSERT_TRUE(s.load(path, manyProcessors));
    EXPECT_EQ(NORVA::logThreshold.load(), 6);

    folder.write("debug.inf", "Debug=debug\n");
    ASSERT_TRUE(s.load(path, manyProcessors));
    EXPECT_EQ(NORVA::logThreshold.load(), 7);
}

TEST_F(SettingsOverlay, OtherDebugValuesLeaveLoggingOff) {
    std::string path = folder.write("setting.inf", "Debug=on\n");
    DriverSettings s;
    ASSERT_TRUE(s.load(path, manyProcessors));
    EXPECT_EQ(NORVA::logThreshold.load(), -1);
}

TEST_F(SettingsOverlay, DebugFileAloneIsNotASettingsFile) {
    folder.write("debug.inf", "CycleTime=500\n");
    DriverSettings s;
    EXPECT_FALSE(s.load(folder.file("setting.inf"), manyProcessors));
    EXPECT_EQ(s.cycleTime, TimeValue::fromUs(1000));
}

}  // namespace
