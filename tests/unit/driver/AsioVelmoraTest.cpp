// The driver object as a host sees it before streaming: identity, texts,
// slots, init against a real target and sink on [::1], and the control panel.
#include "asio_velmora.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>

#include "../Velmora/LogCapture.h"
#include "DriverEnvironment.h"
#include "LoopbackTarget.h"

namespace {

using VELMORA::FormatID;

// Stereo and four channels; 16, 24 and 32-bit integers at 44.1 and 48 kHz.
const FormatID sinkPcm(0xE06u, 0x3Eu);

VELMORA::StreamSinkConfig sinkOffering(FormatID pcm) {
    VELMORA::StreamSinkConfig config;
    config.pcm = pcm;
    return config;
}

class Driver : public DriverEnvironment {
  protected:
    static constexpr const char* directSettings =
        "TargetAddress=::1,19642\nTargetPO=1\nInterLoopback=enable\n";

    // Windows can't redirect the per-user folder: the driver is pointed at the file after construction.
    std::unique_ptr<AsioVelmora> driverWith(const std::string& settings) {
        auto driver = std::make_unique<AsioVelmora>(nullptr, nullptr);
        driver->settingPath = user.write("setting.inf", settings);
        EXPECT_TRUE(driver->loadSettings());
        return driver;
    }
    // A direct ask waits 3 x 30 ms for the target; on a loaded machine that
    // can pass unanswered, so only that failure is tried again.
    static ASIOBool initWithMargin(AsioVelmora& driver) {
        ASIOBool result = driver.init(nullptr);
        for (int tries = 0;
             result == ASIOFalse && errorMessage(driver) == "Velmora can not ReFind" && tries < 4; ++tries)
            result = driver.init(nullptr);
        return result;
    }
    static std::string errorMessage(AsioVelmora& driver) {
        char text[AsioVelmora::errorTextSize];
        std::memset(text, 'x', sizeof(text));
        driver.getErrorMessage(text);
        return text;
    }
};

#if !(defined(_WIN32) && defined(__i386__))
// A host compiled against another header reaches each operation only by its slot number; where `this` is the
// first argument, slots are plain functions.
template <class Result, class... Arguments>
Result callSlot(IASIO* object, int index, Arguments... arguments) {
    void** table = *reinterpret_cast<void***>(object);
    return reinterpret_cast<Result (*)(IASIO*, Arguments...)>(table[index])(object, arguments...);
}

// The texts are cut to the host's buffers: 31 characters of the name, 123 of the error text, which holds 127.
TEST_F(Driver, SlotsInTheOrderHostsCallThem) {
    AsioVelmora driver(nullptr, nullptr);
    driver.driverName = "slot four, a very long target name(and its output name)";
    driver.initialised = true;
    driver.channelCount = 6;
    std::memset(driver.errorText, 'e', sizeof(driver.errorText) - 1);
    IASIO* host = &driver;

    int handle = 0;  // initialised: init only stores the handle
    EXPECT_EQ(callSlot<ASIOBool>(host, 3, static_cast<void*>(&handle)), ASIOTrue);
    EXPECT_EQ(driver.sysHandle, &handle);
    char text[AsioVelmora::errorTextSize];
    std::memset(text, 'x', sizeof(text));
    callSlot<void>(host, 4, +text);
    EXPECT_EQ(std::string(text), driver.driverName.substr(0, 31));
    EXPECT_EQ(callSlot<AsioLong>(host, 5), 1);
    callSlot<void>(host, 6, +text);
    EXPECT_EQ(std::string(text), std::string(123, 'e'));
    EXPECT_EQ(std::string(text + 124, 4), "xxxx");
    AsioLong a = 7, b = 0;
    EXPECT_EQ(callSlot<ASIOError>(host, 9, &a, &b), ASE_OK);
    EXPECT_TRUE(a == 0 && b == 6) << a << " inputs, " << b << " outputs";
    EXPECT_EQ(callSlot<ASIOError>(host, 21), ASE_NotPresent);
    EXPECT_EQ(callSlot<ASIOError>(host, 22, AsioLong(kAsioCanTimeInfo), static_cast<void*>(nullptr)),
              ASE_SUCCESS);
}
#endif

// A target asked directly: a success is final (no network work again); after a failure the next init
// starts over and reaches a good target, the old text still readable.
TEST_F(Driver, InitAgainstSinksAndItsFailures) {
    const struct {
        const char* name;
        FormatID pcm;
        const char* settings;  // on top of the direct ones
        const char* error;     // "" for success
        AsioLong outputs;
        const char* logged;
    } rows[] = {
        {"no formats at all", FormatID(), "", "Velmora get info err!", 0, "Velmora get info err"},
        {"no channel bit", FormatID(0xE00u, 0x3Eu), "", "", 0, "init compleat mode:"},
        {"floats only, fixed host", FormatID(0x2002u, 0x3Eu), "PCMRequest=CovertS32\n", "format miss err!", 0,
         "format miss err pcm32Fix32"},
        {"four channels, MTU test skipped", sinkPcm, "ThredMode=8193\n", "", 4, "Skip MTU TEST=1500"},
        {"four channels", sinkPcm, "", "", 4, "Velmora get Target OK"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        LoopbackTarget peer(sinkOffering(row.pcm));
        ASSERT_TRUE(peer.opened);
        auto driver = driverWith(std::string(directSettings) + row.settings);
        driver->targetControlPort = peer.control();
        LogCapture log;
        const bool ok = *row.error == '\0';
        EXPECT_EQ(initWithMargin(*driver), ok ? ASIOTrue : ASIOFalse);
        EXPECT_EQ(errorMessage(*driver), row.error);
        EXPECT_TRUE(log.hasPrefix(row.logged));
        AsioLong inputs = -1, outputs = -1;
        EXPECT_EQ(driver->getChannels(&inputs, &outputs), ASE_OK);
        EXPECT_EQ(outputs, row.outputs);
        if (ok) {
            EXPECT_EQ(driver->sync.targetAddress, peer.sink.address());
            EXPECT_EQ(driver->driverName, "Studio");
            const std::size_t asked = peer.sink.requests().size();
            EXPECT_EQ(driver->init(nullptr), ASIOTrue);
            EXPECT_EQ(peer.sink.requests().size(), asked);
            continue;
        }
        LoopbackTarget good(sinkOffering(sinkPcm));
        ASSERT_TRUE(good.opened);
        driver->targetControlPort = good.control();
        ASSERT_EQ(initWithMargin(*driver), ASIOTrue) << driver->errorText;
        EXPECT_EQ(driver->sync.targetAddress, good.sink.address());
        EXPECT_EQ(errorMessage(*driver), row.error);
    }
}

TEST_F(Driver, InitFailsWhereNothingIsFound) {
    LoopbackTarget peer(sinkOffering(sinkPcm));
    ASSERT_TRUE(peer.opened);
    // A port index the target hasn't.
    auto driver = driverWith("TargetAddress=::1,19642\nTargetPO=7\nInterLoopback=enable\n");
    driver->targetControlPort = peer.control();
    EXPECT_EQ(driver->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*driver), "Velmora can not ReFind");

    // An interface without addresses (the control panel's case, which is Linux-only, checks it too).
    auto noAddresses = driverWith("Interface=65000\n");
    EXPECT_EQ(noAddresses->init(nullptr), ASIOFalse);
    EXPECT_EQ(errorMessage(*noAddresses), "Velmora Find open err!");
}

TEST(SampleFormat, RowsAndWidths) {
    // 32 wanted: float before 24-bit, since the host writes 32 bits anyway.
    EXPECT_EQ(chooseSampleFormat(0x2400, 32, false)->formatBit, 0x2000u);
    // The fixed 32-bit host's row has no float; its width is 4 whatever goes on the wire.
    EXPECT_FALSE(chooseSampleFormat(0x2000, 32, true));
    EXPECT_EQ(chooseSampleFormat(0x400, 40, true)->sampleWidth, 4);
    EXPECT_EQ(chooseSampleFormat(0x1000, 32, true)->formatBit, 0x1000u);
    // covertS32 counts only in the 32 to 63 row.
    EXPECT_EQ(chooseSampleFormat(0x400, 24, true)->sampleWidth, 3);
    EXPECT_EQ(chooseSampleFormat(0x4800, 64, true)->sampleWidth, 8);
    EXPECT_EQ(chooseSampleFormat(0x600, 16, false)->sampleWidth, 2);
    EXPECT_FALSE(chooseSampleFormat(0x200, 8, false)) << "below 16 bits 16-bit integers aren't taken";
    EXPECT_EQ(channelCountOf(0x11), 8);  // the highest channel bit counts
    EXPECT_EQ(channelCountOf(0x0B), 6);
    EXPECT_EQ(channelCountOf(0x800), 0);
}

#ifndef _WIN32
// The configuration tool, a shell script here: only changed settings lead to a new init, which here finds no
// address to ask on.
TEST_F(Driver, ControlPanelReinitialisesOnlyOnChangedSettings) {
    const struct {
        const char* name;
        const char* script;  // "" for no tool at all; run with the settings' path as $1
        ASIOError result;
        std::uint64_t cycleUs;
        const char* error;  // of the new init
    } rows[] = {
        {"no tool", "", ASE_NotPresent, 2500, ""},
        {"same keys in another form", "printf 'CycleTime = 2500\\r\\n' > \"$1\"", ASE_OK, 2500, ""},
        {"settings removed", "rm \"$1\"", ASE_NotPresent, 1000, ""},
        {"settings changed", "printf 'Interface=65000\\nCycleTime=4000\\n' > \"$1\"", ASIOFalse, 4000,
         "Velmora Find open err!"},
    };
    TempFolder tools;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        auto driver = driverWith("CycleTime=2500\n");
        driver->initialised = true;
        driver->configToolPath = tools.file("no-such-tool");
        if (*row.script != '\0') {
            driver->configToolPath = tools.write(
                "tool.sh", "#!/bin/sh\nset -- '" + driver->settingPath + "'\n" + row.script + "\n");
            std::filesystem::permissions(driver->configToolPath, std::filesystem::perms::owner_all);
        }
        EXPECT_EQ(driver->controlPanel(), row.result);
        EXPECT_EQ(driver->settings.cycleTime, NORVA::TimeValue::fromUs(row.cycleUs));
        EXPECT_EQ(errorMessage(*driver), row.error);
        EXPECT_EQ(driver->initialised, *row.error == '\0');
    }
}
#endif

}  // namespace
