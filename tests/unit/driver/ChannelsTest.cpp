// What a host learns before it streams, for the three kinds of sink, and
// how createBuffers and start refuse what can't stream. No network: the
// sink's masks are set as init leaves them.
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
// DSD64 and DSD128 (44.1 kHz times 64 and 128), stereo, 32-bit words.
const FormatID dsdLsbStereo(0x2510002u, 0x602u);
const FormatID dsdMsbStereo(0x2A10002u, 0x602u);

class Channels : public DriverEnvironment {
  protected:
    // As init leaves the driver for a sink with these masks.
    void sinkOffers(FormatID pcm, FormatID lsb, FormatID msb) {
        driver.sync.format.sink = {pcm, lsb, msb};
        driver.formatMode = 0x800;
        driver.sampleWidth = 4;
        driver.channelCount = 2;
        driver.driverName = "Studio(Out A)";
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
    ASIOChannelInfo channelInfo(AsioLong channel) {
        ASIOChannelInfo info{};
        info.channel = channel;
        EXPECT_EQ(driver.getChannelInfo(&info), ASE_OK);
        return info;
    }

    AsioVelmora driver{nullptr, nullptr};
};

TEST_F(Channels, BufferSizesInPcmDsdAndFixed) {
    sinkOffers(pcmStereo, dsdLsbStereo, FormatID());
    AsioLong least = 0, greatest = 0, preferred = 0, granularity = 0;
    driver.getBufferSize(&least, &greatest, &preferred, &granularity);
    EXPECT_EQ(std::vector<AsioLong>({least, greatest, preferred, granularity}),
              std::vector<AsioLong>({1, 16384, 512, -1}));
    setFormat(kASIODSDFormat);
    driver.getBufferSize(&least, &greatest, &preferred, &granularity);
    EXPECT_EQ(std::vector<AsioLong>({least, greatest, preferred, granularity}),
              std::vector<AsioLong>({32, 524288, 16384, -1}));
    setFormat(kASIOFormatInvalid);  // means PCM
    driver.settings.asioBufferSize = 1024;
    driver.getBufferSize(&least, &greatest, &preferred, &granularity);
    EXPECT_EQ(std::vector<AsioLong>({least, greatest, preferred, granularity}),
              std::vector<AsioLong>({1024, 1024, 1024, 0}));
}

TEST_F(Channels, PcmOnlySink) {
    sinkOffers(pcmStereo, FormatID(), FormatID());
    EXPECT_EQ(driver.canSampleRate(44100), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(192000), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(384000), ASE_NoClock);  // times 8 isn't offered
    EXPECT_EQ(driver.canSampleRate(22050), ASE_NoClock);
    EXPECT_EQ(driver.canSampleRate(2822400), ASE_NoClock);
    EXPECT_EQ(canDo(kASIOPCMFormat), ASE_SUCCESS);
    EXPECT_EQ(canDo(kASIODSDFormat), ASE_NotPresent);
    EXPECT_EQ(canDo(kASIOFormatInvalid), ASE_SUCCESS);

    ASIOChannelInfo info = channelInfo(1);
    EXPECT_EQ(info.type, ASIOSTInt32LSB);
    EXPECT_EQ(info.isActive, ASIOFalse);
    EXPECT_STREQ(info.name, "Studio(Out A)");
    for (auto [mode, type] : {std::pair{0x4000, ASIOSTFloat64LSB},
                              {0x2000, ASIOSTFloat32LSB},
                              {0x400, ASIOSTInt24LSB},
                              {0x200, ASIOSTInt16LSB}}) {
        driver.formatMode = std::uint64_t(mode);
        EXPECT_EQ(channelInfo(0).type, type) << mode;
    }
    driver.settings.covertS32 = true;
    EXPECT_EQ(channelInfo(0).type, ASIOSTInt32LSB);

    info.channel = 2;
    EXPECT_EQ(driver.getChannelInfo(&info), ASE_InvalidParameter);
    info.channel = 0;
    info.isInput = ASIOTrue;
    EXPECT_EQ(driver.getChannelInfo(&info), ASE_InvalidParameter);
}

TEST_F(Channels, DsdOnlySink) {
    sinkOffers(FormatID(), dsdLsbStereo, FormatID());
    EXPECT_EQ(canDo(kASIODSDFormat), ASE_SUCCESS);
    EXPECT_EQ(canDo(kASIOPCMFormat), ASE_NotPresent);
    // A DSD rate takes the DSD branch without the host's format choice.
    EXPECT_EQ(driver.canSampleRate(2822400), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(44100), ASE_NoClock);
    // The type follows the rate and the host's choice, not the sink.
    EXPECT_EQ(channelInfo(0).type, ASIOSTInt32LSB);

    setFormat(kASIODSDFormat);
    ASIOIoFormat asked{};
    EXPECT_EQ(driver.future(kAsioGetIoFormat, &asked), ASE_SUCCESS);
    EXPECT_EQ(asked.FormatType, kASIODSDFormat);
    EXPECT_EQ(driver.canSampleRate(5644800), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(11289600), ASE_NoClock);
    driver.settings.dsdMsb = true;
    EXPECT_EQ(channelInfo(1).type, ASIOSTDSDInt8MSB1);
}

TEST_F(Channels, MixedSink) {
    sinkOffers(pcmStereo, FormatID(), dsdMsbStereo);
    EXPECT_EQ(canDo(kASIODSDFormat), ASE_SUCCESS);
    EXPECT_EQ(canDo(kASIOPCMFormat), ASE_SUCCESS);
    EXPECT_EQ(driver.canSampleRate(1536000), ASE_NoClock);  // PCM, times 32 isn't offered
    EXPECT_EQ(driver.canSampleRate(2822400), ASE_OK);
    EXPECT_EQ(driver.canSampleRate(48000), ASE_OK);
    EXPECT_EQ(channelInfo(0).type, ASIOSTInt32LSB);
    driver.sampleRate = 2822400;
    EXPECT_EQ(channelInfo(0).type, ASIOSTDSDInt8LSB1);
    driver.sampleRate = 1536000;
    EXPECT_EQ(channelInfo(0).type, ASIOSTInt32LSB);
}

TEST_F(Channels, FutureSelectors) {
    EXPECT_EQ(driver.future(kAsioEnableTimeCodeRead, nullptr), ASE_SUCCESS);
    EXPECT_TRUE(driver.timeCodeRead);
    EXPECT_EQ(driver.future(kAsioCanTimeCode, nullptr), ASE_SUCCESS);
    EXPECT_EQ(driver.future(kAsioCanTransport, nullptr), ASE_NotPresent);
    EXPECT_EQ(driver.future(kAsioSetIoFormat, nullptr), ASE_InvalidParameter);
}

// The host's callbacks, seen through one test at a time.
struct SeenRates {
    static inline std::vector<double> rates;
    static void ASIO_CALLBACK changed(ASIOSampleRate rate) { rates.push_back(rate); }
    static void ASIO_CALLBACK bufferSwitch(AsioLong, ASIOBool) {}
    static AsioLong ASIO_CALLBACK message(AsioLong selector, AsioLong, void*, double*) {
        return selector == kAsioSupportsTimeInfo ? 1 : 0;
    }
};

TEST_F(Channels, RateAndClockChangesAreMarkedForTheHost) {
    sinkOffers(pcmStereo, FormatID(), FormatID());
    SeenRates::rates.clear();
    ASIOCallbacks callbacks{SeenRates::bufferSwitch, SeenRates::changed, SeenRates::message, nullptr};
    ASIOBufferInfo records[1] = {{ASIOFalse, 0, {}}};
    ASSERT_EQ(driver.createBuffers(records, 1, 256, &callbacks), ASE_OK);
    EXPECT_TRUE(driver.timeInfoMode);
    EXPECT_EQ(driver.asioTime.timeInfo.flags, 0xFu);
    EXPECT_EQ(driver.asioTime.timeCode.flags, 0x102u);

    EXPECT_EQ(driver.setSampleRate(44100), ASE_OK);
    EXPECT_TRUE(SeenRates::rates.empty()) << "the present rate is no change";
    EXPECT_EQ(driver.setSampleRate(48000.7), ASE_OK);
    EXPECT_EQ(SeenRates::rates, std::vector<double>{48000});
    EXPECT_EQ(driver.asioTime.timeInfo.flags, 0x1Fu);
    EXPECT_EQ(driver.asioTime.timeInfo.sampleRate, 48000.7);
    ASIOSampleRate rate = 0;
    driver.getSampleRate(&rate);
    EXPECT_EQ(rate, 48000);

    EXPECT_EQ(driver.setClockSource(1), ASE_NotPresent);
    EXPECT_EQ(driver.setClockSource(0), ASE_OK);
    EXPECT_EQ(driver.asioTime.timeInfo.flags, 0x3Fu);
    driver.disposeBuffers();
}

TEST_F(Channels, CreateBuffersRefusesChannelsItHasNot) {
    sinkOffers(pcmStereo, FormatID(), FormatID());
    driver.channelCount = 8;
    ASIOCallbacks callbacks{SeenRates::bufferSwitch, SeenRates::changed, SeenRates::message, nullptr};

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
    EXPECT_EQ(driver.activeChannels, 0);

    // DSD sizes count bits.
    setFormat(kASIODSDFormat);
    ASSERT_EQ(driver.createBuffers(records, 1, 2048, &callbacks), ASE_OK);
    EXPECT_EQ(driver.bufferBytes, 256);
}

TEST_F(Channels, StartRefusesWhatCantStreamAndStopAloneIsHarmless) {
    sinkOffers(pcmStereo, FormatID(), FormatID());
    LogCapture log;
    EXPECT_EQ(driver.stop(), ASE_OK);
    EXPECT_TRUE(log.has("stop"));
    EXPECT_FALSE(log.has("SyncBuffer::disconnect done")) << "no stream, no disconnect exchange";

    ASIOCallbacks callbacks{SeenRates::bufferSwitch, SeenRates::changed, SeenRates::message, nullptr};
    ASIOBufferInfo inputs[1] = {{ASIOTrue, 0, {}}};
    ASSERT_EQ(driver.createBuffers(inputs, 1, 64, &callbacks), ASE_OK);
    EXPECT_EQ(driver.start(), ASE_NotPresent);
    EXPECT_TRUE(log.has("ch error 0"));
    EXPECT_FALSE(driver.running);

    driver.channelCount = 4;
    ASIOBufferInfo three[3] = {{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}, {ASIOFalse, 2, {}}};
    ASSERT_EQ(driver.createBuffers(three, 3, 64, &callbacks), ASE_OK);
    EXPECT_EQ(driver.start(), ASE_NotPresent);
    EXPECT_TRUE(log.has("ch error 3"));

    ASIOBufferInfo two[2] = {{ASIOFalse, 0, {}}, {ASIOFalse, 1, {}}};
    ASSERT_EQ(driver.createBuffers(two, 2, 64, &callbacks), ASE_OK);
    driver.setSampleRate(1536001);  // DSD by its rate, and no word holds it
    EXPECT_EQ(driver.start(), ASE_NotPresent);
    EXPECT_TRUE(log.has("speed error 1536001"));
    driver.setSampleRate(96000);
    driver.formatMode = 0x400;  // not in the sink's mask
    EXPECT_EQ(driver.start(), ASE_NotPresent);
    EXPECT_TRUE(log.has("fmt error PCM"));
    EXPECT_FALSE(driver.running);
    driver.disposeBuffers();
}

}  // namespace
