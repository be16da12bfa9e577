// A sink's audio file, written as the stream comes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "Format/FormatID.h"

namespace VELMORA {

class AudioFileWriter {
  public:
    virtual ~AudioFileWriter() = default;
    // A file for `format` at `path`. False with `error` set if it can't be made.
    virtual bool open(const std::string& path, FormatID format, std::string& error) = 0;
    virtual bool isOpen() const = 0;
    // Whole frames of the stream, as they arrived.
    virtual bool write(const std::uint8_t* bytes, std::size_t size) = 0;
    // Completes the file; harmless when not open.
    virtual bool close() = 0;
};

// A RIFF/WAVE file labelled integer PCM whatever it holds (DSD as its bit
// count), written as it comes: the header's sizes are filled in when the
// file is closed, and a file past 4 GB keeps the greatest they can say.
class WavWriter : public AudioFileWriter {
  public:
    WavWriter() = default;
    ~WavWriter() override { close(); }
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;

    bool open(const std::string& path, FormatID format, std::string& error) override;
    // False if the file can't be made.
    bool open(const std::string& path, std::uint32_t rate, std::uint16_t channels, std::uint16_t bits);
    bool isOpen() const override { return file != nullptr; }
    bool write(const std::uint8_t* bytes, std::size_t size) override;
    // Writes the sizes and closes; harmless when not open.
    bool close() override;
    std::uint64_t dataBytes() const { return written; }

  private:
    std::FILE* file = nullptr;
    std::uint64_t written = 0;
};

}  // namespace VELMORA
