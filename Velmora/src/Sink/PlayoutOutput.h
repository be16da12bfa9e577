// Where a sink's audio goes, and whose clock plays it out.
//
// The sink hands over the audio in stream order as it arrives and asks the
// output how far its clock has played; the level it reports to the host is
// what arrived minus that. A file output plays on a simulated clock (the
// nominal rate off by a set number of ppm); a sound device's output plays
// on the device's own clock, so that the host follows a real DAC.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Format/FormatID.h"
#include "Sink/WavWriter.h"
#include "System/Threads.h"

namespace VELMORA {

class PlayoutOutput {
  public:
    using Clock = NORVA::SteadyClock;

    virtual ~PlayoutOutput() = default;

    // What of the capability masks a sink is configured with this output can
    // play; the sink offers only that. False with `error` set if nothing of
    // them can be played.
    virtual bool playable(FormatID& pcm, FormatID& dsdLsb, FormatID& dsdMsb, std::string& error) const;

    // A new stream, with a buffer of `bufferFrames`. False with `error` set
    // if it can't be played; the sink then only counts it.
    virtual bool open(FormatID format, double bufferFrames, std::string& error) = 0;
    // Audio in stream order, whole frames. False if it was lost.
    virtual bool write(const std::uint8_t* bytes, std::size_t size) = 0;
    // From now on the clock plays, whether audio is there or not.
    virtual void startClock(Clock::time_point now) = 0;
    // Frames the clock has played since it started.
    virtual double played(Clock::time_point now) = 0;
    // Frames per second of the clock.
    virtual double rate(Clock::time_point now) const = 0;
    // Times the device missed its deadline or ran dry; a file never does.
    virtual std::uint64_t xruns() const { return 0; }
    // Ends the stream; false if what was written is incomplete.
    virtual bool close() = 0;
};

struct FileOutputConfig {
    double ppm = 0;               // the clock against the nominal rate
    double stepPpm = 0;           // added to `ppm` once the clock has played
    double stepAfterSeconds = 0;  // this long
    std::string path;             // empty: the audio is discarded
};

// Writes a file (or nothing) and plays on the steady clock.
class FileOutput : public PlayoutOutput {
  public:
    // Without a writer the file is a WAV file of our own.
    explicit FileOutput(const FileOutputConfig& settings, std::unique_ptr<AudioFileWriter> writer = nullptr);

    bool open(FormatID format, double bufferFrames, std::string& error) override;
    bool write(const std::uint8_t* bytes, std::size_t size) override;
    void startClock(Clock::time_point now) override {
        playStart = now;
        started = true;
    }
    double played(Clock::time_point now) override;
    double rate(Clock::time_point now) const override;
    bool close() override;

  private:
    const FileOutputConfig config;
    std::unique_ptr<AudioFileWriter> file;
    double nominal = 0;
    bool started = false;
    Clock::time_point playStart;
};

}  // namespace VELMORA
