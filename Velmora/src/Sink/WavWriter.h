// A RIFF/WAVE file of integer PCM, written as it comes: the header's sizes
// are filled in when the file is closed.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace VELMORA {

class WavWriter {
  public:
    WavWriter() = default;
    ~WavWriter() { close(); }
    WavWriter(const WavWriter&) = delete;
    WavWriter& operator=(const WavWriter&) = delete;

    // False if the file can't be made.
    bool open(const std::string& path, std::uint32_t rate, std::uint16_t channels, std::uint16_t bits);
    bool isOpen() const { return file != nullptr; }
    bool write(const std::uint8_t* bytes, std::size_t size);
    // Writes the sizes and closes; harmless when not open.
    bool close();
    std::uint64_t dataBytes() const { return written; }

  private:
    std::FILE* file = nullptr;
    std::uint64_t written = 0;
};

}  // namespace VELMORA
