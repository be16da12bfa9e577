#include "SinkOutput.h"

#ifdef VELMORA_WITH_JACK
#include "Platform/linux/JackOutput.h"
#endif
#ifdef VELMORA_WITH_ALSA
#include "Platform/linux/AlsaOutput.h"
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
