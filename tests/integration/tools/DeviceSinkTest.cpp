// A stream through the driver's stream engine to velmora-target playing to
// jackd's dummy backend (clocked, no sound card) under a name of the test's
// own, as a JACK client or through the ALSA JACK plugin; a capture client
// records what reaches the server. JACK's float holds every 16-bit sample
// exactly, so the capture must be the source bit for bit after its leading
// silence, without an underrun or xrun where the server keeps its own
// deadlines (a busy or virtual machine may not: then the stream is skipped).
//
// Arguments: <velmora-target> <jackd> <seconds of audio>.
#include <jack/jack.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "../StreamHost.h"
#include "../TargetProcess.h"

namespace {

using namespace StreamHost;

std::string toolPath, jackdPath;
int seconds = 4;

const VELMORA::FormatID stereoS16At48k(0x202u, 0x000Cu);
constexpr unsigned channels = 2;
constexpr std::uint32_t frameBytes = 4;

// jackd -d dummy under a name of its own, ended at the test's end.
struct JackServer {
    explicit JackServer(const std::string& suffix)
        : name("velmora-test-" + std::to_string(getpid()) + "-" + suffix) {
        setenv("JACK_DEFAULT_SERVER", name.c_str(), 1);
        start();
    }
    ~JackServer() { stop(); }
    void start() {
        pid = fork();
        if (pid == 0) {
            // Its chatter (the dummy backend's timing notes) would drown the test's output.
            std::freopen("/dev/null", "w", stdout);
            execl(jackdPath.c_str(), "jackd", "-S", "-P", "80", "-n", name.c_str(), "-d", "dummy", "-r",
                  "48000", "-p", "64", static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    void stop() {
        if (pid <= 0) return;
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }
    const std::string name;
    pid_t pid = -1;
};

// Records every sample of its ports into memory made beforehand.
class Capture {
  public:
    Capture(const std::string& server, std::size_t frames) : samples(channels, std::vector<float>(frames)) {
        for (int tries = 0; tries < 100 && client == nullptr; ++tries) {
            client = jack_client_open("capture", jack_options_t(JackNoStartServer | JackServerName), nullptr,
                                      server.c_str());
            if (client == nullptr) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (client == nullptr) return;
        for (unsigned c = 0; c < channels; ++c) {
            std::string port = "in_" + std::to_string(c + 1);
            ports[c] = jack_port_register(client, port.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
        }
        jack_set_process_callback(client, &Capture::process, this);
        jack_set_xrun_callback(client, &Capture::xrun, this);
        jack_activate(client);
    }
    ~Capture() {
        if (client != nullptr) jack_client_close(client);
    }
    bool connectFrom(const std::string& sinkClient) {
        for (unsigned c = 0; c < channels; ++c) {
            std::string from = sinkClient + ":out_" + std::to_string(c + 1);
            if (jack_connect(client, from.c_str(), jack_port_name(ports[c])) != 0) return false;
        }
        return true;
    }

    jack_client_t* client = nullptr;
    std::vector<std::vector<float>> samples;
    std::atomic<std::size_t> recorded{0};
    std::atomic<unsigned> xruns{0}, xrunsBeforeSound{0};

  private:
    static int process(jack_nframes_t frames, void* self) {
        auto* capture = static_cast<Capture*>(self);
        std::size_t at = capture->recorded.load(std::memory_order_relaxed);
        std::size_t taken = std::min<std::size_t>(frames, capture->samples[0].size() - at);
        const float* in[channels];
        bool sound = at != 0;
        for (unsigned c = 0; c < channels; ++c) {
            in[c] = static_cast<const float*>(jack_port_get_buffer(capture->ports[c], frames));
            sound = sound || std::any_of(in[c], in[c] + frames, [](float v) { return v != 0; });
        }
        // The silence before the sink's clock starts takes no room: its
        // length depends on how long the set-up took.
        if (!sound) return 0;
        if (at == 0) capture->xrunsBeforeSound.store(capture->xruns.load());
        for (unsigned c = 0; c < channels; ++c)
            std::copy(in[c], in[c] + taken, capture->samples[c].begin() + std::ptrdiff_t(at));
        capture->recorded.store(at + taken, std::memory_order_release);
        return 0;
    }
    static int xrun(void* self) {
        static_cast<Capture*>(self)->xruns.fetch_add(1);
        return 0;
    }
    jack_port_t* ports[channels] = {};
};

// Source sample i (frames and channels interleaved) as JACK should play it.
float expectedSample(std::uint64_t i) {
    auto value = std::int16_t(std::uint16_t(patternByte(2 * i) | patternByte(2 * i + 1) << 8));
    return float(value) / 32768.0f;
}

// How up to `frames` frames of the capture from its first sound follow the
// source: the source frame they start at (of its cycle of 251 frames, which
// holds no zero; 251 for none), the frames that don't follow the one before,
// and the runs of silence between them.
struct Followed {
    std::size_t lead = 0;
    std::uint64_t start = 0;
    std::size_t wrong = 0, gaps = 0;
};

Followed follow(const Capture& capture, std::size_t frames) {
    const std::vector<std::vector<float>>& in = capture.samples;
    auto silent = [&](std::size_t f) { return in[0][f] == 0 && in[1][f] == 0; };
    auto holds = [&](std::size_t f, std::uint64_t n) {
        return in[0][f] == expectedSample(2 * n) && in[1][f] == expectedSample(2 * n + 1);
    };
    Followed result;
    const std::size_t end = capture.recorded.load();
    while (result.lead < end && silent(result.lead)) ++result.lead;
    while (result.lead < end && result.start < 251 && !holds(result.lead, result.start)) ++result.start;
    std::uint64_t next = result.start;
    bool wasSilent = false;
    for (std::size_t f = result.lead; f < std::min(end, result.lead + frames); ++f) {
        result.gaps += silent(f) && !wasSilent;
        wasSilent = silent(f);
        if (!wasSilent) result.wrong += !holds(f, next++);
    }
    return result;
}

// Played as a JACK client, or through ALSA's JACK plugin.
class DeviceSink : public ::testing::TestWithParam<bool> {};

TEST_P(DeviceSink, StreamArrivesBitExactOnTheServersClockWithoutXruns) {
    const bool alsa = GetParam();
    JackServer server(alsa ? "alsa" : "jack");
    Capture capture(server.name, std::size_t(seconds + 2) * 48000);
    ASSERT_NE(capture.client, nullptr) << "jackd -d dummy did not start";
    std::this_thread::sleep_for(std::chrono::seconds(1));
    unsigned idleXruns = capture.xruns.exchange(0);

    // The ALSA device "velmora": the plugin's ports led to the capture's, in
    // the ~/.asoundrc of a home of the test's own, which holds the statistics too.
    TempFolder home;
    const std::string json = home.file("sink.json");
    if (alsa) {
        std::ofstream(home.file(".asoundrc")) << "pcm.velmora {\n  type jack\n  playback_ports {\n    0 "
                                                 "capture:in_1\n    1 capture:in_2\n  }\n}\n";
        ASSERT_EQ(setenv("HOME", home.path.c_str(), 1), 0);
    }
    TargetProcess target(
        toolPath,
        TargetProcess::anyPorts({"--sink", "1,0,Main out", alsa ? "--alsa" : "--jack",
                                 alsa ? "velmora" : "velmora-test", "--latency", std::to_string(latencyUnits),
                                 "--stats-json", json, "--log-level", "3"}));
    ASSERT_TRUE(alsa || capture.connectFrom("velmora-test"));
    PatternBuffer host;
    StreamHost::start(host, target, stereoS16At48k);
    if (IsSkipped() || HasFatalFailure()) return;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    finish(host, target);
    if (HasFatalFailure()) return;

    SinkReport report(json);
    EXPECT_GE(report.xruns, 0) << "the statistics count the device's xruns";
    // An xrun of the server itself drops or repeats a period for every
    // client: the stream can't be judged then. Without one, the sink must have none.
    if (capture.xruns.load() != 0)
        GTEST_SKIP() << "jackd missed " << capture.xruns.load() << " deadlines (" << idleXruns
                     << " in the idle second before): this machine can't judge the stream";
    EXPECT_EQ(report.xruns, 0) << "xruns of the sink's device";
    EXPECT_EQ(report.underruns, 0) << "the sink ran dry";

    std::uint64_t sourceFrames = host.filled / frameBytes;
    ASSERT_GT(sourceFrames, std::uint64_t(seconds) * 48000 * 9 / 10);
    Followed played = follow(capture, sourceFrames);
    ASSERT_GE(capture.recorded.load(), played.lead + sourceFrames) << "the source came out short";
    EXPECT_TRUE(played.start == 0 && played.wrong == 0 && played.gaps == 0)
        << "from source frame " << played.start << ": " << played.wrong << " frames of " << sourceFrames
        << " wrong, " << played.gaps << " gaps";
}

// The server goes away mid-stream and comes back: the sink says so, keeps
// the host's stream going meanwhile, joins the new server by itself, and
// plays the stream on from where it stands, in order.
TEST(DeviceSinkLoss, TheServerGoingAndComingBackIsToldAndTheStreamPlaysOn) {
    JackServer server("loss");
    auto first = std::make_unique<Capture>(server.name, 1);
    ASSERT_NE(first->client, nullptr) << "jackd -d dummy did not start";
    TargetProcess target(
        toolPath,
        TargetProcess::anyPorts({"--sink", "1,0,Main out", "--jack", "velmora-test", "--latency",
                                 std::to_string(latencyUnits), "--log-level", "5",
                                 // Arrivals in bursts of a few milliseconds: a ring the
                                 // return left empty would run dry between them.
                                 "--batch-wait", "4000"}),
        true);
    PatternBuffer host;
    StreamHost::start(host, target, stereoS16At48k);
    if (IsSkipped() || HasFatalFailure()) return;
    std::this_thread::sleep_for(std::chrono::seconds(1));
    first.reset();
    server.stop();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    server.start();

    constexpr std::size_t judged = 48000;  // a second of what plays after the return
    Capture capture(server.name, 2 * judged);
    ASSERT_NE(capture.client, nullptr) << "jackd -d dummy did not start again";
    int tries = 0;
    while (!capture.connectFrom("velmora-test") && ++tries < 100)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_LT(tries, 100) << "the sink did not join the server again";
    for (int waits = 0; waits < 200 && capture.recorded.load() < 2 * judged; ++waits)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    finish(host, target);
    if (HasFatalFailure()) return;
    EXPECT_NE(target.printed.find("JACK server gone"), std::string::npos) << target.printed;
    EXPECT_NE(target.printed.find("JACK server back"), std::string::npos) << target.printed;

    ASSERT_EQ(capture.recorded.load(), 2 * judged) << "the stream stopped reaching the server";
    // Nothing lost and nothing stale; silence may come between the frames
    // only where jackd itself missed a deadline.
    Followed played = follow(capture, judged);
    ASSERT_LT(played.start, 251u) << "what plays isn't the source";
    unsigned missed = capture.xruns.load() - capture.xrunsBeforeSound.load();
    std::printf("after the return: %zu gaps, jackd missed %u deadlines\n", played.gaps, missed);
    EXPECT_EQ(played.wrong, 0u) << "frames out of the source's order after the server came back";
    EXPECT_LE(played.gaps, missed) << "the sink ran dry after the server came back";
}

TEST(DeviceSinkOptions, ChoicesADeviceCantHonourAreRefusedWithTheReason) {
    JackServer server("options");
    // A program that took the options would run on: 10 s ends it.
    auto runTarget = [](const std::string& options) {
        return runCommand("timeout 10 " + toolPath +
                          " --control-port 0 --registration-port 0 --log-port 0 --syslog-port 0 " + options);
    };
    Capture waitForServer(server.name, 1);
    ASSERT_NE(waitForServer.client, nullptr) << "jackd -d dummy did not start";
    const std::pair<const char*, const char*> cases[] = {
        {"--jack --sink 1,0,A", "names the output of the --sink before it"},
        {"--sink 1,0,A --jack --alsa hw:0", "one output per sink"},
        {"--sink 1,0,A --alsa", "--alsa needs a device"},
        {"--sink 1,0,A --jack x --wav /tmp/never.wav", "--wav: every sink plays to a device"},
        {"--sink 1,0,A --jack x --ppm 100", "every sink plays on its device's clock"},
        {"--sink 1,0,A --jack x --dsd-lsb 0x2510002:0xC", "JACK plays PCM only"},
        {"--sink 1,0,A --jack x --pcm 0x0E02:0x000A", "at the JACK server's 48000 Hz"},  // 44.1 kHz only
        {"--sink 1,0,A --alsa velmora-no-such-device", "ALSA device velmora-no-such-device: can't open it"},
    };
    for (auto [options, reason] : cases) {
        auto [code, printed] = runTarget(options);
        EXPECT_EQ(code, 2) << options << "\n" << printed;
        EXPECT_NE(printed.find(reason), std::string::npos) << options << "\n" << printed;
    }
    ASSERT_EQ(setenv("JACK_DEFAULT_SERVER", "velmora-no-such-server", 1), 0);
    auto [code, printed] = runTarget("--sink 1,0,A --jack");
    EXPECT_EQ(code, 2);
    EXPECT_NE(printed.find("can't reach the JACK server"), std::string::npos) << printed;
}

INSTANTIATE_TEST_SUITE_P(Outputs, DeviceSink, ::testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "alsa" : "jack"); });

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    std::string secondsText;
    if (!takeArguments(argc, argv, {&toolPath, &jackdPath, &secondsText},
                       "<velmora-target> <jackd> <seconds, at least 2>"))
        return 2;
    seconds = std::max(2, std::atoi(secondsText.c_str()));
    return RUN_ALL_TESTS();
}
