// What the driver front needs of the system beyond NORVA's platform layer:
// where it lies, where the user's settings live, starting the configuration
// tool, and the COM registration. One implementation in posix/, one in win32/.
#pragma once

#include <cstdint>
#include <string>

namespace DriverPlatform {

#ifdef _WIN32
inline constexpr char pathSeparator = '\\';
#else
inline constexpr char pathSeparator = '/';
#endif

// The folder of the module (library or program) that holds this code, with a
// trailing separator, as UTF-8. Empty if the system doesn't tell.
std::string libraryDirectory();

// The folder of the running program, with a trailing separator, as UTF-8.
// Empty if the system doesn't tell.
std::string programDirectory();

// The per-user application data folder, without a trailing separator, as
// UTF-8 (CSIDL_APPDATA; $XDG_CONFIG_HOME, else ~/.config). Empty if unknown.
std::string userDataFolder();

// The id of this process (GetCurrentProcessId, getpid).
std::uint64_t processId();

// Starts the program, shown normally, and waits without limit for its end.
// False if it could not be started.
bool runAndWait(const std::string& programPath);

// What the registration writes: the class identifier in its braced text
// form, and the name under which hosts list the driver.
struct ServerRegistration {
    std::string classIdText;
    std::string name;
};

// Writes (or removes) the in-process server's class entries and its ASIO
// driver key. False only when the library can't find its own file; a refused
// registry call is logged and the other steps still run. Where the system has
// no registry there is nothing to do, and the answer is true.
bool registerServer(const ServerRegistration& registration);
bool unregisterServer(const ServerRegistration& registration);

}  // namespace DriverPlatform
