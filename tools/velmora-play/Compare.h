// Whether a sink's WAV holds exactly what the player gave the driver. Both
// begin with silence of their own length (the stream's ring starts silent);
// the audio after it has to match byte for byte, up to the given file's
// last sound. A 1-bit file is DSD, whose silence is its idle pattern.
#pragma once

#include <cstdint>
#include <string>

#include "WavFile.h"

struct Comparison {
    bool exact = false;
    std::uint64_t givenLead = 0, sinkLead = 0;  // frames of leading silence
    std::uint64_t needed = 0;                   // frames of the given file after its lead, to its last sound
    std::uint64_t compared = 0;                 // frames both hold after their leads
    std::uint64_t firstDifference = 0;          // frame after the leads; valid if `differs`
    bool differs = false;
    std::string formatMismatch;  // set when the files can't be compared

    std::string text() const;
};

Comparison compareWav(const WavData& given, const WavData& sink);
