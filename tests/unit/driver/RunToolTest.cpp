// Starting the configuration tool and waiting for its end, on Windows: a
// command script stands in for the tool.
#ifdef _WIN32

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "DriverEnvironment.h"
#include "platform/DriverPlatform.h"

namespace {

TEST(RunTool, WaitsForTheToolToEndAndFailsWithoutOne) {
    TempFolder folder;
    // A blank and a non-ASCII letter: the path must reach the shell as UTF-8 turned wide.
    std::filesystem::path tool = folder.path / u8"set up \u00e9" / "tool.cmd";
    std::filesystem::path done = folder.path / "done.txt";
    // Busy before it writes, so that a return before its end finds no file.
    std::filesystem::create_directories(tool.parent_path());
    std::ofstream(tool, std::ios::binary)
        << "@echo off\r\nfor /L %%i in (1,1,3000) do rem\r\necho done> \"" << done.string() << "\"\r\n";
    ASSERT_TRUE(DriverPlatform::runAndWait(reinterpret_cast<const char*>(tool.u8string().c_str())));
    EXPECT_TRUE(std::filesystem::exists(done));
    EXPECT_FALSE(DriverPlatform::runAndWait(folder.file("no-such-tool.exe")));
    EXPECT_FALSE(DriverPlatform::runAndWait(""));
}

}  // namespace

#endif
