// What a host learns before it streams, and how createBuffers and start
// refuse what can't stream. No network: the sink's masks are set as init leaves them.
#include <gtest/gtest.h>

#include <cstring>
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
    void sinkOffers(FormatID pcm, FormatID lsb, FormatID msb) {
        driver.sync.format.sink = {pcm, lsb, msb};
        driver.formatMode = 0x800;
        driver.sampleWidth = 4;
        driver.channelCount = 2;
    }
    ASIOError canDo(ASIOIoFormatType type) {
        ASIOIoFormat format{};
        format.FormatType = type;
        return driver.future(kAsioCanDoIoFormat, &format);
    }
    void setFormat(ASIOIoFormatType type) {
        ASIOIoFormat format{};
        format.FormatType = type;
        ASSERT_EQ(driver.future(kAsioSetIoFormat, &format), ASE_SUCCESS);
    }
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
    sinkOffers(pcmStereo, FormatID(), FormatID());
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
    ASIOChannelInfo info{};
    info.channel = 2;
    EXPECT_EQ(driver.getChannelInfo(&info), ASE_InvalidParameter);
    info.channel = 0;
    info.isInput = ASIOTrue;
    EXPECT_EQ(driver.getChannelInfo(&info), ASE_InvalidParameter);

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
    sinkOffers(pcmStereo, FormatID(), FormatID());
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
    driver.disposeBuffers();
}

TEST_F(Channels, CreateBuffersRefusesChannelsItHasNot) {
    sinkOffers(pcmStereo, FormatID(), FormatID());
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
    EXPECT_EQ(driver.activeChannels, 0);
    EXPECT_EQ(driver.channelBuffers[0], nullptr);
    EXPECT_EQ(driver.callbacks.load(), nullptr);
    // A repeated channelNum can't pass the eight places.
    std::vector<ASIOBufferInfo> nine(9, ASIOBufferInfo{ASIOFalse, 0, {}});
    EXPECT_EQ(driver.createBuffers(nine.data(), 9, 64, &callbacks), ASE_InvalidParameter);

    setFormat(kASIODSDFormat);  // DSD sizes count bits
    ASSERT_EQ(driver.createBuffers(records, 1, 2048, &callbacks), ASE_OK);
    EXPECT_EQ(driver.bufferBytes, 256);
}

TEST_F(Channels, StartRefusesWhatCantStream) {
    sinkOffers(pcmStereo, FormatID(), FormatID());
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
    driver.disposeBuffers();
}

}  // namespace
