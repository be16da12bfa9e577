// The host's side of the ASIO calling order, as a DAW runs it: init, the
// questions, the format, buffers, start, the callbacks fed from a prepared
// source, stop, disposeBuffers, release. Everything it saw goes into a
// PlayReport.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "HostSource.h"
#include "PlayOptions.h"
#include "asio/Asio.h"

struct PlayReport {
    struct Call {
        std::string name;
        ASIOError result = ASE_OK;
        double ms = 0;  // how long the driver took to answer
    };
    struct Channel {
        int index = 0;
        std::string name;
        ASIOSampleType type = 0;
        bool active = false;
    };
    struct Callbacks {
        std::uint64_t count = 0;
        bool timeInfo = false;  // bufferSwitchTimeInfo rather than bufferSwitch
        double expectedMs = 0;  // buffer size / rate
        double firstAfterStartMs = 0;
        double minMs = 0, meanMs = 0, p50Ms = 0, p99Ms = 0, maxMs = 0;
        std::uint64_t firstPosition = 0, lastPosition = 0;
        std::uint64_t positionSteps = 0;  // consecutive callbacks whose positions differ by a buffer
        std::uint64_t positionJumps = 0;  // those that differ by anything else
        std::uint64_t indexRepeats = 0;   // the same half twice in a row
        std::uint64_t rateChangedFlags = 0;
    };
    // A callback's sample position and when it came, on the steady clock
    // (CLOCK_MONOTONIC on Linux, as a sink's timeline).
    struct Moment {
        std::uint64_t position = 0;
        std::int64_t ns = 0;
    };

    std::string driverOrigin;
    std::string driverName;
    AsioLong driverVersion = 0;
    std::string errorMessage;  // getErrorMessage after a refusal
    AsioLong inputs = 0, outputs = 0;
    AsioLong minSize = 0, maxSize = 0, preferredSize = 0, granularity = 0;
    AsioLong bufferSize = 0;
    double rate = 0;
    bool dsd = false;
    std::vector<Channel> channels;
    AsioLong inputLatency = 0, outputLatency = 0;
    std::vector<std::string> clocks;
    Callbacks callbacks;
    std::vector<Moment> timeline;  // the callbacks, at most one per 10 ms, and the last
    std::string source;            // what was played
    std::uint64_t sourceFrames = 0;
    std::uint64_t framesGiven = 0;
    // What the driver was handed, as a sink fingerprints what it receives;
    // made only for --json.
    bool hasDigest = false;
    VELMORA::StreamDigest digest;
    std::uint64_t digestLeadFrames = 0;  // the digest's lead in samples per channel
    // Messages the driver sent through asioMessage and sampleRateDidChange.
    std::uint64_t resetRequests = 0, resyncRequests = 0, bufferSizeChanges = 0, latencyChanges = 0,
                  rateChanges = 0;
    std::vector<Call> calls;   // every IASIO call with a result, in order
    ULONG referencesLeft = 0;  // what the final Release returned
    std::string failure;       // empty when everything worked
    int exitCode = 0;
};

class AsioHost {
  public:
    explicit AsioHost(const PlayOptions& options) : options(options) {}
    // Reads the input file, if any; false with `report.failure` set.
    bool prepareInput(PlayReport& report);
    // Runs the whole order on the driver and releases it. `report` takes
    // what was seen; its `exitCode` says how it went.
    void run(IASIO* driver, PlayReport& report);
    // Writes what the driver was given, as --given asks.
    bool writeGiven(const std::string& path, const PlayReport& report, std::string& error) const;

  private:
    bool negotiate(IASIO* driver, PlayReport& report);
    bool makeBuffers(IASIO* driver, PlayReport& report);
    bool stream(IASIO* driver, PlayReport& report);
    void summarise(PlayReport& report) const;
    // Makes one IASIO call and records it with its result and duration.
    template <typename Call>
    static ASIOError record(PlayReport& report, const std::string& name, Call call) {
        auto start = std::chrono::steady_clock::now();
        ASIOError result = call();
        double ms =
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        report.calls.push_back({name, result, ms});
        return result;
    }
    // Records the call; true, with the failure filled in, if it failed.
    template <typename Call>
    bool refused(IASIO* driver, PlayReport& report, const std::string& name, Call call,
                 const std::string& why = "") {
        return failed(driver, report, name, record(report, name, call), why);
    }
    bool failed(IASIO* driver, PlayReport& report, const std::string& call, ASIOError result,
                const std::string& why);

    // The callbacks: plain functions, as ASIO wants, reaching the one
    // running host through `current`.
    static void ASIO_CALLBACK bufferSwitch(AsioLong index, ASIOBool direct);
    static ASIOTime* ASIO_CALLBACK bufferSwitchTimeInfo(ASIOTime* time, AsioLong index, ASIOBool direct);
    static void ASIO_CALLBACK sampleRateDidChange(ASIOSampleRate rate);
    static AsioLong ASIO_CALLBACK asioMessage(AsioLong selector, AsioLong value, void* message, double* opt);
    void onBuffer(AsioLong index, std::uint64_t position, bool rateChanged);

    static std::atomic<AsioHost*> current;

    struct Tick {
        std::int64_t ns = 0;
        std::uint64_t position = 0;
        AsioLong index = 0;
    };

    const PlayOptions& options;
    WavData wav;
    HostSource source;
    IASIO* driver = nullptr;
    std::vector<ASIOBufferInfo> buffers;
    ASIOCallbacks callbacks{};
    bool buffersCreated = false;
    bool started = false;
    std::uint32_t bufferBytes = 0;  // one half of a channel's buffer
    std::int64_t startNs = 0;
    std::vector<Tick> ticks;  // made before start: the callbacks only write
    std::atomic<std::uint64_t> tickCount{0};
    std::atomic<std::uint64_t> bytesGiven{0};
    std::atomic<std::uint64_t> resetRequests{0}, resyncRequests{0}, bufferSizeChanges{0}, latencyChanges{0},
        rateChanges{0}, rateChangedFlags{0};
};

// The name of an ASIO error code, or its number.
std::string asioErrorName(ASIOError code);
