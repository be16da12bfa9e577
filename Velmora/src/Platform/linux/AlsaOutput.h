// A sink's output to an ALSA device (hw:1, a plug device, a plugin).
//
// A write loop of its own takes whole frames from a ring the sink fills,
// converts them to the sample form and channel count the device takes, and
// writes them; while the ring is dry it writes silence, so that the device
// keeps its clock. The clock is the device's position: frames written less
// snd_pcm_delay, published by the loop for the sink to read.
//
// An xrun is counted and recovered. When the device goes away the loop
// logs it, plays on the steady clock at the nominal rate (the sink keeps
// answering the host) and opens the device again once it is back.
#pragma once

#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "Sink/PlayoutOutput.h"
#include "Sink/SampleConvert.h"
#include "Sink/SampleRing.h"

namespace VELMORA {

class AlsaOutput : public PlayoutOutput {
  public:
    explicit AlsaOutput(std::string deviceName) : device(std::move(deviceName)) {}
    ~AlsaOutput() override;
    AlsaOutput(const AlsaOutput&) = delete;
    AlsaOutput& operator=(const AlsaOutput&) = delete;

    // Learns what the device can play. False with `error` set if it can't
    // be opened.
    bool probe(std::string& error);

    // The rates and channel counts the device takes, and the sample forms
    // it can play without loss (16 bits on any, 24 on 24, 32 bits or float,
    // 32 bits on 32, float on float or 32). No DSD: DoP isn't offered.
    bool playable(FormatID& pcm, FormatID& dsdLsb, FormatID& dsdMsb, std::string& error) const override;
    bool open(FormatID format, double bufferFrames, std::string& error) override;
    bool write(const std::uint8_t* bytes, std::size_t size) override;
    void startClock(Clock::time_point now) override;
    double played(Clock::time_point now) override;
    double rate(Clock::time_point) const override { return nominal; }
    std::uint64_t xruns() const override { return xrunCount.load(); }
    bool close() override;

  private:
    struct Caps {
        std::vector<SampleForm> forms;
        std::vector<unsigned> channels;
        std::vector<std::uint32_t> rates;
    };
    bool openDevice(std::string& error);
    void closeDevice();
    void loop();
    bool writeFrames(std::size_t frames);
    void publish(double playedFrames);
    void playWithoutDevice(Clock::time_point& last);

    const std::string device;
    Caps caps;

    // The stream, fixed before the loop starts.
    FormatID format;
    SampleForm form = SampleForm::none;
    SampleForm deviceForm = SampleForm::none;
    unsigned channels = 0;
    unsigned deviceChannels = 0;
    unsigned frameBytes = 0;
    double nominal = 0;
    double bufferFrames = 0;
    snd_pcm_uframes_t period = 0;
    std::vector<std::uint8_t> converted;  // a period for the device

    // The loop's alone.
    snd_pcm_t* pcm = nullptr;
    double playedBefore = 0;  // frames played on clocks before the device's current opening
    std::uint64_t written = 0;

    // Shared.
    SampleRing ring;
    std::thread writer;
    std::atomic<bool> running{false};
    std::atomic<bool> playing{false};
    std::atomic<bool> lost{false};
    std::atomic<std::uint64_t> xrunCount{0};
    std::atomic<double> playedFrames{0};
    std::atomic<std::int64_t> playedAtNs{0};
};

}  // namespace VELMORA
