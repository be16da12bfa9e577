#include <gtest/gtest.h>

#include "Settings.h"
#include "TempFolder.h"
#include "platform/DriverPlatform.h"

namespace {

// A user's folder and a library folder, each in its own temporary folder.
class SettingsFiles : public ::testing::Test {
  protected:
    std::string userFile() const {
        const char separator = DriverPlatform::pathSeparator;
        return user.path.string() + separator + "KESTRANE Velmora" + separator + "setting.inf";
    }
    void writeUser(const std::string& text) const { user.write("KESTRANE Velmora/setting.inf", text); }
    std::string readUser() const { return user.read("KESTRANE Velmora/setting.inf"); }
    ::SettingsFiles choose() const { return chooseSettingsFile(user.path.string(), library.directory()); }

    TempFolder user;
    TempFolder library;
};

TEST_F(SettingsFiles, PointerFileNamesAFileElsewhere) {
    TempFolder elsewhere;
    std::string target = elsewhere.write("mine.inf", "Version=1\nCycleTime=2000\n");
    library.write("setting_path.inf", "SettingPath=" + target + "\n");
    library.write("setting_org.inf", "Version=1\nCycleTime=900\n");
    ::SettingsFiles files = choose();
    EXPECT_EQ(files.settingPath, target);
    EXPECT_FALSE(files.referenceInUse);
    // A new version replaces the named file, as it does the user's.
    library.write("setting_org.inf", "Version=2\n");
    choose();
    EXPECT_EQ(elsewhere.read("mine.inf"), "[global]\r\nVersion=2\r\n\r\n");
}

TEST_F(SettingsFiles, ReferenceCopyWhenNothingElseLoads) {
    library.write("setting_path.inf", "SettingPath=" + library.file("gone.inf") + "\n");
    library.write("setting_org.inf", "Version=2\n");
    ::SettingsFiles files = choose();
    EXPECT_EQ(files.settingPath, library.file("setting_org.inf"));
    EXPECT_TRUE(files.referenceInUse);
    // Nothing was written in the user's folder.
    EXPECT_FALSE(std::filesystem::exists(userFile()));
}

// The user's file comes first. A reference copy of another version, older too, replaces it whole, sections
// first; an equal version leaves it untouched.
TEST_F(SettingsFiles, AnotherVersionReplacesTheUsersFileWhole) {
    const struct {
        const char *mine, *reference, *after;
    } rows[] = {
        {"Version=1\nCycleTime=2000\nStartDelay=7\n", "Version=2\nCycleTime=900\n[LOW]\nCycleTime=1800\n",
         "[LOW]\r\nCycleTime=1800\r\n\r\n[global]\r\nCycleTime=900\r\nVersion=2\r\n\r\n"},
        {"Version=5\nCycleTime=2000\n", "Version=4\n", "[global]\r\nVersion=4\r\n\r\n"},
        {"CycleTime=2000\n", "Version=1\n", "[global]\r\nVersion=1\r\n\r\n"},
        {"Version=3\n; my notes\nCycleTime=2000\n", "Version=3\nCycleTime=900\n", nullptr},
    };
    for (const auto& row : rows) {
        writeUser(row.mine);
        library.write("setting_org.inf", row.reference);
        const ::SettingsFiles files = choose();
        EXPECT_EQ(files.settingPath, userFile());
        EXPECT_EQ(files.referencePath, library.file("setting_org.inf"));
        EXPECT_FALSE(files.referenceInUse);
        EXPECT_EQ(readUser(), row.after ? row.after : row.mine) << row.mine;
    }
}

}  // namespace
