// A stream from a SyncBuffer to the velmora-target program on loopback, set
// up as the driver does it: 48 kHz, 2 channels of 32 bits, cycles of 1 ms.
// The sink's WAV must be the source bit for bit after its leading silence,
// and its buffer must stay near its centre without an underrun, also when
// the sink's clock runs fast or slow or the path loses packets.
//
// Arguments: <velmora-target> <seconds of audio per case>.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../StreamHost.h"
#include "../TargetProcess.h"
#include "Samples/SyncBuffer.h"
#include "System/Threads.h"
#include "TempFolder.h"
#include "TestFormats.h"
#include "WavFile.h"

namespace {

using namespace VELMORA;
using namespace StreamHost;

std::string toolPath;
int seconds = 4;

constexpr std::uint32_t frameBytes = 8;
// The sink plays from its centre, three quarters of the latency; a quarter
// of the latency either way is a third of the centre, in Q14.
constexpr std::int32_t quarterLatencyQ14 = 16384 / 3;
constexpr double centreFrames = 48 * latencyUnits / 10 * 3 / 4.0;
constexpr double settledMs = 1000;
// Under the sanitizers the worker misses cycles: its correction's rate says nothing there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool workerKeepsTime = false;
#else
constexpr bool workerKeepsTime = true;
#endif

struct Case {
    const char* name;
    double ppm;
    double drop;
};

class StreamToTarget : public ::testing::TestWithParam<Case> {
  protected:
    TempFolder folder;
    const std::string wav = folder.file("sink.wav"), json = folder.file("sink.json");
    PatternBuffer host;
    std::vector<std::pair<double, std::int16_t>> adjusts;  // ms since the stream started, Q14; every 10 ms

    // Where the host's ring ran dry (the machine held the buffer worker back)
    // the worker sent 10 ms of silence: the source runs on around each.
    void expectSourceBitForBit() {
        WavData file;  // read as velmora-play reads it
        std::string error;
        EXPECT_TRUE(readWav(wav, file, error)) << error;
        const std::vector<std::uint8_t>& stream = file.data;
        std::size_t lead = 0;
        while (lead < stream.size() && stream[lead] == 0) ++lead;
        EXPECT_EQ(lead % frameBytes, 0u);
        EXPECT_GE(lead, std::size_t{ringSlots} * slotFrames * frameBytes) << "the ring's silence first";
        ASSERT_GE(stream.size(), lead + host.filled) << "the source came out short";
        ASSERT_GT(host.filled, std::uint64_t(seconds) * 48000 * frameBytes * 9 / 10);
        constexpr std::size_t drySilence = 48000 / 100 * frameBytes;
        std::uint32_t dry = host.timing.ringDry.load(), silences = 0;
        std::size_t at = lead, wrong = 0;
        for (std::uint64_t n = 0; n < host.filled && at < stream.size();) {
            if (stream[at] == 0 && silences < dry && at + drySilence <= stream.size() &&
                std::all_of(&stream[at], &stream[at] + drySilence, [](std::uint8_t b) { return b == 0; })) {
                at += drySilence;
                ++silences;
                continue;
            }
            wrong += stream[at++] != patternByte(n++);
        }
        EXPECT_EQ(wrong, 0u) << "bytes that differ from the source, besides " << silences
                             << " silences of a dry ring";
        EXPECT_TRUE(std::all_of(stream.begin() + std::ptrdiff_t(at), stream.end(), [](std::uint8_t b) {
            return b == 0;
        })) << "after the source, silence";
    }

    // The correction's mean after the first second, weighted by the time each value stood.
    double meanAdjust() const {
        double sum = 0, span = 0;
        for (std::size_t i = 1; i < adjusts.size(); ++i) {
            if (adjusts[i - 1].first < settledMs) continue;
            double dt = adjusts[i].first - adjusts[i - 1].first;
            sum += adjusts[i - 1].second * dt;
            span += dt;
        }
        return span > 0 ? sum / span : 0;
    }

    // The sink's mean deviation over the `span` ms up to a moment of the stream.
    static double deviationBefore(const SinkReport& report, double ms, double span = 200) {
        double sum = 0;
        int n = 0;
        for (auto [at, q14] : report.deviation)
            if (at > ms - span && at <= ms) sum += q14, ++n;
        return n > 0 ? sum / n : 0;
    }

    // Keeps the figures of the run with the test's result.
    void record(const SinkReport& report) {
        std::printf(
            "%s: underruns %.0f, resends %.0f (host %u), dropped %.0f, adjust mean %.1f, lateness us "
            "p99 %u latest %u, over time %u of %u cycles, ring dry %u\n",
            GetParam().name, report.underruns, report.resends, host.timing.resendRequests.load(),
            report.dropped, meanAdjust(), host.timing.latenessUsAt(0.99), host.timing.latestUs.load(),
            host.timing.overTime.load(), host.timing.cycles.load(), host.timing.ringDry.load());
    }
};

TEST_P(StreamToTarget, SourceArrivesWholeAndTheBufferStaysCentred) {
    const Case& run = GetParam();
    TargetProcess target(toolPath, TargetProcess::anyPorts(
                                       {"--sink", "1,0,Main out", "--latency", std::to_string(latencyUnits),
                                        "--wav", wav, "--stats-json", json, "--ppm", std::to_string(run.ppm),
                                        "--drop", std::to_string(run.drop), "--log-level", "3"}));
    StreamHost::start(host, target, stereoS32At48k);
    if (IsSkipped() || HasFatalFailure()) return;
    // The correction every 10 ms of the run's length.
    auto begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() < begin + std::chrono::seconds(seconds) &&
           host.connectState == Sync::connected) {
        NORVA::sleepMilliseconds(10);
        std::chrono::duration<double, std::milli> ms = std::chrono::steady_clock::now() - begin;
        adjusts.push_back({ms.count(), host.timing.adjust.load()});
    }
    finish(host, target);
    if (HasFatalFailure()) return;

    SinkReport report(json);
    record(report);
    expectSourceBitForBit();
    if (run.drop > 0) {
        // Go-back-N costs the sink the packets behind each loss: the
        // correction makes up for them, the buffer stands lower meanwhile.
        EXPECT_GT(report.dropped, 0);
        EXPECT_GT(report.resends, 0);
        EXPECT_GT(host.timing.resendRequests.load(), 0u) << "the host sent again from its pool";
        return;
    }
    // A shared machine may hold the worker back for longer than the sink's
    // buffer lasts: what that costs the buffer is the machine's, not the
    // loop's. A worker that never lost half the centre leaves no excuse.
    bool workerStalled = host.timing.latestUs.load() > centreFrames / 48 * 1000 / 2;
    EXPECT_TRUE(workerStalled || report.underruns == 0)
        << report.underruns << " underruns once the sink plays";
    ASSERT_GT(report.deviation.size(), std::size_t(seconds) * 8);
    // The first second settles the correction against the sink's clock.
    std::size_t outside = 0;
    for (auto [ms, q14] : report.deviation) outside += ms >= 1000 && std::abs(q14) > quarterLatencyQ14;
    EXPECT_EQ(outside, 0u) << "samples further than a quarter of the latency from the centre";

    // After it the correction, over time, holds the sink's rate: one step
    // of it is 61 ppm. What the buffer moved meanwhile the correction gave
    // on top, and a small move is a large part of it over a few seconds.
    ASSERT_GT(adjusts.size(), 150u);
    double endMs = adjusts.back().first;
    double moved = deviationBefore(report, endMs) - deviationBefore(report, settledMs + 100);
    double given = run.ppm * 16384 / 1e6 + moved * centreFrames / (48 * (endMs - settledMs));
    if (workerKeepsTime) {
        EXPECT_NEAR(meanAdjust(), given, 3.0)
            << "the mean correction after the first second, Q14 (the buffer moved " << moved << ")";
    }
    // Over the second half of the run the buffer stands around the centre.
    double last = report.deviation.back().first;
    EXPECT_LT(std::abs(deviationBefore(report, last, last / 2)), quarterLatencyQ14 / 4.0)
        << "the mean deviation, Q14";
}

INSTANTIATE_TEST_SUITE_P(Clocks, StreamToTarget,
                         ::testing::Values(Case{"nominal", 0, 0}, Case{"fast", 300, 0}, Case{"slow", -300, 0},
                                           Case{"lossy", 0, 0.01}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    std::string secondsText;
    if (!takeArguments(argc, argv, {&toolPath, &secondsText}, "<velmora-target> <seconds, at least 2>"))
        return 2;
    seconds = std::max(2, std::atoi(secondsText.c_str()));
    return RUN_ALL_TESTS();
}
