// The sink's files through libsndfile, read back through libsndfile: what
// the header says the samples are, and the samples themselves.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "Platform/linux/SndfileWriter.h"
#include "TempFolder.h"

namespace {

using namespace VELMORA;

struct Case {
    const char* name;
    const char* suffix;
    std::uint32_t low;  // the stream's sample bit and two channels
    int major;          // the file it must be
    int subtype;
};

TEST(SndfileWriter, FilesSayWhatTheyHoldAndHoldItExactly) {
    const Case cases[] = {
        // Below 4 GB an RF64 file stays RIFF (the extensible header's form).
        {"16-bit WAV", ".wav", 0x202, SF_FORMAT_WAVEX, SF_FORMAT_PCM_16},
        {"24-bit WAV", ".wav", 0x402, SF_FORMAT_WAVEX, SF_FORMAT_PCM_24},
        {"float WAV", ".wav", 0x2002, SF_FORMAT_WAVEX, SF_FORMAT_FLOAT},
        {"16-bit FLAC", ".flac", 0x202, SF_FORMAT_FLAC, SF_FORMAT_PCM_16},
        {"24-bit FLAC", ".flac", 0x402, SF_FORMAT_FLAC, SF_FORMAT_PCM_24},
    };
    TempFolder folder;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string file = folder.file(std::string("out") + c.suffix);
        FormatID format(c.low, 0xCu);  // 48 kHz
        unsigned step = format.bytesPerSample();
        std::vector<std::uint8_t> bytes(480 * 2 * step);
        for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = std::uint8_t(i * 37 + 11);
        if (c.low == 0x2002) {  // floats within full scale
            for (std::size_t i = 0; i < bytes.size() / 4; ++i) {
                float value = float(i % 97) / 97.0f - 0.5f;
                std::memcpy(&bytes[i * 4], &value, 4);
            }
        }
        SndfileWriter writer;
        std::string error;
        ASSERT_TRUE(writer.open(file, format, error)) << error;
        ASSERT_TRUE(writer.write(bytes.data(), bytes.size() / 2) &&
                    writer.write(bytes.data() + bytes.size() / 2, bytes.size() / 2) && writer.close());

        SF_INFO info{};
        SNDFILE* in = sf_open(file.c_str(), SFM_READ, &info);
        ASSERT_NE(in, nullptr);
        // Type, sample form, channels, rate and frames.
        ASSERT_EQ(std::tuple(info.format & SF_FORMAT_TYPEMASK, info.format & SF_FORMAT_SUBMASK, info.channels,
                             info.samplerate, info.frames),
                  std::tuple(c.major, c.subtype, 2, 48000, sf_count_t(480)));
        // Read back as left-aligned 32-bit integers, or as floats.
        std::size_t wrong = 0;
        if (c.subtype == SF_FORMAT_FLOAT) {
            std::vector<float> back(960);
            sf_read_float(in, back.data(), 960);
            wrong = std::memcmp(back.data(), bytes.data(), bytes.size()) != 0;
        } else {
            std::vector<int> back(960);
            sf_read_int(in, back.data(), 960);
            for (std::size_t i = 0; i < 960; ++i) {
                std::uint8_t wanted[4];
                convertSample(&bytes[i * step], sampleFormOf(format), wanted, SampleForm::s32);
                wrong += std::memcmp(&back[i], wanted, 4) != 0;
            }
        }
        EXPECT_EQ(wrong, 0u) << "samples that differ";
        sf_close(in);
    }
}

TEST(SndfileWriter, FlacRefusesWhatItCantHold) {
    TempFolder folder;
    for (std::uint32_t low : {0x802u, 0x2002u}) {
        SndfileWriter writer;
        std::string error;
        EXPECT_FALSE(writer.open(folder.file("out.flac"), FormatID(low, 0xCu), error));
        EXPECT_NE(error.find("FLAC holds 16 or 24 bits"), std::string::npos) << error;
    }
}

}  // namespace
