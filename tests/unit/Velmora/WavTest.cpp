#include "Sink/WavWriter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

using VELMORA::WavWriter;

TEST(Wav, AnOddDataChunkIsPaddedAndItsSizeKept) {
    std::string path = ::testing::TempDir() + "velmora-odd.wav";
    WavWriter wav;
    ASSERT_TRUE(wav.open(path, 8000, 1, 8));
    const std::uint8_t bytes[3] = {1, 2, 3};
    ASSERT_TRUE(wav.write(bytes, 3));
    ASSERT_TRUE(wav.close());
    EXPECT_FALSE(wav.write(bytes, 3)) << "closed";

    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(file.size(), 48u);
    EXPECT_EQ(file[4], 40);  // RIFF size counts the pad byte
    EXPECT_EQ(file[40], 3);  // data size doesn't
    EXPECT_EQ(file[47], 0);
    std::remove(path.c_str());
    EXPECT_FALSE(wav.open(::testing::TempDir() + "no-such-dir/x.wav", 8000, 1, 8));
}

}  // namespace
