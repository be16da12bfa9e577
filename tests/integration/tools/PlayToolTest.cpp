// velmora-play and velmora-log: the player's sample handling and comparison
// in process, and the programs as a user runs them against the driver
// library and velmora-target on the loopback address.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Compare.h"
#include "HostSource.h"
#include "Network/Socket.h"
#include "PlayOptions.h"
#include "Sink/StreamDigest.h"
#include "Sink/WavWriter.h"

namespace {

std::string playPath, targetPath, logPath, driverPath;

// A fresh directory, removed with what it holds.
class TempDir {
  public:
    TempDir() {
        char pattern[] = "/tmp/velmora-play-test-XXXXXX";
        path = mkdtemp(pattern);
    }
    ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
    std::string path;
};

WavData stereo16(const std::vector<std::int16_t>& samples) {
    WavData wav;
    wav.channels = 2;
    wav.rate = 48000;
    wav.bits = 16;
    for (std::int16_t s : samples) {
        wav.data.push_back(std::uint8_t(s));
        wav.data.push_back(std::uint8_t(std::uint16_t(s) >> 8));
    }
    return wav;
}

std::vector<std::uint8_t> channelBytes(const HostSource& source, unsigned channel) {
    std::vector<std::uint8_t> out(source.bytesPerChannel());
    source.fill(channel, 0, out.data(), std::uint32_t(out.size()));
    return out;
}

TEST(PlaySource, IntegerSamplesKeepTheirValueInAWiderType) {
    TempDir dir;
    std::string error;
    ASSERT_TRUE(writeWav(dir.path + "/in.wav", stereo16({0x1234, -2, -32768, 32767}), error)) << error;
    WavData wav;
    ASSERT_TRUE(readWav(dir.path + "/in.wav", wav, error)) << error;
    HostSource source;
    ASSERT_TRUE(source.fromWav(wav, ASIOSTInt24LSB, 2, error)) << error;
    EXPECT_EQ(channelBytes(source, 0), (std::vector<std::uint8_t>{0, 0x34, 0x12, 0, 0x00, 0x80}));
    EXPECT_EQ(channelBytes(source, 1), (std::vector<std::uint8_t>{0, 0xFE, 0xFF, 0, 0xFF, 0x7F}));
    // Past the end comes silence.
    std::uint8_t tail[4] = {1, 1, 1, 1};
    source.fill(0, 4, tail, 4);
    EXPECT_EQ(std::vector<std::uint8_t>(tail, tail + 4), (std::vector<std::uint8_t>{0x00, 0x80, 0, 0}));
}

TEST(PlaySource, FloatInputIsRoundedAndClampedForIntegerOutputs) {
    WavData wav;
    wav.formatTag = WavData::ieeeFloat;
    wav.channels = 1;
    wav.rate = 44100;
    wav.bits = 32;
    for (float value : {1.0f, -1.0f, 0.5f, -0.25f}) {
        std::uint8_t bytes[4];
        std::memcpy(bytes, &value, 4);
        wav.data.insert(wav.data.end(), bytes, bytes + 4);
    }
    HostSource source;
    std::string error;
    ASSERT_TRUE(source.fromWav(wav, ASIOSTInt16LSB, 4, error)) << error;
    EXPECT_EQ(channelBytes(source, 0),
              (std::vector<std::uint8_t>{0xFF, 0x7F, 0x00, 0x80, 0x00, 0x40, 0x00, 0xE0}));
}

TEST(PlaySource, GivenFileInterleavesTheChannelsAndEndsInSilence) {
    TempDir dir;
    HostSource source;
    std::string error;
    ASSERT_TRUE(source.makeSignal({SignalSpec::noise, 0}, ASIOSTInt32LSB, 2, 48000, 8, error)) << error;
    // Ten frames were given: the eight of the source and two of silence.
    ASSERT_TRUE(source.writeGiven(dir.path + "/given.wav", 40, 48000, error)) << error;
    WavData given;
    ASSERT_TRUE(readWav(dir.path + "/given.wav", given, error)) << error;
    ASSERT_EQ(given.frames(), 10u);
    EXPECT_EQ(given.bits, 32);
    std::vector<std::uint8_t> left = channelBytes(source, 0), right = channelBytes(source, 1);
    for (int frame = 0; frame < 8; ++frame) {
        EXPECT_EQ(std::memcmp(given.data.data() + frame * 8, left.data() + frame * 4, 4), 0) << frame;
        EXPECT_EQ(std::memcmp(given.data.data() + frame * 8 + 4, right.data() + frame * 4, 4), 0) << frame;
    }
    EXPECT_EQ(given.sample(8, 0), 0.0);
    EXPECT_EQ(given.sample(9, 1), 0.0);
}

TEST(PlaySource, DsdBitOrdersAreMirrorImages) {
    HostSource lsb, msb;
    std::string error;
    ASSERT_TRUE(lsb.makeSignal({}, ASIOSTDSDInt8LSB1, 1, 2822400, 8000, error)) << error;
    ASSERT_TRUE(msb.makeSignal({}, ASIOSTDSDInt8MSB1, 1, 2822400, 8000, error)) << error;
    std::vector<std::uint8_t> a = channelBytes(lsb, 0), b = channelBytes(msb, 0);
    ASSERT_EQ(a.size(), 1000u);
    int ones = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::uint8_t mirrored = 0;
        for (int bit = 0; bit < 8; ++bit) mirrored |= std::uint8_t(((a[i] >> bit) & 1) << (7 - bit));
        ASSERT_EQ(mirrored, b[i]) << i;
        ones += __builtin_popcount(a[i]);
    }
    // A sine's density averages out to half.
    EXPECT_NEAR(ones, 4000, 200);
    // Silence past the end is DSD's idle pattern, not zeros.
    std::uint8_t idle = 0;
    lsb.fill(0, 1000, &idle, 1);
    EXPECT_EQ(idle, 0x69);
}

TEST(PlayCompare, MatchesAfterLeadsOfDifferentLength) {
    WavData given = stereo16({0, 0, 5, -5, 7, 8, 0, 0});
    WavData sink = stereo16({0, 0, 0, 0, 0, 0, 5, -5, 7, 8});
    Comparison result = compareWav(given, sink);
    EXPECT_TRUE(result.exact) << result.text();
    EXPECT_EQ(result.givenLead, 1u);
    EXPECT_EQ(result.sinkLead, 3u);
    EXPECT_EQ(result.text().substr(0, 15), "bit-exact: yes ");
}

TEST(PlayCompare, FindsADifferenceAShortSinkAndAnotherFormat) {
    WavData given = stereo16({1, 2, 3, 4, 5, 6});
    Comparison changed = compareWav(given, stereo16({1, 2, 3, 5, 5, 6}));
    EXPECT_FALSE(changed.exact);
    EXPECT_TRUE(changed.differs);
    EXPECT_EQ(changed.firstDifference, 1u);

    Comparison shortSink = compareWav(given, stereo16({0, 0, 1, 2, 3, 4}));
    EXPECT_FALSE(shortSink.exact);
    EXPECT_FALSE(shortSink.differs);
    EXPECT_NE(shortSink.text().find("only 2 of 3 frames"), std::string::npos) << shortSink.text();

    WavData wider = given;
    wider.bits = 32;
    wider.channels = 1;
    EXPECT_NE(compareWav(given, wider).text().find("formats differ"), std::string::npos);
    EXPECT_FALSE(compareWav(stereo16({0, 0}), stereo16({0, 0})).exact) << "silence proves nothing";
}

// DSD goes out in 32-bit words per channel: the given file has them so, under
// the header a sink writes, and matches the sink's file after its idle
// pattern; the fingerprint of what was handed over is the sink's.
TEST(PlayCompare, DsdGivenMatchesTheSinksFileAfterItsIdlePattern) {
    TempDir dir;
    HostSource source;
    std::string error;
    const std::uint64_t perChannel = VELMORA::StreamDigest::checkpointBytes / 2;
    ASSERT_TRUE(
        source.makeSignal({SignalSpec::noise, 0}, ASIOSTDSDInt8LSB1, 2, 2822400, perChannel * 8, error));
    ASSERT_TRUE(source.writeGiven(dir.path + "/given.wav", perChannel + 8, 2822400, error)) << error;
    WavData given, received;
    ASSERT_TRUE(readWav(dir.path + "/given.wav", given, error)) << error;
    std::vector<std::uint8_t> left = channelBytes(source, 0), right = channelBytes(source, 1);
    EXPECT_EQ(std::memcmp(given.data.data(), left.data(), 4), 0);
    EXPECT_EQ(std::memcmp(given.data.data() + 4, right.data(), 4), 0);
    EXPECT_EQ(std::memcmp(given.data.data() + 8, left.data() + 4, 4), 0);

    VELMORA::WavWriter sink;
    std::vector<std::uint8_t> idle(24, 0x69);
    ASSERT_TRUE(sink.open(dir.path + "/sink.wav", 2822400, 2, 1));
    ASSERT_TRUE(sink.write(idle.data(), idle.size()) && sink.write(given.data.data(), given.data.size()));
    ASSERT_TRUE(sink.close());
    ASSERT_TRUE(readWav(dir.path + "/sink.wav", received, error)) << error;
    Comparison result = compareWav(given, received);
    EXPECT_TRUE(result.exact) << result.text();
    EXPECT_EQ(result.sinkLead, 12u) << "frames of one byte per channel";

    VELMORA::StreamDigest handed, arrived;
    source.digest(perChannel + 8, handed);
    arrived.reset(8, 0x69);
    arrived.feed(received.data.data(), received.data.size());
    EXPECT_EQ(handed.lead(), 0u);
    EXPECT_EQ(arrived.lead(), 24u);
    EXPECT_EQ(handed.length(), 2 * perChannel) << "the idle tail isn't the source's";
    ASSERT_EQ(handed.checkpoints().size(), 1u);
    ASSERT_EQ(arrived.checkpoints().size(), 1u);
    EXPECT_EQ(handed.checkpoints()[0].hash, arrived.checkpoints()[0].hash);

    received.data[100] ^= 1;
    EXPECT_EQ(compareWav(given, received).firstDifference, 38u);
}

TEST(PlayOptionsTest, ContradictionsAreRefused) {
    auto refused = [](std::vector<std::string> words) {
        std::vector<char*> argv = {const_cast<char*>("velmora-play")};
        for (std::string& word : words) argv.push_back(word.data());
        PlayOptions options;
        std::string error;
        return !options.parse(int(argv.size()), argv.data(), error) && !error.empty();
    };
    EXPECT_TRUE(refused({"--wav", "a.wav", "--signal", "noise"}));
    EXPECT_TRUE(refused({"--wav", "a.wav", "--dsd"}));
    EXPECT_TRUE(refused({"--compare", "a.wav", "b.wav", "--rate", "48000"}));
    EXPECT_TRUE(refused({"--signal", "square"}));
    EXPECT_TRUE(refused({"--buffer", "12.5"}));
    EXPECT_TRUE(refused({"--name", "X"})) << "no registry here";
    EXPECT_FALSE(refused({"--signal", "sine:440", "--rate", "96000", "--channels", "2", "--seconds", "1"}));
}

// ---- The programs --------------------------------------------------------

struct Outcome {
    int code = -1;
    std::string output;
};

Outcome runProgram(const std::string& command) {
    Outcome outcome;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return outcome;
    char buffer[4096];
    std::size_t got = 0;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) outcome.output.append(buffer, got);
    int status = pclose(pipe);
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

// A program in the background until the object ends; ready once its output
// holds `readyText`.
class Background {
  public:
    Background(const std::vector<std::string>& arguments, const std::string& outputPath,
               const std::string& readyText) {
        pid = fork();
        if (pid == 0) {
            FILE* out = fopen(outputPath.c_str(), "w");
            dup2(fileno(out), STDOUT_FILENO);
            dup2(fileno(out), STDERR_FILENO);
            std::vector<char*> argv;
            for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        for (int tries = 0; tries < 200 && !ready; ++tries) {
            usleep(25000);
            ready = readFile(outputPath).find(readyText) != std::string::npos;
        }
    }
    // Ends the program as a user's Ctrl-C would; true if it exited cleanly.
    bool end() {
        if (pid <= 0) return false;
        kill(pid, SIGTERM);
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    ~Background() { end(); }
    bool ready = false;

  private:
    pid_t pid = -1;
};

std::string settingsFolder(const TempDir& dir) {
    std::string folder = dir.path + "/config/KESTRANE Velmora";
    std::system(("mkdir -p '" + folder + "'").c_str());
    std::ofstream(folder + "/setting.inf") << "TargetAddress=::1,19642\r\nInterLoopback=enable\r\n";
    return dir.path + "/config";
}

TEST(PlayTool, WithoutATargetTheDriversErrorTextIsReported) {
    TempDir dir;
    std::string config = settingsFolder(dir);
    Outcome outcome = runProgram(playPath + " --driver " + driverPath + " --settings " + config + " --json " +
                                 dir.path + "/report.json");
    EXPECT_EQ(outcome.code, 4) << outcome.output;
    EXPECT_NE(outcome.output.find("error text   Velmora"), std::string::npos) << outcome.output;
    std::string json = readFile(dir.path + "/report.json");
    // Every call with its duration, the release too.
    EXPECT_NE(json.find("\"calls\":[{\"call\":\"init\",\"result\":0,\"ms\":"), std::string::npos) << json;
    EXPECT_NE(json.find("{\"call\":\"release\",\"result\":0,\"ms\":"), std::string::npos) << json;
    EXPECT_NE(outcome.output.find("init=false ("), std::string::npos) << outcome.output;
    EXPECT_NE(json.find("\"exitCode\":4"), std::string::npos) << json;
}

TEST(PlayTool, AMissingDriverOrSettingsFolderIsAClearError) {
    TempDir dir;
    Outcome noDriver = runProgram(playPath + " --driver " + dir.path + "/none.so");
    EXPECT_EQ(noDriver.code, 3);
    EXPECT_NE(noDriver.output.find("can't load the driver"), std::string::npos) << noDriver.output;
    Outcome noSettings = runProgram(playPath + " --driver " + driverPath + " --settings " + dir.path);
    EXPECT_EQ(noSettings.code, 2);
    EXPECT_NE(noSettings.output.find("no \"KESTRANE Velmora/setting.inf\""), std::string::npos)
        << noSettings.output;
}

// The whole host's order against a target whose sink writes what it
// receives: the sink's file holds exactly what the driver was given.
TEST(PlayTool, PlaysToTheSinkBitForBit) {
    TempDir dir;
    Background target({targetPath, "--loopback", "--name", "Desk", "--sink", "1,0,Main out", "--wav",
                       dir.path + "/sink.wav"},
                      dir.path + "/target.out", "sink 1:");
    ASSERT_TRUE(target.ready) << readFile(dir.path + "/target.out");
    std::string config = settingsFolder(dir);
    Outcome play = runProgram(playPath + " --driver " + driverPath + " --settings " + config +
                              " --signal noise --seconds 1 --buffer 256 --given " + dir.path +
                              "/given.wav --json " + dir.path + "/report.json");
    ASSERT_TRUE(target.end());
    ASSERT_EQ(play.code, 0) << play.output;
    EXPECT_NE(play.output.find("\"Desk"), std::string::npos) << play.output;
    std::string json = readFile(dir.path + "/report.json");
    // Every callback moved the position by one buffer and switched halves.
    EXPECT_NE(json.find("\"positionJumps\":0,\"indexRepeats\":0"), std::string::npos) << json;
    EXPECT_NE(json.find("\"timeline\":[[0,"), std::string::npos) << json;
    Outcome compare =
        runProgram(playPath + " --compare " + dir.path + "/given.wav " + dir.path + "/sink.wav");
    EXPECT_EQ(compare.code, 0) << compare.output << play.output;
}

TEST(LogTool, PrintsTheDriversLinesReadably) {
    TempDir dir;
    Background log({logPath, "--port", "0", "--file", dir.path + "/lines"}, dir.path + "/out", "listening");
    ASSERT_TRUE(log.ready) << readFile(dir.path + "/out");
    unsigned port = 0;
    std::string out = readFile(dir.path + "/out");
    ASSERT_EQ(std::sscanf(out.c_str() + out.find("]:") + 2, "%u", &port), 1) << out;
    NORVA::UDPV6 sender;
    ASSERT_TRUE(sender.open(NORVA::Socket::udp6));
    std::string line = "<131>Nov 23 08:54:46 localhost Velmora get info err";
    ASSERT_TRUE(
        sender.sendTo(NORVA::IPAddress::loopback(std::uint16_t(port)), false, line.data(), line.size()));
    std::string lines;
    for (int tries = 0; tries < 100 && lines.empty(); ++tries) {
        usleep(20000);
        lines = readFile(dir.path + "/lines");
    }
    EXPECT_TRUE(log.end());
    EXPECT_EQ(lines, "Nov 23 08:54:46 error Velmora get info err\n");
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s <velmora-play> <velmora-target> <velmora-log> <driver library>\n",
                     argv[0]);
        return 2;
    }
    playPath = argv[1];
    targetPath = argv[2];
    logPath = argv[3];
    driverPath = argv[4];
    return RUN_ALL_TESTS();
}
