#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "Format/CopyKernel.h"

using namespace VELMORA;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes run(CopyKernel kernel, const Bytes& source) {
    Bytes destination(source.size(), 0xEE);
    kernel(destination.data(), source.data(), source.size());
    return destination;
}

Bytes randomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    return bytes;
}

// The byte with its bits in reverse order, bit by bit.
std::uint8_t reversedBits(std::uint8_t byte) {
    std::uint8_t out = 0;
    for (int bit = 0; bit < 8; ++bit) out |= std::uint8_t(((byte >> bit) & 1) << (7 - bit));
    return out;
}

}  // namespace

TEST(CopyKernels, OneGroupOfEachKernel) {
    const Bytes source{0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(run(copyPlain, source), (Bytes{0x01, 0x02, 0x03, 0x04}));
    EXPECT_EQ(run(copyInvert, source), (Bytes{0xFE, 0xFD, 0xFC, 0xFB}));
    EXPECT_EQ(run(copySwap, source), (Bytes{0x04, 0x03, 0x02, 0x01}));
    EXPECT_EQ(run(copySwapInvert, source), (Bytes{0xFB, 0xFC, 0xFD, 0xFE}));
    EXPECT_EQ(run(copyReverse, source), (Bytes{0x80, 0x40, 0xC0, 0x20}));
    EXPECT_EQ(run(copyReverseInvert, source), (Bytes{0x7F, 0xBF, 0x3F, 0xDF}));
    EXPECT_EQ(run(copyReverseSwap, source), (Bytes{0x20, 0xC0, 0x40, 0x80}));
    EXPECT_EQ(run(copyReverseSwapInvert, source), (Bytes{0xDF, 0x3F, 0xBF, 0x7F}));
}

// Every kernel against the rule byte by byte, at lengths on both sides of
// the 64-byte vector steps, so that the vector path and the tail both count;
// a partial group at the end stays unwritten.
TEST(CopyKernels, EveryLengthFollowsTheByteRule) {
    for (std::size_t length : {3u, 4u, 11u, 60u, 64u, 68u, 131u, 1440u}) {
        const Bytes source = randomBytes(length, std::uint32_t(length));
        for (KernelForm form :
             {KernelForm::plain, KernelForm::swap, KernelForm::reverse, KernelForm::reverseSwap}) {
            bool swapped = form == KernelForm::swap || form == KernelForm::reverseSwap;
            bool reversed = form == KernelForm::reverse || form == KernelForm::reverseSwap;
            std::size_t whole = form == KernelForm::plain ? length : length / 4 * 4;
            for (bool invert : {false, true}) {
                Bytes out = run(kernelFor(form, invert), source);
                for (std::size_t i = 0; i < length; ++i) {
                    std::uint8_t in = source[swapped ? i / 4 * 4 + 3 - i % 4 : i];
                    std::uint8_t want =
                        i >= whole ? 0xEE : (reversed ? reversedBits(in) : in) ^ (invert ? 0xFF : 0);
                    ASSERT_EQ(out[i], want) << int(form) << invert << " length " << length << " at " << i;
                }
            }
        }
    }
}

TEST(CopyKernels, TheInvertingCopyTakesAnyLengthAndTouchesNothingElse) {
    // Lengths around its eight-byte steps.
    for (std::size_t length = 1; length <= 20; ++length) {
        const Bytes source = randomBytes(length, static_cast<std::uint32_t>(length));
        Bytes destination(length + 2, 0xEE);
        copyInvert(destination.data() + 1, source.data(), length);
        EXPECT_EQ(destination.front(), 0xEE);
        EXPECT_EQ(destination.back(), 0xEE);
        for (std::size_t i = 0; i < length; ++i)
            ASSERT_EQ(destination[i + 1], static_cast<std::uint8_t>(~source[i])) << length;
    }
}
