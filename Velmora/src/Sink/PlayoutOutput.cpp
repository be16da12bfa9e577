#include "Sink/PlayoutOutput.h"

namespace VELMORA {

bool PlayoutOutput::playable(FormatID& pcm, FormatID& dsdLsb, FormatID& dsdMsb, std::string& error) const {
    if (pcm.value != 0 || dsdLsb.value != 0 || dsdMsb.value != 0) return true;
    error = "no format offered";
    return false;
}

FileOutput::FileOutput(const FileOutputConfig& settings, std::unique_ptr<AudioFileWriter> writer)
    : config(settings), file(std::move(writer)) {
    if (file == nullptr) file = std::make_unique<WavWriter>();
}

bool FileOutput::open(FormatID format, double, std::string& error) {
    file->close();
    nominal = format.rate();
    started = false;
    return config.path.empty() || file->open(config.path, format, error);
}

bool FileOutput::write(const std::uint8_t* bytes, std::size_t size) {
    return !file->isOpen() || file->write(bytes, size);
}

// The step included.
double FileOutput::played(Clock::time_point now) {
    double seconds = std::chrono::duration<double>(now - playStart).count();
    double before = nominal * (1 + config.ppm / 1e6);
    if (config.stepPpm == 0 || seconds <= config.stepAfterSeconds) return seconds * before;
    return config.stepAfterSeconds * before + (seconds - config.stepAfterSeconds) * rate(now);
}

double FileOutput::rate(Clock::time_point now) const {
    bool stepped = config.stepPpm != 0 && started &&
                   std::chrono::duration<double>(now - playStart).count() > config.stepAfterSeconds;
    return nominal * (1 + (config.ppm + (stepped ? config.stepPpm : 0)) / 1e6);
}

bool FileOutput::close() {
    return file->close();
}

}  // namespace VELMORA
