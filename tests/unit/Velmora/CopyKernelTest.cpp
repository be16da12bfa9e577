#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "Format/CopyKernel.h"
#include "TestFormats.h"

using namespace VELMORA;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes run(CopyKernel kernel, const Bytes& source) {
    Bytes destination(source.size() + 1, 0xEE);  // a guard byte past the end
    kernel(destination.data(), source.data(), source.size());
    return destination;
}

}  // namespace

// Every kernel against the rule byte by byte, on both sides of the 8- and
// 64-byte steps; a partial group at the end and the byte past it stay unwritten.
TEST(CopyKernels, EveryLengthFollowsTheByteRule) {
    for (std::size_t length : {1u, 3u, 4u, 7u, 8u, 9u, 11u, 60u, 64u, 68u, 131u, 1440u}) {
        std::mt19937 random{std::uint32_t(length)};
        Bytes source(length);
        for (std::uint8_t& byte : source) byte = static_cast<std::uint8_t>(random());
        for (KernelForm form :
             {KernelForm::plain, KernelForm::swap, KernelForm::reverse, KernelForm::reverseSwap}) {
            bool swapped = form == KernelForm::swap || form == KernelForm::reverseSwap;
            bool reversed = form == KernelForm::reverse || form == KernelForm::reverseSwap;
            std::size_t whole = form == KernelForm::plain ? length : length / 4 * 4;
            for (bool invert : {false, true}) {
                Bytes out = run(kernelFor(form, invert), source);
                for (std::size_t i = 0; i <= length; ++i) {
                    std::uint8_t want = 0xEE;
                    if (i < whole) {
                        std::uint8_t in = source[swapped ? i / 4 * 4 + 3 - i % 4 : i];
                        want = (reversed ? reversedBits(in) : in) ^ (invert ? 0xFF : 0);
                    }
                    ASSERT_EQ(out[i], want) << int(form) << invert << " length " << length << " at " << i;
                }
            }
        }
    }
}
