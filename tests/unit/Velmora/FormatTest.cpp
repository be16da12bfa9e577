#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Format/FormatID.h"
#include "Format/FormatNegotiation.h"
#include "LogCapture.h"

using VELMORA::chooseFormat;
using VELMORA::FormatChoice;
using VELMORA::FormatID;
using VELMORA::FormatNegotiation;
using VELMORA::isValidStream;
using VELMORA::KernelForm;
using VELMORA::SinkFormats;

namespace {

constexpr std::uint32_t stereo = 0x02;
constexpr std::uint32_t rate44100 = 0x000A;  // 44100 x 1
constexpr std::uint32_t rateDsd64 = 0x0202;  // 44100 x 64
constexpr std::uint32_t lsbLittle = 0x2510000;
constexpr std::uint32_t lsbBig = 0x2910000;
constexpr std::uint32_t msbLittle = 0x2610000;
constexpr std::uint32_t msbBig = 0x2A10000;

FormatID dsd(std::uint32_t form, std::uint32_t high = rateDsd64) {
    return FormatID(form | stereo, high);
}

}  // namespace

TEST(FormatWord, SizesAndRates) {
    FormatID pcm(0x0000000A00000802ull);
    EXPECT_EQ(pcm.frameBytes(), 8u);
    EXPECT_EQ(pcm.byteRate(), 352800u);
    EXPECT_EQ(pcm.muteByte(), 0u);

    FormatID dsd64 = dsd(lsbLittle);
    EXPECT_EQ(dsd64.rate(), 2822400u);
    EXPECT_EQ(dsd64.frameBytes(), 8u);
    EXPECT_EQ(dsd64.byteRate(), 705600u);
    EXPECT_EQ(dsd64.muteByte(), 0x69u);
    EXPECT_EQ(dsd(msbBig).muteByte(), 0x96u);

    EXPECT_EQ(FormatID(0x0510002u, rateDsd64).bytesPerSample(), 2u);  // 16-bit DSD words
    EXPECT_EQ(FormatID(0x0402u, rate44100).frameBytes(), 6u);
    EXPECT_EQ(FormatID(0x0C02u, rate44100).bitsPerSample(), 16u);  // no single form
    EXPECT_EQ(FormatID(0x0843u, rate44100).channelCount(), 2u);    // no single channel bit
    EXPECT_EQ(FormatID(0x0808u, rate44100).channelCount(), 6u);
}

TEST(FormatWord, RateNeedsOneBaseAndOneMultiplier) {
    EXPECT_EQ(FormatID(0u, 0x4u | (1u << 8)).rate(), 1536000u);  // 48000 x 32
    EXPECT_EQ(FormatID(0u, 0x0008u).rate(), 0u);                 // no base
    EXPECT_EQ(FormatID(0u, 0x0006u | 0x8u).rate(), 0u);          // two bases
    EXPECT_EQ(FormatID(0u, 0x0002u | 0x18u).rate(), 0u);         // two multipliers
    EXPECT_EQ(FormatID(0x802u, 0x0001u).byteRate(), 0u);         // 8000 as setRate writes it
    // 64-bit, 16 channels, 48000 x 4096 needs more than 32 bits.
    EXPECT_EQ(FormatID(0x4020u, 0x4u | 0x8000u).byteRate(), 0u);
}

TEST(FormatWord, SetRateTakesOnlyExpressibleRates) {
    for (std::uint32_t exponent = 0; exponent <= 12; ++exponent) {
        for (std::uint32_t base : {44100u, 48000u}) {
            FormatID word(0x802u, 0xABCD0000u);
            ASSERT_TRUE(word.setRate(base << exponent)) << (base << exponent);
            EXPECT_EQ(word.rate(), base << exponent);
            EXPECT_EQ(word.low(), 0x802u);
            EXPECT_EQ(word.high() >> 16, 0xABCDu);
        }
    }
    FormatID word(0x802u, 0x000Au);
    ASSERT_TRUE(word.setRate(8000));
    EXPECT_EQ(word.high(), 0x0001u);

    for (std::uint32_t refused : {0u, 96001u, 32000u, 44100u << 13, 48000u << 13, 88200u + 1}) {
        FormatID unchanged(0x802u, 0x000Au);
        EXPECT_FALSE(unchanged.setRate(refused)) << refused;
        EXPECT_EQ(unchanged, FormatID(0x802u, 0x000Au));
    }
}

TEST(FormatWord, ReplaceWritesWholeFields) {
    FormatID word(0x2510002u, 0x12340202u);
    word.replace(0x08, 0);
    EXPECT_EQ(word, FormatID(0x2510008u, 0x12340202u));
    word.replace(0x2A10000u, 0);
    EXPECT_EQ(word, FormatID(0x2A10008u, 0x12340202u));
    word.replace(0, 0x000Au);
    EXPECT_EQ(word, FormatID(0x2A10008u, 0x1234000Au));
    word.replace(0x801u, 0x56780000u);  // the high word's upper half is never written
    EXPECT_EQ(word, FormatID(0x801u, 0x1234000Au));
}

TEST(FormatMask, GreatestAndLeastQueries) {
    EXPECT_EQ(FormatID(0x4100u).greatestBits(), 64u);
    EXPECT_EQ(FormatID(0x2300u).greatestBits(), 32u);
    EXPECT_EQ(FormatID(0x30000u).greatestBits(), 4u);
    EXPECT_EQ(FormatID(0x0u).greatestBits(), 0u);
    EXPECT_EQ(FormatID(0x0Bu).greatestChannels(), 6u);
    EXPECT_EQ(FormatID(0x00u).greatestChannels(), 0u);

    EXPECT_EQ(FormatID(0u, 0x0006u | 0x8070u).leastMultiplier(), 2u);
    EXPECT_EQ(FormatID(0u, 0x0006u | 0x8000u).leastMultiplier(), 4096u);
    EXPECT_EQ(FormatID(0u, 0x0006u).leastMultiplier(), 0u);
}

TEST(FormatValidity, StreamWordsThatCanGoOnTheWire) {
    EXPECT_TRUE(isValidStream(FormatID(0x0000000A00000802ull)));
    EXPECT_TRUE(isValidStream(dsd(lsbLittle)));
    EXPECT_TRUE(isValidStream(dsd(msbBig, 0x0004u | (1u << 9))));  // 48000 x 64

    EXPECT_FALSE(isValidStream(dsd(lsbLittle, rate44100)));  // DSD below 2,822,400 Hz
    EXPECT_FALSE(isValidStream(FormatID(0x803u, rate44100)));
    EXPECT_FALSE(isValidStream(FormatID(0xC02u, rate44100)));
    EXPECT_FALSE(isValidStream(FormatID(0x8002u, rate44100)));    // no such PCM form
    EXPECT_FALSE(isValidStream(FormatID(0x100802u, rate44100)));  // PCM with a DSD bit
    EXPECT_FALSE(isValidStream(dsd(0x2710000u)));                 // both bit orders
    EXPECT_FALSE(isValidStream(dsd(0x2110000u)));                 // no word order
    EXPECT_FALSE(isValidStream(dsd(0x0510000u)));                 // 16-bit words
    EXPECT_FALSE(isValidStream(dsd(0x2530000u)));                 // two DSD forms
}

TEST(SinkFormats, EachKindIsTestedAgainstItsOwnMask) {
    SinkFormats sink{FormatID(0x0E02u, 0x0006u | 0x18u), FormatID(lsbLittle | stereo, rateDsd64), {}};
    EXPECT_TRUE(sink.isSupported(FormatID(0x802u, 0x0014u)));
    EXPECT_FALSE(sink.isSupported(FormatID(0x804u, 0x000Au)));  // four channels
    EXPECT_FALSE(sink.isSupported(FormatID(0x802u, 0x0022u)));  // x4
    EXPECT_TRUE(sink.isSupported(dsd(lsbLittle)));
    EXPECT_FALSE(sink.isSupported(dsd(msbLittle)));
    // No bit order: either DSD mask will do.
    EXPECT_TRUE(sink.isSupported(dsd(0x2410000u)));
    EXPECT_FALSE(sink.isSupported(FormatID(0x02u, rate44100)));
}

TEST(SinkFormats, FrameMeasuresOverTheMasks) {
    SinkFormats none;
    {
        LogCapture log;
        EXPECT_EQ(none.unitLeast(), 0xFFFFFFFFu);
        EXPECT_EQ(none.unitGreatest(), 0u);
        EXPECT_TRUE(log.lines().empty());
    }
    // PCM up to 24-bit stereo at x2 and x4; DSD up to eight channels at x64.
    SinkFormats sink{FormatID(0x0702u, 0x0006u | 0x30u), FormatID(lsbLittle | 0x10u, 0x0202u),
                     FormatID(msbBig | 0x01u, 0x0202u)};
    {
        LogCapture log;
        EXPECT_EQ(sink.unitLeast(), 8u);
        EXPECT_EQ(log.lines(), (std::vector<std::string>{
                                   "sinkSupportPCM=" + std::to_string(sink.pcm.value) + " si=12",
                                   "sinkSupportDSDlsb=" + std::to_string(sink.dsdLsb.value) + " si=64",
                                   "sinkSupportDSDmsb=" + std::to_string(sink.dsdMsb.value) + " si=8",
                               }));
    }
    EXPECT_EQ(sink.unitGreatest(), 6u);  // PCM 24 x 2 / 8 over DSD 1 x 8 / 8

    // A measure of 0 is no least unit.
    SinkFormats dsdOnly{{}, FormatID(lsbLittle | stereo, 0x0202u), {}};
    EXPECT_EQ(dsdOnly.unitGreatest(), 0u);
    EXPECT_EQ(dsdOnly.unitLeast(), 16u);
}

TEST(FormatChoice, SupportedWordGoesUnchanged) {
    SinkFormats sink{FormatID(0x0802u, 0x000Au), {}, {}};
    FormatChoice choice = chooseFormat(FormatID(0x802u, rate44100), sink);
    EXPECT_TRUE(choice.accepted);
    EXPECT_EQ(choice.streamFormat, FormatID(0x802u, rate44100));
    EXPECT_EQ(choice.form, KernelForm::plain);
    EXPECT_EQ(choice.conversion, nullptr);

    EXPECT_FALSE(chooseFormat(FormatID(0x402u, rate44100), sink).accepted);
    EXPECT_EQ(chooseFormat(FormatID(0x402u, rate44100), sink).conversion, nullptr);
}

// Each row: a sink that takes only the target word in one mask, and a
// source in another order.
TEST(FormatChoice, DsdConversionTable) {
    struct Row {
        std::uint32_t source;
        bool sinkLsb;
        std::uint32_t target;
        const char* text;
        KernelForm form;
    } rows[] = {
        {lsbLittle, true, lsbBig, "DSD COVERT LSB little -> LSB Big", KernelForm::swap},
        {lsbBig, true, lsbLittle, "DSD COVERT LSB Big -> LSB little", KernelForm::swap},
        {lsbLittle, false, msbBig, "DSD COVERT LSB little -> MSB Big", KernelForm::reverse},
        {lsbLittle, false, msbLittle, "DSD COVERT LSB little -> MSB little", KernelForm::reverseSwap},
        {lsbBig, false, msbLittle, "DSD COVERT LSB Big -> MSB little", KernelForm::reverse},
        {lsbBig, false, msbBig, "DSD COVERT LSB Big -> MSB Big", KernelForm::reverseSwap},
        {msbLittle, false, msbBig, "DSD COVERT MSB littele -> MSB Big", KernelForm::swap},
        {msbBig, false, msbLittle, "DSD COVERT MSB Big -> MSB littele", KernelForm::swap},
        {msbLittle, true, lsbBig, "DSD COVERT MSB littele -> LSB Big", KernelForm::reverse},
        {msbLittle, true, lsbLittle, "DSD COVERT MSB littele -> LSB littele", KernelForm::reverseSwap},
        {msbBig, true, lsbLittle, "DSD COVERT MSB Big -> LSB littele", KernelForm::reverse},
        {msbBig, true, lsbBig, "DSD COVERT MSB Big -> LSB Big", KernelForm::reverseSwap},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        SinkFormats sink;
        (row.sinkLsb ? sink.dsdLsb : sink.dsdMsb) = FormatID(row.target | stereo, rateDsd64);
        FormatChoice choice = chooseFormat(dsd(row.source), sink);
        ASSERT_TRUE(choice.accepted);
        EXPECT_EQ(choice.streamFormat, dsd(row.target));
        EXPECT_EQ(choice.form, row.form);
        EXPECT_STREQ(choice.conversion, row.text);
    }
}

TEST(FormatChoice, OwnBitOrderIsPreferredIfItHas32BitWords) {
    SinkFormats both{{}, FormatID(lsbBig | stereo, rateDsd64), FormatID(msbBig | stereo, rateDsd64)};
    EXPECT_EQ(chooseFormat(dsd(lsbLittle), both).form, KernelForm::swap);

    // The LSB mask has only 16-bit words: the MSB one is used.
    SinkFormats wordless{{}, FormatID(0x0910000u | stereo, rateDsd64), FormatID(msbBig | stereo, rateDsd64)};
    FormatChoice choice = chooseFormat(dsd(lsbLittle), wordless);
    EXPECT_TRUE(choice.accepted);
    EXPECT_EQ(choice.streamFormat, dsd(msbBig));
    EXPECT_EQ(choice.form, KernelForm::reverse);
}

TEST(FormatChoice, RefusedConversions) {
    SinkFormats lsbBigOnly{{}, FormatID(lsbBig | stereo, rateDsd64), {}};
    // The converted word must itself be taken: here the rate isn't.
    FormatChoice wrongRate = chooseFormat(dsd(lsbLittle, 0x0402u), lsbBigOnly);
    EXPECT_FALSE(wrongRate.accepted);
    EXPECT_STREQ(wrongRate.conversion, "DSD COVERT LSB little -> LSB Big");

    // 16-bit source words, or a sink without 32-bit words, can't be reordered.
    EXPECT_FALSE(chooseFormat(dsd(0x0510000u), lsbBigOnly).accepted);
    SinkFormats noWords{
        {}, FormatID(0x0910000u | stereo, rateDsd64), FormatID(0x0A10000u | stereo, rateDsd64)};
    EXPECT_FALSE(chooseFormat(dsd(lsbLittle), noWords).accepted);
    EXPECT_EQ(chooseFormat(dsd(lsbLittle), noWords).conversion, nullptr);

    // Four-bit DSD needs a sink that has one-bit DSD.
    SinkFormats fourBitOnly{{}, FormatID(0x2920000u | stereo, rateDsd64), {}};
    EXPECT_FALSE(chooseFormat(dsd(0x2520000u), fourBitOnly).accepted);
}

TEST(FormatNegotiation, ConversionLogsAndChoosesTheKernel) {
    FormatNegotiation format;
    format.sink.dsdLsb = FormatID(lsbBig | stereo, rateDsd64);
    LogCapture log;
    ASSERT_TRUE(format.setFormat(dsd(lsbLittle)));
    EXPECT_TRUE(log.has("DSD COVERT LSB little -> LSB Big"));
    EXPECT_EQ(format.sourceFormat, dsd(lsbLittle));
    EXPECT_EQ(format.streamFormat, dsd(lsbBig));
    EXPECT_EQ(format.copyKernel, &VELMORA::copySwap);

    // A refusal changes nothing.
    EXPECT_FALSE(format.setFormat(FormatID(0x802u, rate44100)));
    EXPECT_EQ(format.sourceFormat, dsd(lsbLittle));
    EXPECT_EQ(format.streamFormat, dsd(lsbBig));
    EXPECT_EQ(format.copyKernel, &VELMORA::copySwap);
}

TEST(FormatNegotiation, PhaseIsHostAndSinkCombined) {
    FormatNegotiation format;
    format.sink.dsdMsb = FormatID(msbBig | stereo, rateDsd64);
    ASSERT_TRUE(format.setFormat(dsd(lsbLittle)));
    ASSERT_EQ(format.copyKernel, &VELMORA::copyReverse);

    format.hostInvert = true;
    {
        LogCapture log;
        format.applyPhase(true);
        EXPECT_EQ(log.lines(), (std::vector<std::string>{"Host Phase Invert", "Play Phase Normal"}));
    }
    EXPECT_FALSE(format.playInvert);
    EXPECT_EQ(format.copyKernel, &VELMORA::copyReverse);

    format.applyPhase(false);
    EXPECT_TRUE(format.playInvert);
    EXPECT_EQ(format.copyKernel, &VELMORA::copyReverseInvert);
    EXPECT_EQ(format.silenceByte(), 0x69u);  // MSB-first silence 0x96, inverted

    format.hostInvert = false;
    format.applyPhase(false);
    EXPECT_EQ(format.copyKernel, &VELMORA::copyReverse);
    EXPECT_EQ(format.silenceByte(), 0x96u);

    // Without a conversion the plain copy has its inverted partner too.
    format.sink.dsdLsb = FormatID(lsbLittle | stereo, rateDsd64);
    ASSERT_TRUE(format.setFormat(dsd(lsbLittle)));
    format.applyPhase(true);
    EXPECT_EQ(format.copyKernel, &VELMORA::copyInvert);
    EXPECT_EQ(format.silenceByte(), 0x96u);  // LSB-first silence 0x69, inverted
}
