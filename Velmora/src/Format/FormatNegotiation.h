// Which format goes on the wire for a source format, given what the sink
// takes, and which copy kernel makes it.
#pragma once

#include <atomic>
#include <cstdint>

#include "Format/CopyKernel.h"
#include "Format/FormatID.h"

namespace VELMORA {

// The sink's capability masks, as its FORMAT answers gave them.
struct SinkFormats {
    FormatID pcm;
    FormatID dsdLsb;
    FormatID dsdMsb;

    // True if every bit of `word` is in the mask of its kind: the PCM mask,
    // the DSD mask of its bit order, or both DSD masks if it names none.
    bool isSupported(FormatID word) const;
    // The least (greatestBits x greatestChannels x leastMultiplier) / 8 over
    // the masks that aren't 0; 0xFFFFFFFF with none. Logs each measure.
    std::uint32_t unitLeast() const;
    // The greatest (greatestBits x greatestChannels) / 8; 0 with no mask.
    std::uint32_t unitGreatest() const;
};

struct FormatChoice {
    bool accepted = false;
    FormatID streamFormat;
    KernelForm form = KernelForm::plain;
    // The log text of a DSD conversion; set as soon as a conversion is
    // picked, even if the sink then refuses the converted word.
    const char* conversion = nullptr;
};

// The sink's format for `source`: `source` itself if the sink takes it,
// otherwise 32-bit DSD reordered to a bit and word order the sink takes.
FormatChoice chooseFormat(FormatID source, const SinkFormats& sink);

// Whether `word` names exactly one channel count and one sample form, and
// for DSD also one bit order, one word order, 32-bit words and a DSD rate.
bool isValidStream(FormatID word);

// The format state of one stream: what the source gives, what the wire
// carries, and the kernel between them with the stream's polarity.
class FormatNegotiation {
  public:
    SinkFormats sink;
    FormatID sourceFormat;
    FormatID streamFormat;
    // The driver may set it while the stream worker reads it at feedback.
    std::atomic<bool> hostInvert{false};
    bool playInvert = false;
    KernelForm form = KernelForm::plain;
    CopyKernel copyKernel = copyPlain;

    // False changes nothing.
    bool setFormat(FormatID word);
    // The stream's polarity is the host's and the sink's combined; keeps the
    // kernel's reordering and switches it to the inverted variant or back.
    void applyPhase(bool sinkInvert);
    // The byte of silence as the wire carries it.
    std::uint8_t silenceByte() const;
};

}  // namespace VELMORA
