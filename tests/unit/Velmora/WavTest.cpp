#include "Sink/WavWriter.h"

#include <gtest/gtest.h>

#include <vector>

#include "TempFolder.h"

namespace {

TEST(Wav, AnOddDataChunkIsPaddedAndItsSizeKept) {
    TempFolder folder;
    VELMORA::WavWriter wav;
    ASSERT_TRUE(wav.open(folder.file("odd.wav"), 8000, 1, 8));
    const std::uint8_t bytes[3] = {1, 2, 3};
    ASSERT_TRUE(wav.write(bytes, 3));
    ASSERT_TRUE(wav.close());
    EXPECT_FALSE(wav.write(bytes, 3)) << "closed";
    const auto written = folder.read<std::vector<std::uint8_t>>("odd.wav");
    ASSERT_EQ(written.size(), 48u);
    EXPECT_EQ(written[4], 40);  // the RIFF size counts the pad byte
    EXPECT_EQ(written[40], 3);  // the data size doesn't
    EXPECT_EQ(written[47], 0);
}

}  // namespace
