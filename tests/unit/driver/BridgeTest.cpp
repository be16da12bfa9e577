// The interleaving of the host's channel buffers into a ring slot, one form
// per row of the conversion table.
#include "AudioBridge.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

// Interleaves two channels of `frames` samples.
std::vector<std::uint8_t> interleaved(BridgeForm form, const std::vector<std::uint8_t>& left,
                                      const std::vector<std::uint8_t>& right, std::uint32_t frames) {
    std::vector<std::uint8_t> slot(2 * frames * slotSampleBytes(form), 0xEE);
    const std::uint8_t* halves[2] = {left.data(), right.data()};
    interleave(form, halves, 2, frames, slot.data());
    return slot;
}

std::vector<std::uint8_t> samples32(std::initializer_list<std::uint32_t> values) {
    std::vector<std::uint8_t> bytes(values.size() * 4);
    std::memcpy(bytes.data(), std::data(values), bytes.size());
    return bytes;
}

TEST(Bridge, ChannelsAlternateAndSamplesAreCutOrPadded) {
    std::vector<std::uint8_t> left = {1, 2, 3, 4, 5, 6}, right = {7, 8, 9, 10, 11, 12};
    EXPECT_EQ(interleaved(BridgeForm::copy3, left, right, 2),
              std::vector<std::uint8_t>({1, 2, 3, 7, 8, 9, 4, 5, 6, 10, 11, 12}));
    EXPECT_EQ(interleaved(BridgeForm::copy1, left, right, 3), std::vector<std::uint8_t>({1, 7, 2, 8, 3, 9}));

    left = samples32({0x12345678, 0x8000FFFF}), right = samples32({0xFFFFFFFF, 0x00000180});
    EXPECT_EQ(interleaved(BridgeForm::cut32to16, left, right, 2),
              std::vector<std::uint8_t>({0x34, 0x12, 0xFF, 0xFF, 0x00, 0x80, 0x00, 0x00}));
    EXPECT_EQ(interleaved(BridgeForm::cut32to24, left, right, 1),
              std::vector<std::uint8_t>({0x56, 0x34, 0x12, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(
        interleaved(BridgeForm::pad32to64, left, right, 1),
        std::vector<std::uint8_t>({0, 0, 0, 0, 0x78, 0x56, 0x34, 0x12, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
}

}  // namespace
