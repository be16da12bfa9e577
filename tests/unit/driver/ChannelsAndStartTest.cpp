// The driver short of the network, its sink's masks set as init leaves them: what a host learns before it
// streams, how createBuffers and start refuse what can't stream, and what start does before it reaches the
// network (format word, silence, ring and the transfer plan); without a target it stops at connectPrepare.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>
#include <vector>

#include "../Velmora/LogCapture.h"
#include "DriverEnvironment.h"
#include "asio_velmora.h"

namespace {

using VELMORA::FormatID;

// Stereo 32-bit integers at 44.1 and 48 kHz times 1 to 4.
const FormatID pcmStereo(0x802u, 0x3Eu);
// DSD64 and DSD128, stereo, 32-bit words.
const FormatID dsdLsbStereo(0x2510002u, 0x602u), dsdMsbStereo(0x2A10002u, 0x602u);

// The host's callbacks: rate changes are noted, time info and reset requests are taken.
struct SeenRates {
    static inline std::vector<double> rates;
    static void ASIO_CALLBACK changed(ASIOSampleRate rate) { rates.push_back(rate); }
    static void ASIO_CALLBACK bufferSwitch(AsioLong, ASIOBool) {}
    static AsioLong ASIO_CALLBACK message(AsioLong selector, AsioLong value, void*, double*) {
        return selector == kAsioSupportsTimeInfo ||
               (selector == kAsioSelectorSupported && value == kAsioResetRequest);
    }
};

class Channels : public DriverEnvironment {
  protected:
    Channels() { sinkOffers(pcmStereo, FormatID(), FormatID()); }
    // A stereo sink; the host's samples are 32-bit integers unless told.
    void sinkOffers(FormatID pcm, FormatID lsb, FormatID msb, std::uint64_t formatMode = 0x800,
                    std::int32_t sampleWidth = 4) {
        driver.sync.format.sink = {pcm, lsb, msb};
        driver.formatMode = formatMode;
        driver.sampleWidth = sampleWidth;
        driver.channelCount = 2;
    }
    ASIOError ioFormat(AsioLong selector, ASIOIoFormatType type) {
        ASIOIoFormat format{type, {}};
        return driver.future(selector, &format);
    }
    ASIOError canDo(ASIOIoFormatType type) { return ioFormat(kAsioCanDoIoFormat, type); }
    void setFormat(ASIOIoFormatType type) { ASSERT_EQ(ioFormat(kAsioSetIoFormat, type), ASE_SUCCESS); }
    ASIOSampleType typeOf(AsioLong channel) {
        ASIOChannelInfo info{};
        info.channel = channel;
        EXPECT_EQ(driver.getChannelInfo(&info), ASE_OK);
        return info.type;
    }
    std::vector<AsioLong> bufferSizes() {
        AsioLong least = 0, greatest = 0, preferred = 0, granularity = 0;
        driver.getBufferSize(&least, &greatest, &preferred, &granularity);
        return {least, greatest, preferred, granularity};
    }

    AsioVelmora driver{nullptr, nullptr};
    ASIOCallbacks callbacks{SeenRates::bufferSwitch, SeenRates::changed, SeenRates::message, nullptr};
};

TEST_F(Channels, BufferSizesInPcmDsdAndFixed) {
    sinkOffers(pcmStereo, dsdLsbStereo, FormatID());
    EXPECT_EQ(bufferSizes(), std::vector<AsioLong>({1, 16384, 512, -1}));
    setFormat(kASIODSDFormat);
    EXPECT_EQ(bufferSizes(), std::vector<AsioLong>({32, 524288, 16384, -1}));
    setFormat(kASIOFormatInvalid);  // means PCM
    driver.settings.asioBufferSize = 1024;
    EXPECT_EQ(bufferSizes(), std::vector<AsioLong>({1024, 1024, 1024, 0}));
}

TEST_F(Channels, RatesFormatsAndTypesFollowTheSink) {
    EXPECT_EQ(driver.canSampleRate(192000), ASE_OK);
    for (double rate : {384000.0, 22050.0, 2822400.0})
        EXPECT_EQ(driver.canSampleRate(rate), ASE_NoClock) << rate;
    EXPECT_EQ(canDo(kASIODSDFormat), ASE_NotPresent);
    EXPECT_EQ(canDo(kASIOFormatInvalid), ASE_SUCCESS);
    for (auto [mode, type] : {std::pair{0x4000, ASIOSTFloat64LSB},
                              {0x2000, ASIOSTFloat32LSB},
                              {0x400, ASIOSTInt24LSB},
                              {0x200, ASIOSTInt16LSB}}) {
        driver.formatMode = std::uint64_t(mode);
        EXPECT_EQ(typeOf(0), type) << mode;
    }
    driver.settings.covertS32 = true;
    EXPECT_EQ(typeOf(0), ASIOSTInt32LSB);
    for (auto [channel, input] : {std::pair{2, ASIOFalse}, {0, ASIOTrue}}) {
        ASIOChannelInfo info{channel, input, {}, {}, {}, {}};
        EXPECT_EQ(driver.getChannelInfo(&info), ASE_InvalidParameter) << channel;
    }

    // A DSD rate takes the DSD branch without the host's format choice.
    sinkOffers(FormatID(), dsdLsbStereo, FormatID());
    EXPECT_EQ(canDo(kASIOPCMFormat), ASE_NotPresent);
    EXPECT_EQ(driver.canSampleRate(2822400), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(44100), ASE_NoClock);
    setFormat(kASIODSDFormat);
    EXPECT_EQ(driver.canSampleRate(5644800), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(11289600), ASE_NoClock);

    sinkOffers(pcmStereo, FormatID(), dsdMsbStereo);
    setFormat(kASIOPCMFormat);
    EXPECT_EQ(canDo(kASIODSDFormat), ASE_SUCCESS);
    EXPECT_EQ(driver.canSampleRate(1536000), ASE_NoClock);  // PCM, times 32 isn't offered
    // The type follows the rate and the host's choice, not the sink.
    driver.sampleRate = 2822400;
    EXPECT_EQ(typeOf(0), ASIOSTDSDInt8LSB1);
    driver.settings.dsdMsb = true;
    EXPECT_EQ(typeOf(1), ASIOSTDSDInt8MSB1);
    driver.sampleRate = 1536000;
    EXPECT_EQ(typeOf(0), ASIOSTInt32LSB);
}

TEST_F(Channels, RateAndClockChangesAreMarkedForTheHost) {
    SeenRates::rates.clear();
    ASIOBufferInfo records[1] = {{ASIOFalse, 0, {}}};
    ASSERT_EQ(driver.createBuffers(records, 1, 256, &callbacks), ASE_OK);
    EXPECT_EQ(driver.asioTime.timeCode.flags, 0x102u);
    EXPECT_FALSE(driver.resetSupported) << "a lost stream asks for a reset only with ResetOnLoss";
    EXPECT_EQ(driver.setSampleRate(44100), ASE_OK);
    EXPECT_TRUE(SeenRates::rates.empty()) << "the present rate is no change";
    EXPECT_EQ(driver.setSampleRate(48000.7), ASE_OK);
    EXPECT_EQ(SeenRates::rates, std::vector<double>{48000});
    EXPECT_EQ(driver.setClockSource(1), ASE_NotPresent);
    EXPECT_EQ(driver.setClockSource(0), ASE_OK);
    EXPECT_EQ(driver.asioTime.timeInfo.flags, 0x3Fu);
}

TEST_F(Channels, CreateBuffersRefusesChannelsItHasNot) {
    driver.channelCount = 8;
    // Inputs are passed over; the records' order, not channelNum, places them.
    ASIOBufferInfo records[3] = {{ASIOFalse, 5, {}}, {ASIOTrue, 0, {}}, {ASIOFalse, 1, {}}};
    ASSERT_EQ(driver.createBuffers(records, 3, 64, &callbacks), ASE_OK);
    EXPECT_EQ(driver.activeChannels, 2);
    EXPECT_EQ(driver.bufferBytes, 256);
    EXPECT_EQ(records[0].buffers[0], driver.channelBuffers[0].get());
    EXPECT_EQ(static_cast<std::uint8_t*>(records[0].buffers[1]), driver.channelBuffers[0].get() + 256);
    EXPECT_EQ(records[1].buffers[0], nullptr);
    EXPECT_EQ(records[2].buffers[0], driver.channelBuffers[1].get());

    ASIOBufferInfo outside[2] = {{ASIOFalse, 0, {}}, {ASIOFalse, 8, {}}};
    EXPECT_EQ(driver.createBuffers(outside, 2, 64, &callbacks), ASE_InvalidParameter);
    EXPECT_EQ(driver.activeChannels, 0) << "the first channel's block went too";
    // A repeated channelNum can't pass the eight places.
    std::vector<ASIOBufferInfo> nine(9, ASIOBufferInfo{ASIOFalse, 0, {}});
    EXPECT_EQ(driver.createBuffers(nine.data(), 9, 64, &callbacks), ASE_InvalidParameter);

    setFormat(kASIODSDFormat);  // DSD sizes count bits
    ASSERT_EQ(driver.createBuffers(records, 1, 2048, &callbacks), ASE_OK);
    EXPECT_EQ(driver.bufferBytes, 256);
}

TEST_F(Channels, StartRefusesWhatCantStream) {
    driver.channelCount = 4;
    LogCapture log;
    const struct {
        std::vector<ASIOBufferInfo> records;
        double rate;
        std::uint64_t formatMode;
        const char* logged;
    } rows[] = {
        {{{ASIOTrue, 0, {}}}, 44100, 0x800, "ch error 0"},
        {{{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}, {ASIOFalse, 2, {}}}, 44100, 0x800, "ch error 3"},
        {{{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}}, 1536001, 0x800, "speed error 1536001"},  // DSD by its rate
        {{{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}}, 96000, 0x400, "fmt error PCM"},  // not in the sink's mask
    };
    for (auto row : rows) {
        SCOPED_TRACE(row.logged);
        ASSERT_EQ(driver.createBuffers(row.records.data(), AsioLong(row.records.size()), 64, &callbacks),
                  ASE_OK);
        driver.setSampleRate(row.rate);
        driver.formatMode = row.formatMode;
        EXPECT_EQ(driver.start(), ASE_NotPresent);
        EXPECT_TRUE(log.has(row.logged));
        EXPECT_FALSE(driver.running);
    }
}

// A sink of 16 and 32-bit integers at 44.1 and 48 kHz times 1 to 4 and of DSD64 MSB first; a 16-bit host.
class Start : public Channels {
  protected:
    Start() { sinkOffers(FormatID(0xA02u, 0x3Eu), FormatID(), FormatID(0x2A10002u, 0x202u), 0x200, 2); }
    // The host's blocks of two halves, each byte 0xAB.
    void makeBuffers(AsioLong size) {
        ASSERT_EQ(driver.createBuffers(records, 2, size, &callbacks), ASE_OK);
        for (auto& record : records) std::memset(record.buffers[0], 0xAB, 2 * driver.bufferBytes);
    }
    bool buffersHold(std::uint8_t byte) {
        return std::all_of(std::begin(records), std::end(records), [&](const ASIOBufferInfo& record) {
            auto* block = static_cast<std::uint8_t*>(record.buffers[0]);
            return std::all_of(block, block + 2 * driver.bufferBytes,
                               [&](std::uint8_t b) { return b == byte; });
        });
    }

    ASIOBufferInfo records[2] = {{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}};
};

TEST_F(Start, DsdRingScalesWithTheRateAndStartsInSilence) {
    setFormat(kASIODSDFormat);
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

// The settings pick the planner (the planners' own results are TransferProfileTest's), at 44.1 kHz
// 16-bit stereo and a 1 ms cycle; the target's packet size reaches it, and a failed plan fails start with
// its own text. FlexCycle=fixAsio sends each host buffer of 1024 bytes in packets that fit the target.
TEST_F(Start, TheSettingsPickThePlan) {
    const struct {
        bool optimize, flexCycle, flexMax, flexRandom, fixAsio;
        std::uint16_t packetSize;  // that the target takes
        std::uint64_t cycleMinUs;
        const char* logged;     // the plan's line, or its failure's
        std::uint16_t packets;  // 0: start fails at the plan
    } rows[] = {
        {false, false, false, false, true, 1000, 0,
         "start cycle=5805usec 172Hz size=512 cycleMin=0usec 0Hz 512x2ppc", 2},
        {true, false, false, false, false, 1400, 0, "configTransfer FixAuto", 1},
        {true, true, false, false, false, 1400, 0, "configTransfer VarAuto", 1},
        {false, false, false, false, false, 1400, 0, "configTransfer Fix", 1},
        {false, true, false, false, false, 1400, 0, "configTransfer Var", 1},
        {false, true, true, false, false, 1400, 0, "configTransfer VarMax", 1},
        {false, true, false, true, false, 1400, 300, "configTransfer Random", 1},
        {true, true, false, false, false, 100, 0, "configTransfer VarAuto", 2},
        {true, false, false, false, false, 2, 0, "error configTransfer FixAuto", 0},
        {false, true, false, true, false, 1400, 1000, "error configTransfer Var", 0},  // not below the cycle
    };
    makeBuffers(256);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        DriverSettings& s = driver.settings;
        std::tie(s.fragmentOptimize, s.flexCycle, s.flexMax, s.flexRandom, s.flexFixAsio) =
            std::tie(row.optimize, row.flexCycle, row.flexMax, row.flexRandom, row.fixAsio);
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
    EXPECT_TRUE(buffersHold(0)) << "PCM silence";
}

// With a limit for the target's profile two profiles are planned; a first cycle of 1 ms or more lets the
// worker sleep, so the spin bits go.
TEST_F(Start, TargetProfileLimitPlansTwoProfilesAndLongCyclesSleep) {
    const std::uint32_t spin = VELMORA::ThreadFlag::noSleep4Core | VELMORA::ThreadFlag::noSleepForce;
    makeBuffers(256);
    for (auto [limitUs, firstCycleUs, flagsLeft] : {std::tuple{949u, 999u, spin | 1}, {950u, 1000u, 1u}}) {
        driver.sync.threadFlags = driver.settings.thredMode = spin | 1;  // as init leaves them
        driver.settings.targetProfileLimitTime = NORVA::TimeValue::fromUs(limitUs);
        EXPECT_EQ(driver.start(), ASE_NotPresent);
        EXPECT_EQ(driver.sync.profileCount, 2);
        EXPECT_EQ(driver.sync.profiles[0].cycle.toUs(), firstCycleUs);
        EXPECT_EQ(driver.sync.threadFlags, flagsLeft) << limitUs;
        driver.stop();
    }
}

}  // namespace
