// How the player reaches the driver, as a DAW does: on Windows the
// registered driver through COM, or a library file through its COM entry
// point; on Linux the shared library through that entry point. The one
// platform-dependent part of the tool.
#pragma once

#include <memory>
#include <string>

#include "asio/Asio.h"

class DriverLoader {
  public:
    DriverLoader();
    ~DriverLoader();
    DriverLoader(const DriverLoader&) = delete;
    DriverLoader& operator=(const DriverLoader&) = delete;

    // The driver object, asked for with its class identifier as interface:
    // from the library at `path` if given, else (Windows) the driver
    // registered under `name`, else (Linux) "asio_kestrane.so" beside the
    // program. Null with `error` set. The object has to be released before
    // the loader ends.
    IASIO* create(const std::string& path, const std::string& name, std::string& error);
    // What was loaded, for the report.
    std::string origin;

    // Points the driver's per-user folder at `folder`, which holds
    // "KESTRANE Velmora/setting.inf". False with `error` set where the
    // system doesn't allow it.
    static bool useSettingsFolder(const std::string& folder, std::string& error);
    // Whether a registered driver can be chosen by name.
    static bool hasRegistry();

  private:
    struct State;
    std::unique_ptr<State> state;
};
