// A host on one side of the link loads the driver library and initialises
// it with settings that name no target, so that it finds one by discovery.
//
//     netns_driver_init DRIVER_LIBRARY
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "DriverHost.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DRIVER_LIBRARY\n", argv[0]);
        return 2;
    }
    // A settings folder of this run's own, with a file that leaves every key
    // at its default.
    char pattern[] = "/tmp/velmora-netns-XXXXXX";
    std::string root = mkdtemp(pattern);
    std::string folder = root + "/KESTRANE Velmora";
    mkdir(folder.c_str(), 0700);
    std::ofstream(folder + "/setting.inf") << "; discovery\r\n";
    setenv("XDG_CONFIG_HOME", root.c_str(), 1);

    DriverHost host(argv[1]);
    IASIO* driver = host.loaded() ? host.create() : nullptr;
    if (driver == nullptr) {
        std::fprintf(stderr, "the driver library could not be loaded\n");
        return 1;
    }
    bool initialised = driver->init(nullptr) == ASIOTrue;
    char text[124] = {};
    char name[32] = {};
    driver->getErrorMessage(text);
    driver->getDriverName(name);
    if (initialised) {
        std::printf("init done: %s\n", name);
    } else {
        std::printf("init failed: %s\n", text);
    }
    driver->Release();
    std::system(("rm -rf '" + root + "'").c_str());
    return initialised ? 0 : 1;
}
