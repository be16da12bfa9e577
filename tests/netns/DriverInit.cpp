// A host on one side of the link loads the driver library, as hosts do,
// and initialises it with settings that name no target, so that it finds
// one by discovery.
//
//     netns_driver_init DRIVER_LIBRARY
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "../integration/TargetProcess.h"
#include "ComServer.h"
#include "asio/Asio.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DRIVER_LIBRARY\n", argv[0]);
        return 2;
    }
    // A settings folder of this run's own, its file leaving every key at its default.
    TempFolder root;
    root.write("KESTRANE Velmora/setting.inf", "; discovery\r\n");
    setenv("XDG_CONFIG_HOME", root.path.c_str(), 1);

    // The driver object through the COM entry point, asked for with its class identifier.
    using GetClassObject = HRESULT (*)(REFCLSID, REFIID, void**);
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    auto getClassObject =
        library != nullptr ? reinterpret_cast<GetClassObject>(dlsym(library, "DllGetClassObject")) : nullptr;
    IClassFactory* factory = nullptr;
    IASIO* driver = nullptr;
    if (getClassObject != nullptr &&
        getClassObject(classIdVelmora, IID_IClassFactory, reinterpret_cast<void**>(&factory)) == S_OK) {
        factory->CreateInstance(nullptr, classIdVelmora, reinterpret_cast<void**>(&driver));
        factory->Release();
    }
    if (driver == nullptr) {
        std::fprintf(stderr, "the driver library could not be loaded\n");
        return 1;
    }
    bool initialised = driver->init(nullptr) == ASIOTrue;
    char text[124] = {}, name[32] = {};
    driver->getErrorMessage(text);
    driver->getDriverName(name);
    std::printf(initialised ? "init done: %s\n" : "init failed: %s\n", initialised ? name : text);
    driver->Release();
    dlclose(library);
    return initialised ? 0 : 1;
}
