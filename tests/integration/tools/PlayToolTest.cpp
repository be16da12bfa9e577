// velmora-play and velmora-log: the player's sample handling and comparison
// in process, and the programs as a user runs them against the driver
// library and velmora-target on the loopback address.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "../TargetProcess.h"
#include "Compare.h"
#include "HostSource.h"
#include "Network/Socket.h"
#include "PlayOptions.h"
#include "Sink/StreamDigest.h"
#include "Sink/WavWriter.h"
#include "TestFormats.h"

namespace {

std::string playPath, targetPath, logPath, driverPath;

WavData stereo16(const std::vector<std::int16_t>& samples) {
    WavData wav{WavData::pcm, 2, 48000, 16, {}};
    for (std::int16_t s : samples) wav.data.insert(wav.data.end(), {std::uint8_t(s), std::uint8_t(s >> 8)});
    return wav;
}

std::vector<std::uint8_t> channelBytes(const HostSource& source, unsigned channel) {
    std::vector<std::uint8_t> out(source.bytesPerChannel());
    source.fill(channel, 0, out.data(), std::uint32_t(out.size()));
    return out;
}

// Integers keep their value in a wider type, floats are rounded and clamped.
TEST(PlaySource, WavSamplesConvertToTheDriversType) {
    HostSource source;
    std::string error;
    ASSERT_TRUE(source.fromWav(stereo16({0x1234, -2, -32768, 32767}), ASIOSTInt24LSB, 2, error)) << error;
    EXPECT_EQ(channelBytes(source, 0), (std::vector<std::uint8_t>{0, 0x34, 0x12, 0, 0x00, 0x80}));
    EXPECT_EQ(channelBytes(source, 1), (std::vector<std::uint8_t>{0, 0xFE, 0xFF, 0, 0xFF, 0x7F}));
    // Past the end comes silence.
    std::uint8_t tail[4] = {1, 1, 1, 1};
    source.fill(0, 4, tail, 4);
    EXPECT_EQ(std::vector<std::uint8_t>(tail, tail + 4), (std::vector<std::uint8_t>{0x00, 0x80, 0, 0}));

    const float values[] = {1.0f, -1.0f, 0.5f, -0.25f};
    WavData floats{WavData::ieeeFloat, 1, 44100, 32, std::vector<std::uint8_t>(sizeof values)};
    std::memcpy(floats.data.data(), values, sizeof values);
    ASSERT_TRUE(source.fromWav(floats, ASIOSTInt16LSB, 4, error)) << error;
    EXPECT_EQ(channelBytes(source, 0),
              (std::vector<std::uint8_t>{0xFF, 0x7F, 0x00, 0x80, 0x00, 0x40, 0x00, 0xE0}));
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
        ASSERT_EQ(reversedBits(a[i]), b[i]) << i;
        ones += __builtin_popcount(a[i]);
    }
    // A sine's density averages out to half.
    EXPECT_NEAR(ones, 4000, 200);
    // Silence past the end is DSD's idle pattern, not zeros.
    std::uint8_t idle = 0;
    lsb.fill(0, 1000, &idle, 1);
    EXPECT_EQ(idle, 0x69);
}

TEST(PlayCompare, MatchesAfterLeadsAndFindsADifferenceAShortSinkAndAnotherFormat) {
    WavData given = stereo16({0, 0, 5, -5, 7, 8, 0, 0});
    Comparison result = compareWav(given, stereo16({0, 0, 0, 0, 0, 0, 5, -5, 7, 8}));
    EXPECT_TRUE(result.exact && result.givenLead == 1 && result.sinkLead == 3) << result.text();
    EXPECT_EQ(result.text().substr(0, 15), "bit-exact: yes ");

    given = stereo16({1, 2, 3, 4, 5, 6});
    Comparison changed = compareWav(given, stereo16({1, 2, 3, 5, 5, 6}));
    EXPECT_TRUE(!changed.exact && changed.differs && changed.firstDifference == 1) << changed.text();
    Comparison shortSink = compareWav(given, stereo16({0, 0, 1, 2, 3, 4}));
    EXPECT_FALSE(shortSink.exact || shortSink.differs);
    EXPECT_NE(shortSink.text().find("only 2 of 3 frames"), std::string::npos) << shortSink.text();
    WavData wider{WavData::pcm, 1, 48000, 32, given.data};
    EXPECT_NE(compareWav(given, wider).text().find("formats differ"), std::string::npos);
    EXPECT_FALSE(compareWav(stereo16({0, 0}), stereo16({0, 0})).exact) << "silence proves nothing";
}

// DSD goes out in 32-bit words per channel: the given file matches the sink's
// after its idle pattern, and so does the fingerprint of what was handed over.
TEST(PlayCompare, DsdGivenMatchesTheSinksFileAfterItsIdlePattern) {
    TempFolder dir;
    HostSource source;
    std::string error;
    const std::uint64_t perChannel = VELMORA::StreamDigest::checkpointBytes / 2;
    ASSERT_TRUE(
        source.makeSignal({SignalSpec::noise, 0}, ASIOSTDSDInt8LSB1, 2, 2822400, perChannel * 8, error));
    ASSERT_TRUE(source.writeGiven(dir.file("given.wav"), perChannel + 8, 2822400, error)) << error;
    WavData given, received;
    ASSERT_TRUE(readWav(dir.file("given.wav"), given, error)) << error;
    std::vector<std::uint8_t> left = channelBytes(source, 0), right = channelBytes(source, 1);
    const std::uint8_t* words[] = {left.data(), right.data(), left.data() + 4};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(std::memcmp(given.data.data() + 4 * i, words[i], 4), 0) << i;

    VELMORA::WavWriter sink;
    std::vector<std::uint8_t> idle(24, 0x69);
    ASSERT_TRUE(sink.open(dir.file("sink.wav"), 2822400, 2, 1));
    ASSERT_TRUE(sink.write(idle.data(), idle.size()) && sink.write(given.data.data(), given.data.size()));
    ASSERT_TRUE(sink.close());
    ASSERT_TRUE(readWav(dir.file("sink.wav"), received, error)) << error;
    Comparison result = compareWav(given, received);
    EXPECT_TRUE(result.exact) << result.text();
    EXPECT_EQ(result.sinkLead, 12u) << "frames of one byte per channel";

    VELMORA::StreamDigest handed, arrived;
    source.digest(perChannel + 8, handed);
    arrived.reset(8, 0x69);
    arrived.feed(received.data.data(), received.data.size());
    EXPECT_TRUE(handed.lead() == 0 && arrived.lead() == 24) << handed.lead() << " " << arrived.lead();
    EXPECT_EQ(handed.length(), 2 * perChannel) << "the idle tail isn't the source's";
    ASSERT_TRUE(handed.checkpoints().size() == 1 && arrived.checkpoints().size() == 1);
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

std::string settingsFolder(const TempFolder& dir) {
    std::string folder = dir.file("config/KESTRANE Velmora");
    std::filesystem::create_directories(folder);
    std::ofstream(folder + "/setting.inf") << "TargetAddress=::1,19642\r\nInterLoopback=enable\r\n";
    return dir.file("config");
}

TEST(PlayTool, ErrorsExitWithTheirCodeAndSayWhy) {
    TempFolder dir;
    std::string withDriver = playPath + " --driver " + driverPath + " --settings ";
    const struct {
        std::string command;
        int code;
        const char* text;
    } cases[] = {
        {playPath + " --driver " + dir.file("none.so"), 3, "can't load the driver"},
        {withDriver + dir.path.string(), 2, "no \"KESTRANE Velmora/setting.inf\""},
        // No target runs: the driver's own error text is reported.
        {withDriver + settingsFolder(dir) + " --json " + dir.file("report.json"), 4, "error text   Velmora"},
    };
    for (const auto& c : cases) {
        auto [code, output] = runCommand(c.command);
        EXPECT_EQ(code, c.code) << c.command << "\n" << output;
        EXPECT_NE(output.find(c.text), std::string::npos) << c.command << "\n" << output;
    }
    std::string json = readFile(dir.file("report.json"));
    // Every call with its duration, the release too.
    EXPECT_NE(json.find("\"calls\":[{\"call\":\"init\",\"result\":0,\"ms\":"), std::string::npos) << json;
    EXPECT_NE(json.find("{\"call\":\"release\",\"result\":0,\"ms\":"), std::string::npos) << json;
    EXPECT_NE(json.find("\"exitCode\":4"), std::string::npos) << json;
}

// The whole host's order against a target whose sink writes what it
// receives: the sink's file holds exactly what the driver was given.
TEST(PlayTool, PlaysToTheSinkBitForBit) {
    TempFolder dir;
    TargetProcess target(targetPath, {"--loopback", "--name", "Desk", "--sink", "1,0,Main out", "--wav",
                                      dir.file("sink.wav")});
    ASSERT_TRUE(target.ready()) << target.printed;
    auto [code, output] =
        runCommand(playPath + " --driver " + driverPath + " --settings " + settingsFolder(dir) +
                   " --signal noise --seconds 1 --buffer 256 --given " + dir.file("given.wav") + " --json " +
                   dir.file("report.json"));
    ASSERT_EQ(target.stop(), 0) << target.printed;
    ASSERT_EQ(code, 0) << output;
    EXPECT_NE(output.find("\"Desk"), std::string::npos) << output;
    std::string json = readFile(dir.file("report.json"));
    // Every callback moved the position by one buffer and switched halves.
    EXPECT_NE(json.find("\"positionJumps\":0,\"indexRepeats\":0"), std::string::npos) << json;
    EXPECT_NE(json.find("\"timeline\":[[0,"), std::string::npos) << json;
    auto compare = runCommand(playPath + " --compare " + dir.file("given.wav") + " " + dir.file("sink.wav"));
    EXPECT_EQ(compare.first, 0) << compare.second << output;
}

TEST(LogTool, PrintsTheDriversLinesReadably) {
    TempFolder dir;
    TargetProcess log(logPath, {"--port", "0", "--file", dir.file("lines")}, true, "listening on [::1]:");
    unsigned port = 0;
    ASSERT_EQ(std::sscanf(log.readyLine.c_str(), "velmora-log: listening on [::1]:%u", &port), 1)
        << log.printed;
    NORVA::UDPV6 sender;
    ASSERT_TRUE(sender.open(NORVA::Socket::udp6));
    std::string line = "<131>Nov 23 08:54:46 localhost Velmora get info err";
    ASSERT_TRUE(
        sender.sendTo(NORVA::IPAddress::loopback(std::uint16_t(port)), false, line.data(), line.size()));
    std::string lines;
    for (int tries = 0; tries < 100 && lines.empty(); ++tries) {
        usleep(20000);
        lines = readFile(dir.file("lines"));
    }
    EXPECT_EQ(log.stop(), 0) << "a user's Ctrl-C ends it cleanly";
    EXPECT_EQ(lines, "Nov 23 08:54:46 error Velmora get info err\n");
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return takeArguments(argc, argv, {&playPath, &targetPath, &logPath, &driverPath},
                         "<velmora-play> <velmora-target> <velmora-log> <driver library>")
               ? RUN_ALL_TESTS()
               : 2;
}
