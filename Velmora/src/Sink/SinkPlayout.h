// What a sink does with a stream once connected: takes STREAM_DATA in
// sequence, plays it out on its own clock (the nominal rate off by a set
// number of ppm), keeps its buffer level, and says what to answer: feedback
// with its deviation from the buffer's centre, or a request to send again
// from the first missing packet.
//
// The buffer is a level, not bytes: audio goes to the WAV file as it
// arrives in order, so only how much of it the clock hasn't played yet
// matters. Packets past a gap are dropped: the host resends from the pool
// from the packet asked for on, in order (go-back-N).
//
// Levels count frames at the format's rate, so a DSD frame is one one-bit
// sample per channel, as the host's clock counts them.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Format/FormatID.h"
#include "Sink/PlayoutOutput.h"
#include "Sink/StreamDigest.h"
#include "System/Threads.h"

namespace VELMORA {

struct SinkPlayConfig {
    double ppm = 0;               // the sink's clock against the nominal rate
    double stepPpm = 0;           // added to `ppm` once the clock has played
    double stepAfterSeconds = 0;  // this long
    double dropShare = 0;         // of packets dropped on arrival, 0 to 1
    double batchWaitUs = 4000;    // the longest wait for a batch of arrivals; 0: none
    int feedbackEncoding = 1;     // 1 centred, 2 signed, 3 level
    std::string wavPath;          // empty: the audio is discarded (without a device)
    std::uint32_t dropSeed = 1;
};

struct SinkStats {
    struct Deviation {
        std::uint32_t ms = 0;  // since the stream's first packet
        std::int32_t q14 = 0;  // the mean level against the centre, 16384 a whole centre
    };
    // Where the stream stood at a moment: the frame with stream index
    // `received` - 1 plays `level` frames after `ns`.
    struct Moment {
        std::int64_t ns = 0;  // the steady clock
        std::uint64_t received = 0;
        double level = 0;
        double mean = 0;            // the level's mean since the moment before
        std::int32_t reported = 0;  // the last deviation told the host, Q14
    };
    std::uint64_t packets = 0;  // accepted in sequence
    std::uint64_t bytes = 0;
    std::uint64_t gaps = 0;     // a missing packet seen
    std::uint64_t resends = 0;  // requests sent
    std::uint64_t duplicates = 0;
    std::uint64_t outOfOrder = 0;  // after a gap, dropped for the resend
    std::uint64_t dropped = 0;     // on purpose
    std::uint64_t underruns = 0;
    std::uint64_t overruns = 0;
    std::uint64_t xruns = 0;    // of the device
    double silenceSeconds = 0;  // played in underruns
    std::uint64_t feedbacks = 0;
    double jitterUs = 0;  // smoothed arrival jitter against stream time
    std::int32_t deviationLeast = 0;
    std::int32_t deviationGreatest = 0;
    bool playing = false;              // the clock has started
    std::vector<Deviation> deviation;  // every 100 ms of play
    std::vector<Moment> timeline;      // the same moments
    double rate = 0;                   // nominal frames per second
    double playRate = 0;               // of the sink's clock at the end
    double centre = 0;                 // frames
    double capacity = 0;
    double frameBytes = 0;  // a fraction for DSD
    StreamDigest digest;    // of the audio as it arrived in order

    std::string text() const;
    std::string json() const;
};

class SinkPlayout {
  public:
    using Clock = NORVA::SteadyClock;

    struct Packet {
        std::uint16_t sequence = 0;
        bool compact = false;  // `sequence` is a 7-bit tag
        bool wantsFeedback = false;
        // More datagrams wait behind this one: the packet counts, but the
        // clock isn't read and a feedback request is answered with the last
        // of them, once all that has arrived is in the buffer.
        bool queuedBehind = false;
        // How long it waited to be taken: its audio counts in the level
        // from its arrival, not from when a batch was read.
        Clock::duration waited{};
        const std::uint8_t* body = nullptr;
        std::uint32_t size = 0;
    };
    // What goes back to the host, as STREAM_ANS.
    struct Answer {
        bool feedback = false;
        bool resend = false;
        std::uint16_t param0 = 0;
        std::uint16_t param1 = 0;
        std::uint16_t param2 = 0;
    };

    // Without an output the sink plays to the WAV file of `settings` (or
    // nowhere) on a clock of its own.
    explicit SinkPlayout(const SinkPlayConfig& settings, std::unique_ptr<PlayoutOutput> device = nullptr);

    // A new stream of `format` with a buffer of `latencyUs`. False if the
    // output can't take it (the stream is then only counted).
    bool start(FormatID format, std::uint32_t latencyUs);
    // Answers go out in the order given; at most two per packet.
    int receive(const Packet& packet, Clock::time_point now, Answer (&answers)[2]);
    // After packets taken with `queuedBehind`: plays out to `now` and gives
    // the feedback they asked for, if any (at most one answer).
    int settle(Clock::time_point now, Answer (&answers)[2]);
    // Plays out up to `now`.
    void advance(Clock::time_point now);
    // How long the receive loop may leave arrivals waiting in its socket, to
    // take several in one go: as long as configured, but no more than a
    // small share of the centre, since a device plays only what was taken,
    // and no longer than `packets` of the stream take to come, so that a
    // fast stream doesn't crowd the socket. Zero while no stream plays, and
    // while a resend is awaited. The level the host hears counts each packet
    // from its arrival (Packet::waited), so the wait doesn't bias it.
    Clock::duration batchWait(std::size_t packets) const;
    // Ends the stream and closes the file.
    void end();
    bool isStreaming() const;

    SinkStats stats() const;
    // Deviation from the centre in Q14 at the last advance.
    std::int32_t deviation() const;

  private:
    std::uint16_t fullSequence(const Packet& packet) const;
    bool dropOnPurpose();
    Answer feedbackAnswer(std::int32_t d) const;
    std::int32_t deviationNow() const;
    std::int32_t reportedDeviation(Clock::time_point now);
    int settleLocked(Clock::time_point now, Answer* answers);
    void playUntil(Clock::time_point now);
    void sample(Clock::time_point at);

    const SinkPlayConfig config;
    mutable std::mutex mutex;  // the receive thread against readers of stats
    std::unique_ptr<PlayoutOutput> output;
    bool outputOpen = false;
    bool streaming = false;
    bool started = false;  // first packet seen
    FormatID format;
    double frameBytes = 0;  // fractional for DSD packed in bytes
    double rate = 0;        // frames per second of the sink's clock
    double centre = 0;      // frames
    double capacity = 0;
    Clock::duration batchSpan{};
    std::uint16_t expected = 0;
    std::uint16_t lastSequence = 0;  // of the last packet that arrived
    std::uint16_t newest = 0;        // the furthest sequence number seen
    double packetFrames = 0;         // of the last packet taken
    double onTheirWay = 0;           // frames from `expected` to `newest`
    bool awaitingResend = false;
    Clock::time_point lastResend;
    Clock::time_point firstArrival;
    Clock::time_point nextSample;
    double receivedFrames = 0;
    double silentFrames = 0;  // played where nothing had come
    double level = 0;
    // The level's integral over time since the last feedback, and its
    // span: the host hears the mean, not a moment of a packet's sawtooth.
    Clock::time_point lastUpdate;
    Clock::time_point lastReport;
    double levelArea = 0;  // frame seconds
    double areaSpan = 0;   // seconds
    // Frames taken since the last update, and how long after it they
    // arrived, summed frame by frame (frame seconds).
    double takenFrames = 0;
    double takenLateness = 0;
    double sampleArea = 0;  // the same since the last sample
    double sampleSpan = 0;
    std::int32_t lastReported = 0;
    double reportSpan = 1;   // frames that read as 1.0
    double reportError = 0;  // frames of the mean level off the centre
    bool inUnderrun = false;
    bool inOverrun = false;
    bool hasTransit = false;
    double lastTransitUs = 0;
    std::uint32_t dropState = 1;
    std::uint32_t feedbackOwed = 0;  // requests among packets queued behind others
    SinkStats counts;
};

}  // namespace VELMORA
