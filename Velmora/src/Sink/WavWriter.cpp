#include "Sink/WavWriter.h"

namespace VELMORA {

namespace {

constexpr long riffSizeAt = 4;
constexpr long dataSizeAt = 40;
constexpr std::uint32_t headerBytes = 44;

void put16(std::uint8_t* at, std::uint32_t value) {
    at[0] = std::uint8_t(value);
    at[1] = std::uint8_t(value >> 8);
}

void put32(std::uint8_t* at, std::uint32_t value) {
    put16(at, value);
    put16(at + 2, value >> 16);
}

bool putAt(std::FILE* file, long offset, std::uint32_t value) {
    std::uint8_t bytes[4];
    put32(bytes, value);
    return std::fseek(file, offset, SEEK_SET) == 0 && std::fwrite(bytes, 1, 4, file) == 4;
}

}  // namespace

bool WavWriter::open(const std::string& path, FormatID format, std::string& error) {
    if (open(path, format.rate(), std::uint16_t(format.channelCount()),
             std::uint16_t(format.bitsPerSample())))
        return true;
    error = "can't write " + path;
    return false;
}

bool WavWriter::open(const std::string& path, std::uint32_t rate, std::uint16_t channels,
                     std::uint16_t bits) {
    close();
    file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    std::uint16_t blockAlign = std::uint16_t(channels * (bits / 8));
    std::uint8_t header[headerBytes] = {'R', 'I', 'F', 'F', 0,   0,   0,  0, 'W', 'A',
                                        'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0,   0};
    put16(header + 20, 1);  // integer PCM
    put16(header + 22, channels);
    put32(header + 24, rate);
    put32(header + 28, rate * blockAlign);
    put16(header + 32, blockAlign);
    put16(header + 34, bits);
    header[36] = 'd';
    header[37] = 'a';
    header[38] = 't';
    header[39] = 'a';
    written = 0;
    if (std::fwrite(header, 1, headerBytes, file) != headerBytes) {
        std::fclose(file);
        file = nullptr;
        return false;
    }
    return true;
}

bool WavWriter::write(const std::uint8_t* bytes, std::size_t size) {
    if (file == nullptr) return false;
    if (std::fwrite(bytes, 1, size, file) != size) return false;
    written += size;
    return true;
}

bool WavWriter::close() {
    if (file == nullptr) return true;
    // RIFF sizes are 32 bits; a longer file keeps the greatest.
    std::uint64_t data = written < 0xFFFFFFFFu - headerBytes ? written : 0xFFFFFFFFu - headerBytes;
    bool ok = true;
    if (written % 2 != 0) ok = std::fputc(0, file) != EOF;  // chunks are word-aligned
    ok = ok && putAt(file, riffSizeAt, std::uint32_t(data + headerBytes - 8 + data % 2)) &&
         putAt(file, dataSizeAt, std::uint32_t(data));
    ok = std::fclose(file) == 0 && ok;
    file = nullptr;
    return ok;
}

}  // namespace VELMORA
