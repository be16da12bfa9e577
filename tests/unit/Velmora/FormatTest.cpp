#include <gtest/gtest.h>

#include <cstdint>

#include "Format/FormatID.h"
#include "Format/FormatNegotiation.h"
#include "LogCapture.h"

using namespace VELMORA;

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
    EXPECT_EQ(dsd(lsbLittle).rate(), 2822400u);
    EXPECT_EQ(dsd(lsbLittle).byteRate(), 705600u);
    EXPECT_EQ(dsd(lsbLittle).muteByte(), 0x69u);
    EXPECT_EQ(dsd(msbBig).muteByte(), 0x96u);
    EXPECT_EQ(FormatID(0x0808u, rate44100).channelCount(), 6u);

    // A rate needs one base and one multiplier.
    EXPECT_EQ(FormatID(0u, 0x4u | (1u << 8)).rate(), 1536000u);  // 48000 x 32
    EXPECT_EQ(FormatID(0u, 0x0008u).rate(), 0u);
    EXPECT_EQ(FormatID(0u, 0x0006u | 0x8u).rate(), 0u);
    // 64-bit, 16 channels, 48000 x 4096 needs more than 32 bits.
    EXPECT_EQ(FormatID(0x4020u, 0x4u | 0x8000u).byteRate(), 0u);

    // Masks answer greatest and least queries.
    EXPECT_EQ(FormatID(0x4100u).greatestBits(), 64u);
    EXPECT_EQ(FormatID(0x30000u).greatestBits(), 4u);
    EXPECT_EQ(FormatID(0x0Bu).greatestChannels(), 6u);
    EXPECT_EQ(FormatID(0u, 0x0006u | 0x8070u).leastMultiplier(), 2u);
    EXPECT_EQ(FormatID(0u, 0x0006u | 0x8000u).leastMultiplier(), 4096u);
    EXPECT_EQ(FormatID(0u, 0x0006u).leastMultiplier(), 0u);
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
    for (std::uint32_t refused : {0u, 96001u, 32000u, 44100u << 13, 48000u << 13}) {
        FormatID unchanged(0x802u, 0x000Au);
        EXPECT_FALSE(unchanged.setRate(refused)) << refused;
        EXPECT_EQ(unchanged, FormatID(0x802u, 0x000Au));
    }
}

TEST(FormatValidity, StreamWordsThatCanGoOnTheWire) {
    const struct {
        FormatID word;
        bool valid;
    } rows[] = {{FormatID(0x802u, rate44100), true},
                {FormatID(0x820u, rate44100), true},  // 32 channels, the most
                {FormatID(0x840u, rate44100), false},
                {dsd(lsbLittle), true},  // DSD64, the least DSD rate
                {dsd(msbBig, 0x0004u | (1u << 9)), true},
                {dsd(lsbLittle, rate44100), false},
                {FormatID(0x803u, rate44100), false},
                {FormatID(0xC02u, rate44100), false},
                {FormatID(0x8002u, rate44100), false},    // no such PCM form
                {FormatID(0x100802u, rate44100), false},  // PCM with a DSD bit
                {dsd(0x2710000u), false},                 // both bit orders
                {dsd(0x2110000u), false},                 // no word order
                {dsd(0x0510000u), false},                 // 16-bit words
                {dsd(0x2530000u), false}};
    for (const auto& row : rows) EXPECT_EQ(isValidStream(row.word), row.valid) << std::hex << row.word.value;
}

// Each row: a sink that takes only the target word in one mask, and a source in another order.
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
        {msbLittle, false, msbBig, "DSD COVERT MSB littele -> MSB Big", KernelForm::swap},
        {msbLittle, true, lsbBig, "DSD COVERT MSB littele -> LSB Big", KernelForm::reverse},
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

TEST(FormatChoice, RefusedConversions) {
    SinkFormats lsbBigOnly{{}, FormatID(lsbBig | stereo, rateDsd64), {}};
    EXPECT_FALSE(chooseFormat(dsd(lsbLittle, 0x0402u), lsbBigOnly).accepted) << "converted rate not taken";
    EXPECT_FALSE(chooseFormat(dsd(0x0510000u), lsbBigOnly).accepted) << "16-bit source words";
    SinkFormats noWords{
        {}, FormatID(0x0910000u | stereo, rateDsd64), FormatID(0x0A10000u | stereo, rateDsd64)};
    EXPECT_FALSE(chooseFormat(dsd(lsbLittle), noWords).accepted);
    SinkFormats fourBitOnly{{}, FormatID(0x2920000u | stereo, rateDsd64), {}};
    EXPECT_FALSE(chooseFormat(dsd(0x2520000u), fourBitOnly).accepted) << "four-bit DSD needs one-bit";
    SinkFormats pcm{FormatID(0x0802u, 0x000Au), {}, {}};
    EXPECT_EQ(chooseFormat(FormatID(0x802u, rate44100), pcm).form, KernelForm::plain);
    EXPECT_FALSE(chooseFormat(FormatID(0x402u, rate44100), pcm).accepted);
}

TEST(FormatNegotiation, PhaseIsHostAndSinkCombined) {
    FormatNegotiation format;
    format.sink.dsdMsb = FormatID(msbBig | stereo, rateDsd64);
    LogCapture log;
    ASSERT_TRUE(format.setFormat(dsd(lsbLittle)));
    EXPECT_TRUE(log.has("DSD COVERT LSB little -> MSB Big"));
    EXPECT_FALSE(format.setFormat(FormatID(0x802u, rate44100)));
    EXPECT_EQ(format.streamFormat, dsd(msbBig)) << "a refusal changes nothing";
    format.hostInvert = true;
    format.applyPhase(true);
    EXPECT_FALSE(format.playInvert);
    EXPECT_EQ(format.copyKernel, &copyReverse);
    format.applyPhase(false);
    EXPECT_TRUE(format.playInvert);
    EXPECT_EQ(format.copyKernel, &copyReverseInvert);
    EXPECT_EQ(format.silenceByte(), 0x69u);  // MSB-first silence 0x96, inverted

    // Without a conversion the plain copy has its inverted partner too.
    format.hostInvert = false;
    format.sink.dsdLsb = FormatID(lsbLittle | stereo, rateDsd64);
    ASSERT_TRUE(format.setFormat(dsd(lsbLittle)));
    format.applyPhase(true);
    EXPECT_EQ(format.copyKernel, &copyInvert);
    EXPECT_EQ(format.silenceByte(), 0x96u);  // LSB-first silence 0x69, inverted
}
