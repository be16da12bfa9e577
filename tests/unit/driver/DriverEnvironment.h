// Temporary folders, and the fixture that points the driver's per-user folder at one, so that a test reads no
// one's real settings. Windows can't; its tests run in a Wine prefix of their own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "System/Log.h"

// A fresh temporary folder, removed with all it holds when the test ends.
class TempFolder {
  public:
    TempFolder() {
        std::random_device random;
        path = std::filesystem::temp_directory_path() / ("velmora-driver-" + std::to_string(random()));
        std::filesystem::create_directories(path);
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string file(const std::string& name) const { return (path / name).string(); }

    // Writes `text` to `name` (folders made as needed); returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::filesystem::create_directories((path / name).parent_path());
        std::ofstream(path / name, std::ios::binary) << text;
        return file(name);
    }

    // What `name` holds, as text or as bytes.
    template <class Bytes = std::string>
    Bytes read(const std::string& name) const {
        std::ifstream in(path / name, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }

    std::filesystem::path path;
};

class DriverEnvironment : public ::testing::Test {
  protected:
#ifndef _WIN32
    void SetUp() override {
        setenv("XDG_CONFIG_HOME", user.path.c_str(), 1);
    }
#endif
    void TearDown() override {
#ifndef _WIN32
        unsetenv("XDG_CONFIG_HOME");
#endif
        NORVA::logThreshold.store(-1);
    }

    // Where the driver looks for "KESTRANE Velmora/setting.inf".
    TempFolder user;
};
