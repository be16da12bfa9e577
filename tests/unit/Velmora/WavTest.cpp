#include "Sink/WavWriter.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "ScratchFile.h"

namespace {

TEST(Wav, AnOddDataChunkIsPaddedAndItsSizeKept) {
    ScratchFile file("velmora-odd", ".wav");
    VELMORA::WavWriter wav;
    ASSERT_TRUE(wav.open(file.path, 8000, 1, 8));
    const std::uint8_t bytes[3] = {1, 2, 3};
    ASSERT_TRUE(wav.write(bytes, 3));
    ASSERT_TRUE(wav.close());
    EXPECT_FALSE(wav.write(bytes, 3)) << "closed";
    std::ifstream in(file.path, std::ios::binary);
    std::vector<std::uint8_t> written((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_EQ(written.size(), 48u);
    EXPECT_EQ(written[4], 40);  // the RIFF size counts the pad byte
    EXPECT_EQ(written[40], 3);  // the data size doesn't
    EXPECT_EQ(written[47], 0);
}

}  // namespace
