#include "SinkOutput.h"

#ifdef VELMORA_WITH_JACK
#include "Platform/linux/JackOutput.h"
#endif
#ifdef VELMORA_WITH_ALSA
#include "Platform/linux/AlsaOutput.h"
#endif
#ifdef VELMORA_WITH_SNDFILE
#include "Platform/linux/SndfileWriter.h"
#endif

namespace {

[[maybe_unused]] std::unique_ptr<VELMORA::PlayoutOutput> narrowed(
    std::unique_ptr<VELMORA::PlayoutOutput> output, VELMORA::StreamSinkConfig& stream, std::string& error) {
    if (!output->playable(stream.pcm, stream.dsdLsb, stream.dsdMsb, error)) return nullptr;
    return output;
}

}  // namespace

std::unique_ptr<VELMORA::PlayoutOutput> openSinkOutput(const TestSink& sink,
                                                       [[maybe_unused]] VELMORA::StreamSinkConfig& stream,
                                                       std::string& error) {
    switch (sink.output) {
        case TestSink::file: {
#ifdef VELMORA_WITH_SNDFILE
            const VELMORA::SinkPlayConfig& play = stream.play;
            return std::make_unique<VELMORA::FileOutput>(
                VELMORA::FileOutputConfig{play.ppm, play.stepPpm, play.stepAfterSeconds, play.wavPath},
                std::make_unique<VELMORA::SndfileWriter>());
#else
            return nullptr;  // the sink's own WAV file
#endif
        }
#ifdef VELMORA_WITH_JACK
        case TestSink::jack: {
            auto jack = std::make_unique<VELMORA::JackOutput>(sink.device, stream.pcm.greatestChannels());
            if (!jack->connect(error)) return nullptr;
            return narrowed(std::move(jack), stream, error);
        }
#endif
#ifdef VELMORA_WITH_ALSA
        case TestSink::alsa: {
            auto alsa = std::make_unique<VELMORA::AlsaOutput>(sink.device);
            if (!alsa->probe(error)) return nullptr;
            return narrowed(std::move(alsa), stream, error);
        }
#endif
        default:
            error = "this build has no such output";
            return nullptr;
    }
}
