// The finder export as the configuration tool sees it: through the exported
// function and the interface's slots, with plain buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "DriverEnvironment.h"
#include "asio_velmora.h"
#include "asio_velmora_ext.h"
#include "platform/DriverPlatform.h"

namespace {

using FinderCall = VELMORA::asio_velmora_find_call;
using TextCall = std::uint32_t (ASIO_METHOD FinderCall::*)(char*, std::uint32_t);

std::string textOf(FinderCall& finder, TextCall call) {
    char text[512];
    std::uint32_t length = (finder.*call)(text, sizeof(text));
    EXPECT_EQ(length, std::strlen(text));
    return text;
}

class Finder : public DriverEnvironment {
  protected:
    void TearDown() override {
        finder->destroy();
        DriverEnvironment::TearDown();
    }
    FinderCall* finder = DllVelmorafind();
};

TEST_F(Finder, AnswersWhereTheSettingsLieAndWhichProductsCount) {
    ASSERT_NE(finder, nullptr);
    const char separator = DriverPlatform::pathSeparator;
    EXPECT_EQ(textOf(*finder, &FinderCall::settingPath),
              DriverPlatform::userDataFolder() + separator + "KESTRANE Velmora" + separator + "setting.inf");
    // The tool lies beside the library: its own folder holds the reference copy.
    EXPECT_EQ(textOf(*finder, &FinderCall::settingOrgPath),
              DriverPlatform::programDirectory() + "setting_org.inf");
    std::uint64_t ids[4] = {};
    EXPECT_EQ(finder->findIdList(ids, 4), 0u);
    EXPECT_EQ(finder->findId(), 0u);
    EXPECT_EQ(finder->productId(), AsioVelmora::productId);
    EXPECT_EQ(textOf(*finder, &FinderCall::assetPath), "quintessarola/KESTRANE/asio_sync/");
    EXPECT_EQ(textOf(*finder, &FinderCall::assetName), "KESTRANE_ASIO_3_148_9");
}

TEST_F(Finder, AShortBufferTakesWhatFitsAndLearnsTheLength) {
    char text[8];
    std::memset(text, 'x', sizeof(text));
    EXPECT_EQ(finder->assetName(text, sizeof(text)), std::strlen("KESTRANE_ASIO_3_148_9"));
    EXPECT_STREQ(text, "KESTRAN");
    EXPECT_EQ(finder->assetName(nullptr, 0), std::strlen("KESTRANE_ASIO_3_148_9"));
}

// Each variant is destroyed through the interface, as the tool does.
struct Assets {
    std::string path;
    std::string name;
};
Assets assetsFor(const std::string& vendor) {
    auto* finder = new asio_velmora_find(vendor);
    Assets assets{finder->assetPathText(), finder->assetNameText()};
    static_cast<FinderCall*>(finder)->destroy();
    return assets;
}

TEST(FinderAssets, VendorWordShapesPathAndName) {
    // The character after the company name is skipped, whatever it is.
    Assets suffixed = assetsFor("quintessarola-x");
    EXPECT_EQ(suffixed.path, "quintessarola/KESTRANE/asio_sync_x/");
    EXPECT_EQ(suffixed.name, "KESTRANE_ASIO_x_3_148_9");
    Assets separatorOnly = assetsFor("quintessarola-");
    EXPECT_EQ(separatorOnly.path, "quintessarola/KESTRANE/asio_sync/");
    Assets velmora = assetsFor("Velmora");
    EXPECT_EQ(velmora.path, "quintessarola/Velmora/asio_sync");
    EXPECT_EQ(velmora.name, "Velmora_ASIO_3_148_9");
    Assets other = assetsFor("acme");
    EXPECT_EQ(other.path, "acme");
    EXPECT_EQ(other.name, "3_148_9");
}

}  // namespace
