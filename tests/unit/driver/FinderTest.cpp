// The finder export as the configuration tool sees it, with plain buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "DriverEnvironment.h"
#include "asio_velmora.h"
#include "asio_velmora_ext.h"
#include "platform/DriverPlatform.h"

namespace {

using FinderCall = VELMORA::asio_velmora_find_call;

std::string text(FinderCall& finder, std::uint32_t (ASIO_METHOD FinderCall::*call)(char*, std::uint32_t)) {
    char out[512];
    const std::uint32_t length = (finder.*call)(out, sizeof(out));
    EXPECT_EQ(length, std::strlen(out));
    return out;
}

class Finder : public DriverEnvironment {};

// The driver and the finder export agree on where the files lie: the settings in the user's folder, the
// tool and the reference copy beside the library, which here is the test program.
TEST_F(Finder, FilesLieInTheUsersAndTheLibrarysFolders) {
    const bool windows = DriverPlatform::pathSeparator == '\\';
    if (!windows) user.write("KESTRANE Velmora/setting.inf", "CycleTime=2500\nPCMRequest=CovertS32\n");
    AsioVelmora driver(nullptr, nullptr);
    const std::string directory = DriverPlatform::libraryDirectory();
    ASSERT_FALSE(directory.empty());
    EXPECT_TRUE(std::filesystem::exists(directory + (windows ? "driver_unit.exe" : "driver_unit")));
    EXPECT_EQ(driver.configToolPath, directory + "velmora_asio_configura.exe");
    EXPECT_EQ(driver.referencePath, directory + "setting_org.inf");
    FinderCall* finder = DllVelmorafind();
    ASSERT_NE(finder, nullptr);
    EXPECT_EQ(text(*finder, &FinderCall::settingOrgPath), driver.referencePath);
    if (!windows) {
        EXPECT_EQ(text(*finder, &FinderCall::settingPath), driver.settingPath);
        EXPECT_EQ(driver.settingPath, user.file("KESTRANE Velmora/setting.inf"));
        EXPECT_EQ(driver.settings.cycleTime, NORVA::TimeValue::fromUs(2500));
        EXPECT_TRUE(driver.settings.covertS32);
    }
    std::uint64_t ids[4] = {};
    EXPECT_EQ(finder->findIdList(ids, 4), 0u);
    EXPECT_EQ(finder->findId(), 0u);
    EXPECT_EQ(finder->productId(), 0x454E41525453454Bu);
    EXPECT_EQ(text(*finder, &FinderCall::assetPath), "quintessarola/KESTRANE/asio_sync/");
    // A short buffer takes what fits and learns the length.
    char shortText[8];
    EXPECT_EQ(finder->assetName(shortText, sizeof(shortText)), std::strlen("KESTRANE_ASIO_3_148_9"));
    EXPECT_STREQ(shortText, "KESTRAN");
    EXPECT_EQ(finder->assetName(nullptr, 0), std::strlen("KESTRANE_ASIO_3_148_9"));
    finder->destroy();
}

}  // namespace
