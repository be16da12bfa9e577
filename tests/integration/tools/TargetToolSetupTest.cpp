// The host's stream set-up against the velmora-target program, as a user
// runs it: the sink offers what its command line says.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../TargetProcess.h"
#include "Stream/Sync.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

std::string toolPath;

class NoRingSync : public Sync {
  public:
    bool getBuffer(StreamChunk&) override { return false; }
};

// What the host's set-up reads from the sink of a velmora-target started with `sinkOptions`.
void readSink(const std::vector<std::string>& sinkOptions, NoRingSync& sync) {
    std::vector<std::string> options = TargetProcess::anyPorts({"--sink", "1,0,Main out"});
    options.insert(options.end(), sinkOptions.begin(), sinkOptions.end());
    TargetProcess target(toolPath, options);
    ASSERT_NE(target.sinkPort, 0) << "velmora-target did not start its sink:\n" << target.printed;
    ASSERT_TRUE(sync.open(0, TimeValue::fromMs(100), 0, "studio", 0x4B45, -1, -1, 0));
    ASSERT_TRUE(sync.getInfo(NORVA::IPAddress::loopback(target.sinkPort), TimeValue(), false, 1500));
}

TEST(TargetToolSetup, GetInfoReadsWhatTheSinkWasStartedWith) {
    NoRingSync sync;
    ASSERT_NO_FATAL_FAILURE(readSink({"--pcm", "0x0C02:0x001E", "--latency", "45", "--data-req", "1400",
                                      "--sink-cycle", "500,2000,2", "--modes", "0"},
                                     sync));
    EXPECT_EQ(sync.format.sink.pcm, FormatID(0x0C02u, 0x001Eu));
    EXPECT_EQ(sync.latency, 45);
    EXPECT_EQ(sync.transfer.sink.min, 500);
    EXPECT_EQ(sync.transfer.sink.max, 2000);
    EXPECT_EQ(sync.msMode, msMode1) << "any answer to the mode question offers mode1";
    EXPECT_EQ(sync.dataReq, 1400);

    // A sink silent on the modes and the data size leaves the defaults.
    NoRingSync silent;
    ASSERT_NO_FATAL_FAILURE(readSink({"--silent-modes", "--silent-datasize"}, silent));
    EXPECT_EQ(silent.msMode, msModeNone);
    EXPECT_EQ(silent.maxPacketSize, 1432);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return takeArguments(argc, argv, {&toolPath}, "<velmora-target>") ? RUN_ALL_TESTS() : 2;
}
