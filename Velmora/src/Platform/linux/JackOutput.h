// A sink's output to a JACK server (jackd, or PipeWire's JACK service).
//
// The process callback takes whole frames from a ring the sink fills and
// turns them into float, one port per channel; what the ring lacks plays as
// silence. The clock is the server's frame time, counted from the cycle in
// which the callback first took audio, so the host follows JACK's clock.
//
// When the server goes away the output logs it, plays on the steady clock at
// the nominal rate (the sink keeps answering the host, its level neutral),
// and connects again once the server is back. Meanwhile the sink's thread
// takes from the ring what that clock plays, into nothing, so that the ring
// still holds the sink's level when the server's callback reads it again.
#pragma once

#include <jack/jack.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Sink/PlayoutOutput.h"
#include "Sink/SampleConvert.h"
#include "Sink/SampleRing.h"

namespace VELMORA {

class JackOutput : public PlayoutOutput {
  public:
    // `channels` ports, named out_1 and on; each goes to the physical
    // playback port of its number where there is one.
    JackOutput(std::string clientName, unsigned channels);
    ~JackOutput() override;
    JackOutput(const JackOutput&) = delete;
    JackOutput& operator=(const JackOutput&) = delete;

    // Joins the server. False with `error` set if it can't be reached.
    bool connect(std::string& error);
    std::uint32_t serverRate() const { return sampleRate; }

    // The server's rate only, PCM of 16, 24, 32 bits or float; no DSD.
    bool playable(FormatID& pcm, FormatID& dsdLsb, FormatID& dsdMsb, std::string& error) const override;
    bool open(FormatID format, double bufferFrames, std::string& error) override;
    bool write(const std::uint8_t* bytes, std::size_t size) override;
    void startClock(Clock::time_point now) override;
    double played(Clock::time_point now) override;
    double rate(Clock::time_point) const override { return nominal; }
    std::uint64_t xruns() const override { return xrunCount.load(); }
    bool close() override;

  private:
    enum State : std::uint8_t { idle, ready, playing };

    bool join(std::string& error);
    void leave();
    void waitForCycles();
    void reconnectLoop();
    int process(jack_nframes_t frames);
    static int onProcess(jack_nframes_t frames, void* self);
    static int onXrun(void* self);
    static void onShutdown(jack_status_t, const char* reason, void* self);

    const std::string clientName;
    const unsigned portCount;
    jack_client_t* client = nullptr;
    std::vector<jack_port_t*> ports;
    std::uint32_t sampleRate = 0;

    // Shared with the callback.
    SampleRing ring;
    std::atomic<std::uint8_t> state{idle};
    std::atomic<bool> lost{false};
    std::atomic<bool> startSeen{false};
    // The callback reads the ring; else the sink's thread does, while the
    // server is gone. Only the sink's thread changes it.
    std::atomic<bool> callbackReads{false};
    std::atomic<jack_nframes_t> startFrame{0};
    std::atomic<std::uint64_t> cycles{0};
    std::atomic<std::uint64_t> xrunCount{0};
    SampleForm form = SampleForm::none;
    unsigned channels = 0;
    unsigned frameBytes = 0;
    std::vector<float*> buffers;  // the ports' buffers of one cycle

    // The sink thread's.
    double nominal = 0;
    double playedBefore = 0;  // by clocks before the current one
    bool onServerClock = true;
    Clock::time_point steadyFrom;  // of the steady clock while the server is gone
    std::uint64_t voidFrames = 0;  // of its frames, those taken from the ring
    jack_nframes_t lastFrame = 0;
    double serverPlayed = 0;

    // Reconnection; `clientMutex` keeps the client from closing under the
    // sink thread's reading of the frame time.
    std::mutex clientMutex;
    std::mutex lossMutex;
    std::condition_variable lossChanged;
    bool ending = false;
    std::thread reconnector;
};

}  // namespace VELMORA
