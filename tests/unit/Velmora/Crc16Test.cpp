#include "Protocol/Crc16.h"

#include <gtest/gtest.h>

namespace {

TEST(Crc16, CheckValueAndPieces) {
    const char* text = "123456789";
    EXPECT_EQ(VELMORA::crc16(text, 9), 0xB4C8);
    EXPECT_EQ(VELMORA::crc16(text, 0), 0x0000) << "nothing: 0xFFFF inverted";
    EXPECT_EQ(VELMORA::crc16(text + 4, 5, VELMORA::crc16(text, 4)), 0xB4C8) << "pieces chain to the whole";
    const std::uint8_t zero = 0;
    EXPECT_NE(VELMORA::crc16(&zero, 1), VELMORA::crc16(text, 0)) << "a zero byte still counts";
}

}  // namespace
