// Sample conversion to what a device takes, and the ring between the sink
// and a device's thread.
#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "Sink/SampleConvert.h"
#include "Sink/SampleRing.h"

namespace {

using namespace VELMORA;

std::vector<std::uint8_t> le(std::uint32_t value, unsigned bytes) {
    std::vector<std::uint8_t> out(bytes);
    for (unsigned i = 0; i < bytes; ++i) out[i] = std::uint8_t(value >> (8 * i));
    return out;
}

std::vector<std::uint8_t> floatBytes(float value) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, 4);
    return le(bits, 4);
}

struct Conversion {
    SampleForm from;
    std::vector<std::uint8_t> in;
    SampleForm to;
    std::vector<std::uint8_t> out;
};

TEST(SampleConvert, SamplesKeepTheirValueAcrossForms) {
    const Conversion cases[] = {
        // Integers widen exactly and narrow by dropping low bytes.
        {SampleForm::s16, le(0x8001, 2), SampleForm::s32, le(0x80010000, 4)},
        {SampleForm::s24, le(0x7FFFFF, 3), SampleForm::s32, le(0x7FFFFF00, 4)},
        {SampleForm::s32, le(0x12345678, 4), SampleForm::s24, le(0x123456, 3)},
        {SampleForm::s32, le(0xFEDCBA98, 4), SampleForm::s16, le(0xFEDC, 2)},
        // Integers to float: 16 and 24 bits exactly, the extremes included.
        {SampleForm::s16, le(0x8000, 2), SampleForm::f32, floatBytes(-1.0f)},
        {SampleForm::s16, le(0x7FFF, 2), SampleForm::f32, floatBytes(32767.0f / 32768.0f)},
        {SampleForm::s24, le(0xFFFFFF, 3), SampleForm::f32, floatBytes(-1.0f / 8388608.0f)},
        // Float to integers, saturating at full scale.
        {SampleForm::f32, floatBytes(0.5f), SampleForm::s16, le(0x4000, 2)},
        {SampleForm::f32, floatBytes(-1.0f), SampleForm::s24, le(0x800000, 3)},
        {SampleForm::f32, floatBytes(1.0f), SampleForm::s16, le(0x7FFF, 2)},
        {SampleForm::f32, floatBytes(-3.0f), SampleForm::s32, le(0x80000000, 4)},
        // Float stays float bit for bit.
        {SampleForm::f32, floatBytes(0.1f), SampleForm::f32, floatBytes(0.1f)},
    };
    for (const Conversion& c : cases) {
        std::vector<std::uint8_t> out(c.out.size(), 0xEE);
        convertSample(c.in.data(), c.from, out.data(), c.to);
        EXPECT_EQ(out, c.out) << "from form " << int(c.from) << " to " << int(c.to);
    }
}

TEST(SampleConvert, FramesMapChannelsSilencingTheMissingOnes) {
    // Two frames of stereo 16-bit to four channels of 32 bits, and back to mono.
    const std::uint8_t stereo[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    std::vector<std::uint8_t> quad(32, 0xEE), mono(4);
    convertFrames(stereo, SampleForm::s16, 2, quad.data(), SampleForm::s32, 4, 2);
    EXPECT_EQ(quad, (std::vector<std::uint8_t>{0, 0, 0x01, 0x02, 0, 0, 0x03, 0x04, 0, 0, 0, 0, 0, 0, 0, 0,
                                               0, 0, 0x05, 0x06, 0, 0, 0x07, 0x08, 0, 0, 0, 0, 0, 0, 0, 0}));
    convertFrames(stereo, SampleForm::s16, 2, mono.data(), SampleForm::s16, 1, 2);
    EXPECT_EQ(mono, (std::vector<std::uint8_t>{0x01, 0x02, 0x05, 0x06}));
}

TEST(SampleConvert, FormsOfTheFormatWord) {
    const std::pair<std::uint32_t, SampleForm> forms[] = {
        {0x202u, SampleForm::s16},      {0x402u, SampleForm::s24},   {0x802u, SampleForm::s32},
        {0x2002u, SampleForm::f32},     {0x1002u, SampleForm::none},  // 64-bit integers
        {0x2510002u, SampleForm::none},                               // DSD
    };
    for (auto [low, form] : forms) EXPECT_EQ(sampleFormOf(FormatID(low, 0xCu)), form) << std::hex << low;
}

TEST(SampleRing, FramesWrapWholeAndAFullRingRefusesAllOfAWrite) {
    SampleRing ring;
    ring.reset(10, 4);  // room for two frames of 4 bytes
    EXPECT_EQ(ring.size(), 8u);
    const std::uint8_t a[] = {1, 2, 3, 4, 5, 6};
    const std::uint8_t b[] = {7, 8, 9, 10, 11, 12};
    ASSERT_TRUE(ring.write(a, 4));
    EXPECT_FALSE(ring.write(b, 6)) << "more than the room left";
    EXPECT_EQ(ring.readable(), 4u);
    ring.consume(4);
    ASSERT_TRUE(ring.write(b, 4));
    ASSERT_TRUE(ring.write(a, 4));  // past the end: a frame starts at the ring's start
    EXPECT_EQ(ring.readable(), 8u);
    EXPECT_EQ(ring.readAt(0)[0], 7);
    EXPECT_EQ(ring.readAt(4)[0], 1);
    EXPECT_EQ(ring.readAt(4)[3], 4);
    ring.clear();
    EXPECT_EQ(ring.readable(), 0u);
}

}  // namespace
