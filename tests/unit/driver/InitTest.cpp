// init() against a real target and sink on [::1], on ports of the system's
// choice: success, and each stage that can fail with its own text.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>

#include "../Velmora/LogCapture.h"
#include "DriverEnvironment.h"
#include "LoopbackTarget.h"
#include "Network/Interfaces.h"
#include "Protocol/MessageTypes.h"
#include "Sink/StreamSink.h"
#include "asio_velmora.h"

namespace {

using VELMORA::FormatID;
using VELMORA::StreamSink;
using VELMORA::StreamSinkConfig;

// Stereo and four channels; 16, 24 and 32-bit integers at 44.1 and 48 kHz.
const FormatID sinkPcm(0xE06u, 0x3Eu);

StreamSinkConfig sinkOffering(FormatID pcm) {
    StreamSinkConfig config;
    config.pcm = pcm;
    return config;
}

class Init : public DriverEnvironment {
  protected:
    // The settings a user writes to reach a target on this machine directly.
    static constexpr const char* directSettings =
        "TargetAddress=::1,19642\nTargetPO=1\nInterLoopback=enable\n";

    // Windows can't redirect the per-user folder, so the driver is pointed
    // at the file after construction.
    std::unique_ptr<AsioVelmora> driverWith(const std::string& settings) {
        auto driver = std::make_unique<AsioVelmora>(nullptr, nullptr);
        driver->settingPath = user.write("setting.inf", settings);
        EXPECT_TRUE(driver->loadSettings());
        return driver;
    }
    static std::string errorMessage(AsioVelmora& driver) {
        char text[AsioVelmora::errorTextSize];
        std::memset(text, 'x', sizeof(text));
        driver.getErrorMessage(text);
        return text;
    }
};

TEST_F(Init, ReachesTheSinkOfATargetAskedDirectly) {
    LoopbackTarget peer(sinkOffering(sinkPcm));
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith(directSettings);
    driver->targetControlPort = peer.control();
    LogCapture log;

    int handle = 0;
    ASSERT_EQ(driver->init(&handle), ASIOTrue) << driver->errorText;
    EXPECT_TRUE(driver->initialised);
    EXPECT_EQ(errorMessage(*driver), "");
    EXPECT_EQ(driver->sync.targetAddress, peer.sink.address());
    EXPECT_EQ(driver->sync.format.sink.pcm, sinkPcm);
    EXPECT_EQ(driver->formatMode, 0x800u);  // 32 bits wanted by default
    EXPECT_EQ(driver->sampleWidth, 4);
    EXPECT_EQ(driver->channelCount, 4);
    char name[32];
    driver->getDriverName(name);
    EXPECT_STREQ(name, "Studio");
    EXPECT_TRUE(log.has("Velmora get Target OK"));
    EXPECT_TRUE(log.hasPrefix("init compleat mode:"));

    // Initialised: a second init does no network work.
    const std::size_t asked = peer.sink.requests().size();
    EXPECT_EQ(driver->init(&handle), ASIOTrue);
    EXPECT_EQ(peer.sink.requests().size(), asked);
}

TEST_F(Init, SilentAddressOrMissingSinkIsNotFoundAgain) {
    LoopbackTarget peer(sinkOffering(sinkPcm));
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith("TargetAddress=::1,19642\nTargetPO=7\nInterLoopback=enable\n");
    driver->targetControlPort = peer.control();
    EXPECT_EQ(driver->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*driver), "Velmora can not ReFind");
    EXPECT_TRUE(driver->driverName.empty());

    // A port where nothing answers.
    NORVA::UDPV6 silent;
    NORVA::IPAddress silentAddress = NORVA::IPAddress::loopback(0);
    ASSERT_TRUE(silent.openNonBlocking());
    ASSERT_TRUE(silent.bind(silentAddress));
    driver->settings.targetPort = 1;
    driver->targetControlPort = silentAddress.port();
    EXPECT_EQ(driver->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*driver), "Velmora can not ReFind");
    EXPECT_FALSE(driver->initialised);
}

// The target's sockets listen on every address of this machine. Through
// ::1 it is passed over; a link address, where the machine has one, is the
// target to take.
TEST_F(Init, DiscoveryPassesOverThisMachinesLoopbackAddress) {
    StreamSinkConfig everywhere = sinkOffering(sinkPcm);
    everywhere.address = NORVA::IPAddress();
    LoopbackTarget peer(everywhere);
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith("InterLoopback=enable\n");
    driver->targetControlPort = peer.control();
    NORVA::InterfaceMap links;
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(links, false));
    LogCapture log;

    if (links.empty()) {
        EXPECT_EQ(driver->init(nullptr), ASIOFalse);
        EXPECT_EQ(errorMessage(*driver), "Velmora can not Find");
        EXPECT_TRUE(log.has("Velmora can not Find"));
        EXPECT_FALSE(peer.target->syncNames().empty()) << "found, asked, then passed over";
    } else {
        ASSERT_EQ(driver->init(nullptr), ASIOTrue) << driver->errorText;
        EXPECT_TRUE(log.has("Velmora Find OK"));
        EXPECT_FALSE(driver->sync.targetAddress.isLoopback());
        EXPECT_EQ(driver->sync.targetAddress.port(), peer.sink.port());
        EXPECT_EQ(driver->driverName, "Studio(Out A)");
    }
}

// FindIP addresses are bare; the probe must reach them on the control port.
// Probes go out once per link address of the machine, so without one there
// is nothing to see. InterLoopback is off: only FindIP can reach ::1 (the
// target also hears the multicast probe on the link, and whatever init
// then takes, a target on ::1 is passed over).
TEST_F(Init, FindIPAddressesAreProbedOnTheControlPort) {
    StreamSinkConfig everywhere = sinkOffering(sinkPcm);
    everywhere.address = NORVA::IPAddress();
    LoopbackTarget peer(everywhere);
    ASSERT_TRUE(peer.opened);
    NORVA::InterfaceMap links;
    NORVA::InterfaceMap all;
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(links, false));
    ASSERT_TRUE(NORVA::enumerateV6(all));
    if (links.empty()) GTEST_SKIP() << "no link address: discovery sends no probe at all";

    auto driver = driverWith("FindIP=::1\n");
    driver->targetControlPort = peer.control();
    driver->init(nullptr);
    auto names = peer.target->syncNames();
    EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const auto& name) {
        return name.first.isLoopback();
    })) << "the FindIP probe found no target on ::1";
    EXPECT_FALSE(driver->sync.targetAddress.isLoopback());

    // An address of this machine that isn't ::1 is a target to take.
    auto global = std::find_if(all.begin(), all.end(), [](const auto& entry) {
        return !entry.first.isLoopback() && !entry.first.isLinkLocal();
    });
    if (global == all.end()) return;
    auto other = driverWith("FindIP=nonsense;" + global->first.toString() + "\n");
    other->targetControlPort = peer.control();
    ASSERT_EQ(other->init(nullptr), ASIOTrue) << other->errorText;
    EXPECT_EQ(other->sync.targetAddress.toString(), global->first.toString());
    EXPECT_EQ(other->sync.targetAddress.port(), peer.sink.port());
}

TEST_F(Init, AnInterfaceWithoutAddressesFailsTheOpen) {
    auto driver = driverWith("Interface=65000\n");
    EXPECT_EQ(driver->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*driver), "Velmora Find open err!");
}

// A sink that offers no format at all fails getInfo; sync stays open, and
// the next init opens it again and succeeds with another target.
TEST_F(Init, ASinkWithoutFormatsFailsAndTheNextInitStartsOver) {
    LoopbackTarget refusing(sinkOffering(FormatID()));
    ASSERT_TRUE(refusing.opened);
    auto driver = driverWith(directSettings);
    driver->targetControlPort = refusing.control();
    EXPECT_EQ(driver->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*driver), "Velmora get info err!");

    LoopbackTarget good(sinkOffering(sinkPcm));
    ASSERT_TRUE(good.opened);
    driver->targetControlPort = good.control();
    ASSERT_EQ(driver->init(nullptr), ASIOTrue) << driver->errorText;
    EXPECT_EQ(driver->sync.targetAddress, good.sink.address());
    // A success leaves the earlier failure's text readable.
    EXPECT_EQ(errorMessage(*driver), "Velmora get info err!");
}

// A sink whose formats name no channel is still a sink: init succeeds and
// the host sees no output to stream to.
TEST_F(Init, ASinkWithoutAChannelBitGivesNoOutputs) {
    LoopbackTarget peer(sinkOffering(FormatID(0xE00u, 0x3Eu)));
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith(directSettings);
    driver->targetControlPort = peer.control();
    ASSERT_EQ(driver->init(nullptr), ASIOTrue) << driver->errorText;
    AsioLong inputs = -1, outputs = -1;
    EXPECT_EQ(driver->getChannels(&inputs, &outputs), ASE_OK);
    EXPECT_EQ(inputs, 0);
    EXPECT_EQ(outputs, 0);
}

TEST_F(Init, ASinkWithoutAWantedSampleFormatIsRefused) {
    LoopbackTarget peer(sinkOffering(FormatID(0x2002u, 0x3Eu)));  // 32-bit floats only
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith(std::string(directSettings) + "PCMRequest=CovertS32\n");
    driver->targetControlPort = peer.control();
    LogCapture log;
    EXPECT_EQ(driver->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*driver), "format miss err!");
    EXPECT_TRUE(log.hasPrefix("format miss err pcm32Fix"));
    EXPECT_FALSE(driver->initialised);
}

TEST_F(Init, SkippedMtuTestKeeps1500) {
    LoopbackTarget peer(sinkOffering(sinkPcm));
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith(std::string(directSettings) + "ThredMode=8193\n");
    driver->targetControlPort = peer.control();
    LogCapture log;
    ASSERT_EQ(driver->init(nullptr), ASIOTrue) << driver->errorText;
    EXPECT_TRUE(log.has("Skip MTU TEST=1500"));
    EXPECT_TRUE(peer.sink.requestsOf(VELMORA::MessageType::DATASIZE_REQ).size() > 0);
}

TEST(SampleFormat, RowsAndWidths) {
    // 32 wanted: float before 24-bit, since the host writes 32 bits anyway.
    auto float32 = chooseSampleFormat(0x2400, 32, false);
    ASSERT_TRUE(float32);
    EXPECT_EQ(float32->formatBit, 0x2000u);
    EXPECT_EQ(float32->sampleWidth, 4);
    // The same sink refuses the fixed 32-bit host, whose row has no float.
    EXPECT_FALSE(chooseSampleFormat(0x2000, 32, true));
    // With the fixed host the width is 4 whatever goes on the wire.
    auto fixed24 = chooseSampleFormat(0x400, 40, true);
    ASSERT_TRUE(fixed24);
    EXPECT_EQ(fixed24->sampleWidth, 4);
    EXPECT_EQ(chooseSampleFormat(0x1000, 32, true)->formatBit, 0x1000u);
    // covertS32 counts only in the 32 to 63 row.
    EXPECT_EQ(chooseSampleFormat(0x400, 24, true)->sampleWidth, 3);
    EXPECT_EQ(chooseSampleFormat(0x4800, 64, true)->sampleWidth, 8);
    EXPECT_EQ(chooseSampleFormat(0x600, 16, false)->sampleWidth, 2);
    // Below 16 bits 16-bit integers aren't taken.
    EXPECT_FALSE(chooseSampleFormat(0x200, 8, false));
}

TEST(SampleFormat, HighestChannelBitCounts) {
    EXPECT_EQ(channelCountOf(0x11), 8);
    EXPECT_EQ(channelCountOf(0x0B), 6);
    EXPECT_EQ(channelCountOf(0x800), 0);
}

#ifndef _WIN32
// The configuration tool, a shell script here, points the settings at a
// target; controlPanel then reads them and init reaches it.
TEST_F(Init, ControlPanelReinitialisesWithChangedSettings) {
    LoopbackTarget peer(sinkOffering(sinkPcm));
    ASSERT_TRUE(peer.opened);
    auto driver = driverWith("CycleTime=2500\n");
    driver->initialised = true;
    driver->targetControlPort = peer.control();
    TempFolder tools;
    std::string tool = tools.write("tool.sh", "#!/bin/sh\nprintf '" + std::string(directSettings) +
                                                  "CycleTime=4000\\n' > '" + driver->settingPath + "'\n");
    std::filesystem::permissions(tool, std::filesystem::perms::owner_all);
    driver->configToolPath = tool;

    EXPECT_EQ(driver->controlPanel(), ASIOTrue) << driver->errorText;
    EXPECT_EQ(driver->settings.cycleTime, NORVA::TimeValue::fromUs(4000));
    EXPECT_TRUE(driver->initialised);
    EXPECT_EQ(driver->driverName, "Studio");
}
#endif

}  // namespace
