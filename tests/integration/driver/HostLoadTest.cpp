// A host's view of the driver library: it is loaded from its file, made
// through its COM entry point, and initialised against the velmora-target
// program on the loopback address, as a DAW would.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "../TargetProcess.h"
#include "DriverHost.h"

namespace {

std::string libraryPath;
std::string targetPath;

// The per-user settings folder, pointed at a fresh directory for the test.
class UserSettings {
  public:
    explicit UserSettings(const std::string& text) {
        char pattern[] = "/tmp/velmora-host-XXXXXX";
        root = mkdtemp(pattern);
        std::string folder = root + "/KESTRANE Velmora";
        mkdir(folder.c_str(), 0700);
        std::ofstream(folder + "/setting.inf") << text;
        setenv("XDG_CONFIG_HOME", root.c_str(), 1);
    }
    ~UserSettings() {
        unsetenv("XDG_CONFIG_HOME");
        std::system(("rm -rf '" + root + "'").c_str());
    }

  private:
    std::string root;
};

TEST(HostLoad, InitReachesTheSinkOfATargetAskedDirectly) {
    // On its fixed control port, where the driver looks.
    TargetProcess target(targetPath, {"--loopback", "--name", "Desk", "--sink", "1,0,Main out"});
    ASSERT_TRUE(target.ready()) << "velmora-target did not start";
    UserSettings settings("TargetAddress=::1,19642\r\nInterLoopback=enable\r\n");

    DriverHost host(libraryPath);
    ASSERT_TRUE(host.loaded()) << dlerror();
    IASIO* driver = host.create();
    ASSERT_NE(driver, nullptr);

    ASIOBool initialised = driver->init(nullptr);
    char text[124] = {};
    driver->getErrorMessage(text);
    EXPECT_EQ(initialised, ASIOTrue) << text;
    char name[32] = {};
    driver->getDriverName(name);
    EXPECT_EQ(std::string(name).substr(0, 4), "Desk") << name;
    EXPECT_EQ(driver->Release(), 0u);
}

TEST(HostLoad, ASilentAddressGivesItsErrorText) {
    UserSettings settings("TargetAddress=::1,19642\r\nInterLoopback=enable\r\n");
    DriverHost host(libraryPath);
    ASSERT_TRUE(host.loaded()) << dlerror();
    IASIO* driver = host.create();
    ASSERT_NE(driver, nullptr);
    EXPECT_EQ(driver->init(nullptr), ASIOFalse) << "no target runs";
    char text[124] = {};
    driver->getErrorMessage(text);
    EXPECT_STRNE(text, "");
    driver->Release();
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <driver library> <velmora-target>\n", argv[0]);
        return 2;
    }
    libraryPath = argv[1];
    targetPath = argv[2];
    return RUN_ALL_TESTS();
}
