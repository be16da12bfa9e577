#include "Compare.h"

#include <algorithm>
#include <cstring>

namespace {

// Silence is zeros in PCM; in 1-bit DSD it is the idle pattern of either
// bit order, 0x69 least significant bit first or 0x96 most.
bool silent(const WavData& wav, std::uint64_t frame) {
    const std::uint8_t* at = wav.data.data() + frame * wav.frameBytes();
    std::uint8_t first = at[0];
    if (first != 0 && !(wav.bits == 1 && (first == 0x69 || first == 0x96))) return false;
    return std::all_of(at, at + wav.frameBytes(), [first](std::uint8_t b) { return b == first; });
}

std::uint64_t lead(const WavData& wav) {
    std::uint64_t frame = 0;
    while (frame < wav.frames() && silent(wav, frame)) ++frame;
    return frame;
}

}  // namespace

Comparison compareWav(const WavData& given, const WavData& sink) {
    Comparison result;
    if (given.channels != sink.channels || given.frameBytes() != sink.frameBytes() ||
        given.rate != sink.rate) {
        result.formatMismatch = "given " + std::to_string(given.channels) + " ch x " +
                                std::to_string(given.bits) + " bits at " + std::to_string(given.rate) +
                                " Hz, sink " + std::to_string(sink.channels) + " ch x " +
                                std::to_string(sink.bits) + " bits at " + std::to_string(sink.rate) + " Hz";
        return result;
    }
    result.givenLead = lead(given);
    result.sinkLead = lead(sink);
    std::uint64_t last = given.frames();
    while (last > result.givenLead && silent(given, last - 1)) --last;
    result.needed = last - result.givenLead;
    result.compared = std::min(given.frames() - result.givenLead, sink.frames() - result.sinkLead);
    std::uint32_t frameBytes = given.frameBytes();
    const std::uint8_t* a = given.data.data() + result.givenLead * frameBytes;
    const std::uint8_t* b = sink.data.data() + result.sinkLead * frameBytes;
    for (std::uint64_t frame = 0; frame < result.compared; ++frame) {
        if (std::memcmp(a + frame * frameBytes, b + frame * frameBytes, frameBytes) != 0) {
            result.differs = true;
            result.firstDifference = frame;
            break;
        }
    }
    result.exact = !result.differs && result.needed != 0 && result.compared >= result.needed;
    return result;
}

std::string Comparison::text() const {
    if (!formatMismatch.empty()) return "bit-exact: no (formats differ: " + formatMismatch + ")\n";
    std::string detail = "leading silence " + std::to_string(givenLead) + " frames given, " +
                         std::to_string(sinkLead) + " in the sink; ";
    if (exact) return "bit-exact: yes (" + detail + std::to_string(needed) + " frames of sound match)\n";
    if (needed == 0) return "bit-exact: no (the given file is silent)\n";
    if (differs)
        return "bit-exact: no (" + detail + "first difference at frame " + std::to_string(firstDifference) +
               ")\n";
    return "bit-exact: no (" + detail + "only " + std::to_string(compared) + " of " + std::to_string(needed) +
           " frames reached the sink)\n";
}
