#include "Platform/linux/SndfileWriter.h"

namespace VELMORA {

bool SndfileWriter::open(const std::string& path, FormatID format, std::string& error) {
    close();
    if (format.isDsd()) return dsd.open(path, format, error);
    form = sampleFormOf(format);
    channels = format.channelCount();
    flac = path.size() >= 5 && path.compare(path.size() - 5, 5, ".flac") == 0;
    SF_INFO info{};
    info.samplerate = int(format.rate());
    info.channels = int(channels);
    static constexpr int subtypes[] = {0, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32,
                                       SF_FORMAT_FLOAT};
    if (form == SampleForm::none || (flac && (form == SampleForm::s32 || form == SampleForm::f32))) {
        error = flac ? "FLAC holds 16 or 24 bits, not this stream's " + std::to_string(format.bitsPerSample())
                     : "no file form for format 0x" + std::to_string(format.value);
        return false;
    }
    info.format = (flac ? SF_FORMAT_FLAC : SF_FORMAT_RF64) | subtypes[int(form)];
    file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) {
        error = "can't write " + path + ": " + sf_strerror(nullptr);
        return false;
    }
    // A plain WAV file while it fits in 4 GB, RF64 past that.
    if (!flac) sf_command(file, SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    return true;
}

bool SndfileWriter::write(const std::uint8_t* bytes, std::size_t size) {
    if (dsd.isOpen()) return dsd.write(bytes, size);
    if (file == nullptr) return false;
    // The stream's little-endian samples are the file's own.
    if (!flac) return sf_write_raw(file, bytes, sf_count_t(size)) == sf_count_t(size);
    unsigned step = sampleBytes(form);
    std::size_t count = size / step;
    samples.resize(count);
    for (std::size_t i = 0; i < count; ++i)
        convertSample(bytes + i * step, form, reinterpret_cast<std::uint8_t*>(&samples[i]), SampleForm::s32);
    return sf_write_int(file, samples.data(), sf_count_t(count)) == sf_count_t(count);
}

bool SndfileWriter::close() {
    bool ok = dsd.close();
    if (file != nullptr) ok = sf_close(file) == 0 && ok;
    file = nullptr;
    return ok;
}

}  // namespace VELMORA
