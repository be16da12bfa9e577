// The driver's system calls on Linux: dladdr for the library's place, the XDG
// configuration folder, posix_spawn for the tool. There is no registry: a
// host loads the library by its path.
#include "platform/DriverPlatform.h"

#include <dlfcn.h>
#include <errno.h>
#include <pwd.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace DriverPlatform {

namespace {

// The folder that holds the file `name` after links are followed, with a
// trailing separator; empty if the file can't be resolved.
std::string directoryOf(const char* name) {
    char* resolved = realpath(name, nullptr);
    if (resolved == nullptr) return {};
    std::string path(resolved);
    free(resolved);
    return path.substr(0, path.rfind('/') + 1);
}

}  // namespace

std::string libraryDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&libraryDirectory), &info) == 0 || info.dli_fname == nullptr)
        return {};
    // The loader may report a program by the relative name it was started with.
    return directoryOf(info.dli_fname);
}

std::string programDirectory() {
    return directoryOf("/proc/self/exe");
}

std::string userDataFolder() {
    const char* config = getenv("XDG_CONFIG_HOME");
    // The XDG rules ignore a relative value.
    if (config != nullptr && config[0] == '/') return config;
    const char* home = getenv("HOME");
    if (home == nullptr || home[0] == '\0') {
        const passwd* entry = getpwuid(getuid());
        home = entry != nullptr ? entry->pw_dir : nullptr;
    }
    if (home == nullptr || home[0] == '\0') return {};
    return std::string(home) + "/.config";
}

std::uint64_t processId() {
    return std::uint64_t(getpid());
}

bool runAndWait(const std::string& programPath) {
    char* argv[] = {const_cast<char*>(programPath.c_str()), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, programPath.c_str(), nullptr, nullptr, argv, environ) != 0) return false;
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) break;
    }
    return true;
}

bool registerServer(const ServerRegistration&) {
    return true;
}

bool unregisterServer(const ServerRegistration&) {
    return true;
}

}  // namespace DriverPlatform
