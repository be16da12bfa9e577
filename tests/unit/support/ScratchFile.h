// A file in the test's temporary directory that belongs to this process
// alone, removed when it goes: the stages of a test run execute the same
// binaries at the same time, and a fixed name would be written by all.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

class ScratchFile {
  public:
    // "<stem>-<token><extension>"
    ScratchFile(const std::string& stem, const std::string& extension)
        : path(::testing::TempDir() + stem + "-" + token() + extension) {}
    ~ScratchFile() { std::remove(path.c_str()); }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const std::string path;

  private:
    static std::string token() {
        static const std::string made = [] {
            std::random_device device;
            return std::to_string(device()) + std::to_string(device());
        }();
        return made;
    }
};
