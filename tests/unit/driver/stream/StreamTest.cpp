// Whole streams through the driver object, as a host drives it, against an
// in-process target and sink whose WAV file must hold what the host wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "../DriverEnvironment.h"
#include "../LoopbackTarget.h"
#include "Protocol/MessageTypes.h"
#include "System/Threads.h"
#include "TestFormats.h"
#include "asio_velmora.h"

#ifdef __linux__
#include <sched.h>
#endif

namespace {

using VELMORA::FormatID;
using VELMORA::StreamSinkConfig;
using namespace std::chrono_literals;

// Byte b of sample k of channel c in the host's n-th buffer: never a silence byte, and unlike its neighbours.
std::uint8_t patternByte(std::uint64_t n, std::uint32_t c, std::uint32_t k, std::uint32_t b) {
    std::uint64_t x = (n * 7919 + c * 613 + k * 31 + b * 7) % 251;
    std::uint8_t v = std::uint8_t(1 + x);
    return v == 0x69 || v == 0x96 ? std::uint8_t(v + 1) : v;
}

enum class OnWire { same, highThree, bitsReversed };

// A host whose plain C callbacks, through `current`, fill each buffer with the pattern.
class Host {
  public:
    static inline std::atomic<Host*> current{nullptr};

    bool timeInfo = false;
    std::atomic<int> resets{0};
    std::function<void()> onReset;  // what the host does on a reset request
    // Bytes per sample and samples per channel in each of the host's buffers.
    std::uint32_t channels = 0, sampleBytes = 0, samples = 0;
    std::vector<ASIOBufferInfo> records;
    std::atomic<std::uint64_t> calls{0};
    struct TimeInfo {
        std::uint64_t position;
        std::uint32_t flags;
    };
    std::vector<TimeInfo> times;  // as each time-info call found them

    Host() { times.reserve(1 << 16); }
    ASIOCallbacks callbacks{bufferSwitch, rateChanged, message, bufferSwitchTimeInfo};

    void fill(AsioLong index) {
        const std::uint64_t n = calls.load();
        for (std::uint32_t c = 0; c < channels; ++c) {
            auto* half = static_cast<std::uint8_t*>(records[c].buffers[index]);
            for (std::uint32_t k = 0; k < samples; ++k)
                for (std::uint32_t b = 0; b < sampleBytes; ++b)
                    half[k * sampleBytes + b] = patternByte(n, c, k, b);
        }
        calls.store(n + 1);
    }

    // The bytes the sink should get for the host's buffers 0 to `count` - 1.
    std::vector<std::uint8_t> expected(std::uint64_t count, OnWire wire) const {
        std::vector<std::uint8_t> out;
        for (std::uint64_t n = 0; n < count; ++n)
            for (std::uint32_t k = 0; k < samples; ++k)
                for (std::uint32_t c = 0; c < channels; ++c)
                    for (std::uint32_t b = wire == OnWire::highThree ? 1 : 0; b < sampleBytes; ++b) {
                        std::uint8_t byte = patternByte(n, c, k, b);
                        out.push_back(wire == OnWire::bitsReversed ? reversedBits(byte) : byte);
                    }
        return out;
    }

  private:
    static void ASIO_CALLBACK bufferSwitch(AsioLong index, ASIOBool) { current.load()->fill(index); }
    static ASIOTime* ASIO_CALLBACK bufferSwitchTimeInfo(ASIOTime* time, AsioLong index, ASIOBool) {
        Host* host = current.load();
        if (host->times.size() < host->times.capacity()) {
            const ASIOSamples& at = time->timeInfo.samplePosition;
            host->times.push_back({(std::uint64_t(at.hi) << 32) | at.lo, time->timeInfo.flags});
        }
        host->fill(index);
        return nullptr;
    }
    static void ASIO_CALLBACK rateChanged(ASIOSampleRate) {}
    static AsioLong ASIO_CALLBACK message(AsioLong selector, AsioLong value, void*, double*) {
        Host* host = current.load();
        if (selector == kAsioSupportsTimeInfo) return host->timeInfo ? 1 : 0;
        if (selector == kAsioSelectorSupported) return value == kAsioResetRequest ? 1 : 0;
        if (selector != kAsioResetRequest) return 0;
        if (host->onReset) host->onReset();
        ++host->resets;  // after the handler: a test that sees it may call the driver
        return 1;
    }
};

struct Case {
    const char* name;
    FormatID pcm, dsdLsb, dsdMsb;  // the sink's masks
    const char* settings;
    double rate;
    bool dsd;             // the host chooses the DSD format
    AsioLong bufferSize;  // samples, bits for DSD
    std::uint32_t sampleBytes;
    OnWire wire;
    std::uint8_t silence;  // as the sink receives it
};

constexpr std::uint32_t pcmRates = 0x3E;  // 44.1 and 48 kHz times 1 to 4

// One stream per conversion: plain copy (16-bit stereo streams in the rate test), a cut to 24 bits, DSD bit
// order.
// clang-format off
const Case cases[] = {
    {"Pcm32At192kEightChannels", FormatID(0x810u, pcmRates), {}, {}, "", 192000, false, 512, 4, OnWire::same, 0},
    {"CovertS32To24", FormatID(0x402u, pcmRates), {}, {}, "PCMRequest=CovertS32\n", 44100, false, 256, 4,
     OnWire::highThree, 0},
    {"DsdMsbToAnLsbSink", FormatID(0x802u, pcmRates), FormatID(0x2510002u, 0x202u), {}, "DSDMSB=enable\n", 2822400,
     true, 4096, 4, OnWire::bitsReversed, 0x69},
};
const Case stereo16 = {"Pcm16At44k", FormatID(0x202u, pcmRates), {}, {}, "", 44100, false, 256, 2, OnWire::same, 0};
// clang-format on

using Clock = std::chrono::steady_clock;

// Polls `done` until it holds or `limit` passes; whether it holds.
template <class Condition>
bool waitUntil(Condition done, std::chrono::seconds limit = 10s) {
    const auto end = Clock::now() + limit;
    while (!done() && Clock::now() < end) NORVA::sleepMilliseconds(1);
    return done();
}

template <class Call>
bool returnsWithin(std::chrono::seconds limit, Call call) {
    const auto begin = Clock::now();
    call();
    return Clock::now() - begin < limit;
}

class Stream : public DriverEnvironment {
  protected:
    // Straight to the sink, 1500-byte packets, the worker at this process's priority.
    static constexpr const char* common =
        "TargetAddress=::1,19642\nTargetPO=1\nInterLoopback=enable\nThredMode=73729\nSyncBufferCount=8\n";

    Stream() {
        sinkConfig.latency = 200;                           // 20 ms, as a device's buffer
        sinkConfig.play.wavPath = user.file("stream.wav");  // goes with the folder
    }
    ~Stream() override { Host::current = nullptr; }

    // A sink for the case, and a driver made by the factory, as a host makes it, with the host's buffers.
    void prepare(const Case& c, const char* settings = "") {
        std::tie(sinkConfig.pcm, sinkConfig.dsdLsb, sinkConfig.dsdMsb) = std::tie(c.pcm, c.dsdLsb, c.dsdMsb);
        peer = std::make_unique<LoopbackTarget>(sinkConfig);
        ASSERT_TRUE(peer->opened);
        HRESULT result = S_OK;
        driver = static_cast<AsioVelmora*>(createAsioVelmora(nullptr, &result));
        ASSERT_NE(driver, nullptr);
        driver->NonDelegatingAddRef();
        driver->settingPath = user.write("setting.inf", std::string(common) + c.settings + settings);
        ASSERT_TRUE(driver->loadSettings());
        driver->targetControlPort = peer->control();
        ASSERT_EQ(driver->init(nullptr), ASIOTrue) << driver->errorText;
        ASIOIoFormat format{c.dsd ? kASIODSDFormat : kASIOPCMFormat, {}};
        ASSERT_EQ(driver->future(kAsioSetIoFormat, &format), ASE_SUCCESS);
        ASSERT_EQ(driver->canSampleRate(c.rate), ASE_OK);
        ASSERT_EQ(driver->setSampleRate(c.rate), ASE_OK);
        host.sampleBytes = c.sampleBytes;
        // A DSD buffer holds 32-bit groups of one channel's bits.
        host.samples = std::uint32_t(c.dsd ? c.bufferSize / 32 : c.bufferSize);
        makeBuffers(c.bufferSize);
    }

    void makeBuffers(AsioLong size) {
        AsioLong inputs = 0, outputs = 0;
        driver->getChannels(&inputs, &outputs);
        host.channels = std::uint32_t(outputs);
        host.records.assign(host.channels, ASIOBufferInfo{ASIOFalse, 0, {}});
        for (std::uint32_t i = 0; i < host.channels; ++i) host.records[i].channelNum = AsioLong(i);
        Host::current = &host;
        ASSERT_EQ(driver->createBuffers(host.records.data(), outputs, size, &host.callbacks), ASE_OK);
    }

    // A stereo 16-bit stream with `settings` under way, its host called `calls` times.
    void streamStereo16(std::uint64_t calls, const char* settings = "") {
        prepare(stereo16, settings);
        ASSERT_EQ(driver->start(), ASE_OK);
        ASSERT_TRUE(waitForCalls(calls));
    }

    void release() {
        EXPECT_EQ(driver == nullptr ? 0u : driver->NonDelegatingRelease(), 0u);
        driver = nullptr;
    }

    bool waitForCalls(std::uint64_t count) {
        return waitUntil([&] { return host.calls.load() >= count; });
    }

    // Stops and ends it all, then: all the host finished before its last call arrived in order and exactly;
    // silence may stand anywhere (the ring's at the start, a gap where the buffer worker fell behind).
    void expectArrivedExactly(const Case& c) {
        EXPECT_EQ(driver->stop(), ASE_OK);
        const std::uint64_t calls = host.calls.load();
        release();
        peer->sink.stop();
        const std::vector<std::uint8_t> stream = user.read<std::vector<std::uint8_t>>("stream.wav");
        ASSERT_GE(stream.size(), 44u) << "a WAV header";
        std::vector<std::uint8_t> audio;
        std::copy_if(stream.begin() + 44, stream.end(), std::back_inserter(audio),
                     [&](std::uint8_t byte) { return byte != c.silence; });
        ASSERT_GE(calls, 2u);
        std::vector<std::uint8_t> wanted = host.expected(calls - 1, c.wire);
        ASSERT_GE(audio.size(), wanted.size()) << "of " << stream.size() << " bytes";
        const auto first = std::mismatch(wanted.begin(), wanted.end(), audio.begin()).first - wanted.begin();
        EXPECT_EQ(first, std::ssize(wanted)) << "first difference at byte " << first;
    }

    StreamSinkConfig sinkConfig;
    std::unique_ptr<LoopbackTarget> peer;
    AsioVelmora* driver = nullptr;
    Host host;
};

class Formats : public Stream, public ::testing::WithParamInterface<Case> {};

TEST_P(Formats, ArriveBitExact) {
    const Case& c = GetParam();
    prepare(c);
    ASSERT_EQ(driver->start(), ASE_OK);
    EXPECT_TRUE(waitForCalls(std::uint64_t(c.rate / c.bufferSize)));  // a second
    // The host is ahead of the sink by the ring and what is on its way, no more.
    const double wireBytes = c.wire == OnWire::highThree ? 3 : c.sampleBytes;
    const double taken = double(peer->sink.playStats().bytes) / (host.samples * host.channels * wireBytes);
    EXPECT_LE(double(host.calls.load()), taken + 8 + 2) << "ring of 8 buffers";
    expectArrivedExactly(c);
}

INSTANTIATE_TEST_SUITE_P(Driver, Formats, ::testing::ValuesIn(cases),
                         [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

TEST_F(Stream, StartsAgainAtAnotherRateAndTellsTheHostItsPosition) {
    host.timeInfo = true;
    prepare(stereo16);
    ASSERT_EQ(driver->start(), ASE_OK);
    ASSERT_TRUE(waitForCalls(40));
    EXPECT_EQ(driver->stop(), ASE_OK);
    // The position steps by one buffer a call (velmora-play's report counts any other step).
    ASSERT_FALSE(host.times.empty());
    EXPECT_EQ(host.times[0].flags, 0xFu);

    // A rate set between runs takes effect at the next start; the host hears of the change once.
    ASSERT_EQ(driver->setSampleRate(48000), ASE_OK);
    host.calls = 0;
    host.times.clear();
    ASSERT_EQ(driver->start(), ASE_OK);
    ASSERT_TRUE(waitForCalls(100));
    expectArrivedExactly(stereo16);
    ASSERT_GE(host.times.size(), 2u);
    EXPECT_EQ(host.times[0].flags, 0x1Fu);
    EXPECT_EQ(host.times[1].flags, 0xFu);
    EXPECT_EQ(host.times[0].position, 0u);
    const std::vector<std::uint8_t> header = user.read<std::vector<std::uint8_t>>("stream.wav");
    ASSERT_GE(header.size(), 44u);
    EXPECT_EQ(header[24] | header[25] << 8 | header[26] << 16, 48000) << "the WAV's rate";
    EXPECT_EQ(peer->sink.requestsOf(VELMORA::MessageType::CONNECTPRE_REQ).size(), 2u);
}

TEST_F(Stream, PlayWaitsForTheStartDelay) {
    for (auto [settings, leastMs] : {std::pair{"", 10}, {"StartDelay=50000\n", 60}}) {
        SCOPED_TRACE(settings);
        prepare(stereo16, settings);
        const auto started = Clock::now();
        ASSERT_EQ(driver->start(), ASE_OK);
        waitUntil([&] { return driver->sync.playing != 0; });
        EXPECT_GE(Clock::now() - started, leastMs * 1ms);
        EXPECT_EQ(driver->sync.playing, 1);
        release();
    }
}

#ifdef __linux__
// This process's threads and the processors each may run on.
std::map<pid_t, std::uint64_t> threadMasks() {
    std::map<pid_t, std::uint64_t> masks;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        pid_t id = pid_t(std::stol(entry.path().filename().string()));
        cpu_set_t set;
        CPU_ZERO(&set);
        if (sched_getaffinity(id, sizeof set, &set) != 0) continue;  // ended meanwhile
        for (int cpu = 0; cpu < 64; ++cpu) masks[id] |= std::uint64_t(CPU_ISSET(cpu, &set) ? 1 : 0) << cpu;
    }
    return masks;
}

// With CpuSend in ThredMode and CpuOther, start puts every thread of the
// process on CpuOther's processors, and stop gives each back what it had.
TEST_F(Stream, CpuOtherHoldsTheProcessThreadsUntilStop) {
    if (NORVA::processorCount() < 2) GTEST_SKIP() << "one processor: nothing to choose";
    prepare(stereo16);
    driver->settings.thredMode |= thredModeCpuSend;
    driver->settings.cpuOther = 0;
    driver->settings.cpuOtherCount = 1;
    const std::map<pid_t, std::uint64_t> before = threadMasks();
    ASSERT_EQ(driver->start(), ASE_OK);
    const std::map<pid_t, std::uint64_t> during = threadMasks();
    EXPECT_EQ(driver->stop(), ASE_OK);
    const std::map<pid_t, std::uint64_t> after = threadMasks();
    for (auto [id, mask] : before) {
        SCOPED_TRACE(id);
        // A thread that ended meanwhile has nothing to tell.
        EXPECT_EQ(during.count(id) != 0 ? during.at(id) : 0x1u, 0x1u);
        EXPECT_EQ(after.count(id) != 0 ? after.at(id) : mask, mask);
    }
    release();
}
#endif

// A vanished target loses the stream, and ResetOnLoss has the host asked once for a reset (without it the
// host isn't even asked whether it takes one: ChannelsTest); it may stop and dispose from inside the request.
// A deaf sink is asked on its status port after 4 quiet info times, before the 1 s receive timeout each loss
// waits out.
TEST_F(Stream, ALostStreamAsksTheHostForAReset) {
    for (bool stopsInside : {false, true}) {
        SCOPED_TRACE(stopsInside ? "stopped inside the request" : "the sink deaf first");
        host.calls = 0;
        host.resets = 0;
        host.onReset = nullptr;  // set before the stream's threads, which read it, exist
        if (stopsInside) host.onReset = [this] { driver->stop(), driver->disposeBuffers(); };
        sinkConfig.play.dropShare = stopsInside ? 0 : 1;
        streamStereo16(20, stopsInside ? "ResetOnLoss=enable\n" : "ResetOnLoss=enable\nInfoCycle=50000\n");
        if (!stopsInside) {
            EXPECT_TRUE(waitUntil(
                [&] { return !peer->sink.requestsOf(VELMORA::MessageType::SYNCHRO_STATUS_REQ).empty(); },
                3s));
            EXPECT_NE(driver->sync.connectState, VELMORA::Sync::idle) << "the status answer keeps it alive";
            EXPECT_EQ(host.resets, 0);
        }
        peer.reset();
        ASSERT_TRUE(waitUntil([&] { return host.resets > 0; })) << "the stream never ended";
        // Long enough for a second request.
        NORVA::sleepMilliseconds(200);
        EXPECT_TRUE(returnsWithin(3s, [&] { EXPECT_EQ(driver->stop(), ASE_OK); }));
        EXPECT_TRUE(returnsWithin(1s, [&] { EXPECT_EQ(driver->disposeBuffers(), ASE_OK); }));
        EXPECT_TRUE(returnsWithin(1s, [&] { release(); }));
        EXPECT_EQ(host.resets, 1);
    }
}

// Dispose or new buffers while running stop the stream, and release while streaming ends it: no call, nor a
// reset request, reaches the host after any of them, and the target is told.
TEST_F(Stream, CallsWhileRunningEndTheCallbacks) {
    auto expectNoMoreCalls = [this](const char* after) {
        const std::uint64_t calls = host.calls.load();
        NORVA::sleepMilliseconds(50);
        EXPECT_EQ(host.calls.load(), calls) << "a call after " << after;
    };
    streamStereo16(20, "ResetOnLoss=enable\n");
    EXPECT_EQ(driver->disposeBuffers(), ASE_OK);
    expectNoMoreCalls("dispose");
    EXPECT_EQ(driver->start(), ASE_NotPresent) << "no buffers left";

    makeBuffers(stereo16.bufferSize);
    ASSERT_EQ(driver->start(), ASE_OK);
    ASSERT_TRUE(waitForCalls(host.calls.load() + 20));
    makeBuffers(stereo16.bufferSize);
    expectNoMoreCalls("new buffers");

    ASSERT_EQ(driver->start(), ASE_OK);
    ASSERT_TRUE(waitForCalls(host.calls.load() + 20));
    EXPECT_TRUE(returnsWithin(3s, [&] { release(); }));
    expectNoMoreCalls("release");
    EXPECT_FALSE(peer->sink.isConnected()) << "the target was told";
    EXPECT_EQ(host.resets, 0);
}

}  // namespace
