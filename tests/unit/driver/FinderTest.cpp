// The finder export as the configuration tool sees it: the exported function
// and the interface's slots, with plain buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "DriverEnvironment.h"
#include "asio_velmora_ext.h"

namespace {

using FinderCall = VELMORA::asio_velmora_find_call;

std::string text(FinderCall& finder, std::uint32_t (ASIO_METHOD FinderCall::*call)(char*, std::uint32_t)) {
    char out[512];
    const std::uint32_t length = (finder.*call)(out, sizeof(out));
    EXPECT_EQ(length, std::strlen(out));
    return out;
}

class Finder : public DriverEnvironment {};

TEST_F(Finder, AnswersWhereTheSettingsLieAndWhichProductsCount) {
    FinderCall* finder = DllVelmorafind();
    ASSERT_NE(finder, nullptr);
    std::filesystem::path setting = text(*finder, &FinderCall::settingPath);
    EXPECT_EQ(setting.parent_path().filename(), "KESTRANE Velmora");
    EXPECT_EQ(setting.filename(), "setting.inf");
#ifndef _WIN32
    EXPECT_EQ(setting.parent_path().parent_path(), user.path);
#endif
    // The tool lies beside the library, and so does the reference copy: here, the test program.
    std::filesystem::path reference = text(*finder, &FinderCall::settingOrgPath);
    EXPECT_EQ(reference.filename(), "setting_org.inf");
    EXPECT_TRUE(std::filesystem::exists(reference.parent_path() / "driver_unit") ||
                std::filesystem::exists(reference.parent_path() / "driver_unit.exe"));
    std::uint64_t ids[4] = {};
    EXPECT_EQ(finder->findIdList(ids, 4), 0u);
    EXPECT_EQ(finder->findId(), 0u);
    EXPECT_EQ(finder->productId(), 0x454E41525453454Bu);
    EXPECT_EQ(text(*finder, &FinderCall::assetPath), "quintessarola/KESTRANE/asio_sync/");
    // A short buffer takes what fits and learns the length.
    char shortText[8];
    EXPECT_EQ(finder->assetName(shortText, sizeof(shortText)), std::strlen("KESTRANE_ASIO_3_148_9"));
    EXPECT_STREQ(shortText, "KESTRAN");
    EXPECT_EQ(finder->assetName(nullptr, 0), std::strlen("KESTRANE_ASIO_3_148_9"));
    finder->destroy();
}

TEST(FinderAssets, VendorWordShapesPathAndName) {
    const struct {
        const char *vendor, *path, *name;
    } rows[] = {
        // The character after the company name is skipped, whatever it is.
        {"quintessarola-x", "quintessarola/KESTRANE/asio_sync_x/", "KESTRANE_ASIO_x_3_148_9"},
        {"quintessarola-", "quintessarola/KESTRANE/asio_sync/", "KESTRANE_ASIO_3_148_9"},
        {"Velmora", "quintessarola/Velmora/asio_sync", "Velmora_ASIO_3_148_9"},
        {"acme", "acme", "3_148_9"},
    };
    for (const auto& row : rows) {
        auto* finder = new asio_velmora_find(row.vendor);
        EXPECT_EQ(finder->assetPathText(), row.path) << row.vendor;
        EXPECT_EQ(finder->assetNameText(), row.name) << row.vendor;
        static_cast<FinderCall*>(finder)->destroy();  // as the tool does
    }
}

}  // namespace
