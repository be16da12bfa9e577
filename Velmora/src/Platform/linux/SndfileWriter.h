// A sink's audio file through libsndfile: WAV that turns into RF64 past
// 4 GB, floats labelled as float, and FLAC (16 or 24 bits) when the name
// ends in ".flac". DSD has no place in these: it goes to a WAV file of our
// own, as before.
#pragma once

#include <sndfile.h>

#include <vector>

#include "Sink/SampleConvert.h"
#include "Sink/WavWriter.h"

namespace VELMORA {

class SndfileWriter : public AudioFileWriter {
  public:
    SndfileWriter() = default;
    ~SndfileWriter() override { close(); }
    SndfileWriter(const SndfileWriter&) = delete;
    SndfileWriter& operator=(const SndfileWriter&) = delete;

    bool open(const std::string& path, FormatID format, std::string& error) override;
    bool isOpen() const override { return file != nullptr || dsd.isOpen(); }
    bool write(const std::uint8_t* bytes, std::size_t size) override;
    bool close() override;

  private:
    SNDFILE* file = nullptr;
    bool flac = false;
    SampleForm form = SampleForm::none;
    unsigned channels = 0;
    std::vector<int> samples;  // FLAC's input, left-aligned 32-bit
    WavWriter dsd;
};

}  // namespace VELMORA
