#include "asio_velmora.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "DriverEnvironment.h"
#include "platform/DriverPlatform.h"

namespace {

class Driver : public DriverEnvironment {
  protected:
    void writeUserSettings(const std::string& text) { user.write("KESTRANE Velmora/setting.inf", text); }
};

TEST(ProductId, BrandWordLowByteFirst) {
    EXPECT_EQ(AsioVelmora::productId, 0x454E41525453454Bu);  // "KESTRANE" read backwards
    EXPECT_EQ(makeProductId("SHORT"), ~std::uint64_t(0));
    EXPECT_EQ(AsioVelmora::findIds[0], 0u);
    EXPECT_EQ(AsioVelmora::findIds[1], ~std::uint64_t(0));
}

TEST_F(Driver, ConstructionReadsTheUsersSettings) {
#ifdef _WIN32
    GTEST_SKIP() << "the per-user folder can't be redirected on Windows";
#endif
    writeUserSettings("CycleTime=2500\nPCMRequest=CovertS32\n");
    AsioVelmora driver(nullptr, nullptr);
    const char separator = DriverPlatform::pathSeparator;
    EXPECT_EQ(driver.settingPath,
              user.path.string() + separator + "KESTRANE Velmora" + separator + "setting.inf");
    EXPECT_EQ(driver.settings.cycleTime, NORVA::TimeValue::fromUs(2500));
    EXPECT_TRUE(driver.settings.covertS32);
    EXPECT_EQ(driver.sampleRate, 44100u);
    EXPECT_EQ(driver.bufferBytes, 1024);
    EXPECT_FALSE(driver.initialised);
}

TEST_F(Driver, PlatformFolders) {
    AsioVelmora driver(nullptr, nullptr);
    std::string directory = DriverPlatform::libraryDirectory();
    ASSERT_FALSE(directory.empty());
    EXPECT_EQ(directory.back(), DriverPlatform::pathSeparator);
    // The test program holds the driver's code, so its folder is the library's.
    const bool windows = DriverPlatform::pathSeparator == '\\';
    EXPECT_TRUE(std::filesystem::exists(directory + (windows ? "driver_unit.exe" : "driver_unit")));
    EXPECT_EQ(driver.configToolPath, directory + "velmora_asio_configura.exe");
    EXPECT_EQ(driver.referencePath, directory + "setting_org.inf");

    std::string folder = DriverPlatform::userDataFolder();
    EXPECT_TRUE(std::filesystem::is_directory(folder)) << folder;
    if (!windows) {
        EXPECT_EQ(folder, user.path.string());
    }
}

TEST_F(Driver, InitOnAnInitialisedObjectOnlyStoresTheHandle) {
    AsioVelmora driver(nullptr, nullptr);
    driver.initialised = true;
    int handle = 0;
    EXPECT_EQ(driver.init(&handle), ASIOTrue);
    EXPECT_EQ(driver.sysHandle, &handle);
    char text[AsioVelmora::errorTextSize];
    driver.getErrorMessage(text);
    EXPECT_STREQ(text, "");
}

TEST_F(Driver, TextsAreCutToTheHostsBuffers) {
    AsioVelmora driver(nullptr, nullptr);
    char name[32];
    std::memset(name, 'x', sizeof(name));
    driver.getDriverName(name);
    EXPECT_STREQ(name, "");

    driver.driverName = "A very long target name(and its output name)";
    std::memset(name, 'x', sizeof(name));
    driver.getDriverName(name);
    EXPECT_EQ(std::string(name), driver.driverName.substr(0, 31));
    EXPECT_EQ(driver.getDriverVersion(), 1);

    // The error text holds 127 characters; the host's buffer takes 123.
    std::memset(driver.errorText, 'e', sizeof(driver.errorText) - 1);
    static_assert(sizeof(driver.errorText) == 128);
    char text[AsioVelmora::errorTextSize];
    std::memset(text, 'x', sizeof(text));
    driver.getErrorMessage(text);
    EXPECT_EQ(std::string(text), std::string(123, 'e'));
    EXPECT_EQ(std::string(text + 124, 4), "xxxx");
}

#if !(defined(_WIN32) && defined(__i386__))
// A host compiled against another header reaches each operation only by its
// slot number. Where a member call passes `this` as the first argument, the
// slots can be called as plain functions, as that host's code would.
TEST_F(Driver, SlotsInTheOrderHostsCallThem) {
    AsioVelmora driver(nullptr, nullptr);
    driver.driverName = "slot four";
    driver.initialised = true;
    std::strcpy(driver.errorText, "slot six");
    IASIO* host = &driver;
    void** table = *reinterpret_cast<void***>(host);
    auto slot = [&](int index, auto type) { return reinterpret_cast<decltype(type)>(table[index]); };

    int handle = 0;
    EXPECT_EQ(slot(3, static_cast<ASIOBool (*)(IASIO*, void*)>(nullptr))(host, &handle), ASIOTrue);
    EXPECT_EQ(driver.sysHandle, &handle);
    char text[AsioVelmora::errorTextSize];
    slot(4, static_cast<void (*)(IASIO*, char*)>(nullptr))(host, text);
    EXPECT_STREQ(text, "slot four");
    EXPECT_EQ(slot(5, static_cast<AsioLong (*)(IASIO*)>(nullptr))(host), 1);
    slot(6, static_cast<void (*)(IASIO*, char*)>(nullptr))(host, text);
    EXPECT_STREQ(text, "slot six");
    driver.channelCount = 6;
    AsioLong a = 7, b = 0;
    EXPECT_EQ(slot(9, static_cast<ASIOError (*)(IASIO*, AsioLong*, AsioLong*)>(nullptr))(host, &a, &b),
              ASE_OK);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(b, 6);
    EXPECT_EQ(slot(21, static_cast<ASIOError (*)(IASIO*)>(nullptr))(host), ASE_NotPresent);
    EXPECT_EQ(slot(22, static_cast<ASIOError (*)(IASIO*, AsioLong, void*)>(nullptr))(host, kAsioCanTimeInfo,
                                                                                     nullptr),
              ASE_SUCCESS);
}
#endif

#ifndef _WIN32
// The configuration tool is a program of its own; here a shell script stands
// in for it, editing the settings file or not.
class ControlPanel : public Driver {
  protected:
    std::string tool(const std::string& body) {
        std::string path = tools.write("tool.sh", "#!/bin/sh\n" + body + "\n");
        std::filesystem::permissions(path, std::filesystem::perms::owner_all);
        return path;
    }
    TempFolder tools;
};

TEST_F(ControlPanel, MissingToolIsNotPresent) {
    AsioVelmora driver(nullptr, nullptr);
    driver.configToolPath = tools.file("no-such-tool");
    EXPECT_EQ(driver.controlPanel(), ASE_NotPresent);
}

TEST_F(ControlPanel, UnchangedSettingsNeedNoNewInit) {
    writeUserSettings("CycleTime=2500\n");
    AsioVelmora driver(nullptr, nullptr);
    driver.initialised = true;
    // Rewritten with the same keys and values in another form: still equal.
    driver.configToolPath = tool("printf 'CycleTime = 2500\\r\\n' > '" + driver.settingPath + "'");
    EXPECT_EQ(driver.controlPanel(), ASE_OK);
    EXPECT_TRUE(driver.initialised);
}

TEST_F(ControlPanel, SettingsRemovedByTheToolIsNotPresent) {
    writeUserSettings("CycleTime=2500\n");
    AsioVelmora driver(nullptr, nullptr);
    driver.configToolPath = tool("rm '" + driver.settingPath + "'");
    EXPECT_EQ(driver.controlPanel(), ASE_NotPresent);
    EXPECT_EQ(driver.settings.cycleTime, NORVA::TimeValue::fromUs(1000));
}
#endif

}  // namespace
