// The fixture that points the driver's per-user folder at a temporary folder, so that a test reads no one's
// real settings. Windows can't; its tests run in a Wine prefix of their own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "System/Log.h"
#include "TempFolder.h"

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
