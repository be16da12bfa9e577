// Linux: the library is opened with dlopen and its DllGetClassObject asked
// for the class factory. There is no registry; the settings folder is the
// XDG configuration folder, which the driver reads when it is constructed.
#include "DriverLoader.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ComServer.h"

struct DriverLoader::State {
    void* library = nullptr;
};

DriverLoader::DriverLoader() : state(std::make_unique<State>()) {}

DriverLoader::~DriverLoader() {
    if (state->library != nullptr) dlclose(state->library);
}

bool DriverLoader::hasRegistry() {
    return false;
}

namespace {

std::string programDirectory() {
    char path[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return "";
    std::string text(path, std::size_t(length));
    return text.substr(0, text.rfind('/') + 1);
}

}  // namespace

IASIO* DriverLoader::create(const std::string& path, const std::string&, std::string& error) {
    origin = path.empty() ? programDirectory() + "asio_kestrane.so" : path;
    state->library = dlopen(origin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (state->library == nullptr) {
        const char* reason = dlerror();
        error = "can't load the driver: " + std::string(reason != nullptr ? reason : origin);
        return nullptr;
    }
    using GetClassObject = HRESULT (*)(REFCLSID, REFIID, void**);
    auto getClassObject = reinterpret_cast<GetClassObject>(dlsym(state->library, "DllGetClassObject"));
    if (getClassObject == nullptr) {
        error = origin + " exports no DllGetClassObject: not a COM server";
        return nullptr;
    }
    IClassFactory* factory = nullptr;
    HRESULT result = getClassObject(classIdVelmora, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (result != S_OK || factory == nullptr) {
        error = "DllGetClassObject refused the driver's class (" + std::to_string(result) + ")";
        return nullptr;
    }
    IASIO* driver = nullptr;
    result = factory->CreateInstance(nullptr, classIdVelmora, reinterpret_cast<void**>(&driver));
    factory->Release();
    if (result != S_OK || driver == nullptr) {
        error = "CreateInstance failed (" + std::to_string(result) + ")";
        return nullptr;
    }
    return driver;
}

bool DriverLoader::useSettingsFolder(const std::string& folder, std::string& error) {
    char resolved[PATH_MAX];
    struct stat info {};
    std::string file = folder + "/KESTRANE Velmora/setting.inf";
    if (realpath(folder.c_str(), resolved) == nullptr || stat(file.c_str(), &info) != 0) {
        error = "no \"KESTRANE Velmora/setting.inf\" in " + folder;
        return false;
    }
    // The XDG rules take only an absolute folder.
    setenv("XDG_CONFIG_HOME", resolved, 1);
    return true;
}
