// The library's exports: the class factory, the driver's COM identity and the library's lifetime, as a host's
// COM runtime sees them; the finder, as the configuration tool sees it, with plain buffers.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "ComServer.h"
#include "DriverEnvironment.h"
#include "asio_velmora.h"
#include "asio_velmora_ext.h"
#include "platform/DriverPlatform.h"

namespace {

constexpr GUID otherId = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

class Exports : public DriverEnvironment {};

// Refusals leave no object and null out the result; the library stays while a lock or an object lives.
TEST_F(Exports, FactoryDriverAndTheLibrarysLifetime) {
    void* out = &out;
    EXPECT_EQ(DllGetClassObject(classIdVelmora, classIdVelmora, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(DllGetClassObject(otherId, classIdVelmora, &out), E_NOINTERFACE) << "interface before class";
    EXPECT_EQ(DllGetClassObject(otherId, IID_IClassFactory, &out), CLASS_E_CLASSNOTAVAILABLE);
    ASSERT_EQ(DllGetClassObject(classIdVelmora, IID_IUnknown, &out), S_OK);
    auto* factory = static_cast<IClassFactory*>(out);
    EXPECT_EQ(DllCanUnloadNow(), S_OK) << "the factory alone doesn't hold the library";
    EXPECT_EQ(factory->LockServer(1), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    EXPECT_EQ(factory->LockServer(0), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);

    out = &out;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IClassFactory, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(CBaseObject::liveObjects(), 0) << "the object no one took ended";
    ASSERT_EQ(factory->CreateInstance(nullptr, classIdVelmora, &out), S_OK);
    EXPECT_EQ(factory->Release(), 0u);
    auto* driver = static_cast<IASIO*>(out);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    // One identity: the driver asked for through its IUnknown is the same pointer.
    void *unknown = nullptr, *again = nullptr;
    ASSERT_EQ(driver->QueryInterface(IID_IUnknown, &unknown), S_OK);
    ASSERT_EQ(static_cast<IUnknown*>(unknown)->QueryInterface(classIdVelmora, &again), S_OK);
    EXPECT_EQ(again, out);
    // The creation's and two queries' references.
    EXPECT_EQ(driver->AddRef(), 4u);
    for (ULONG left = 3; left > 0; --left) EXPECT_EQ(driver->Release(), left);
    EXPECT_EQ(CBaseObject::liveObjects(), 1);
    EXPECT_EQ(driver->Release(), 0u);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

using FinderCall = VELMORA::asio_velmora_find_call;

std::string text(FinderCall& finder, std::uint32_t (ASIO_METHOD FinderCall::*call)(char*, std::uint32_t)) {
    char out[512];
    const std::uint32_t length = (finder.*call)(out, sizeof(out));
    EXPECT_EQ(length, std::strlen(out));
    return out;
}

// The driver and the finder export agree on where the files lie: the settings in the user's folder, the
// tool and the reference copy beside the library, which here is the test program.
TEST_F(Exports, FinderFilesLieInTheUsersAndTheLibrarysFolders) {
    const bool windows = DriverPlatform::pathSeparator == '\\';
    if (!windows) user.write("KESTRANE Velmora/setting.inf", "CycleTime=2500\n");
    AsioVelmora driver(nullptr, nullptr);
    const std::string directory = DriverPlatform::libraryDirectory();
    ASSERT_FALSE(directory.empty());
    EXPECT_TRUE(std::filesystem::exists(directory + (windows ? "driver_unit.exe" : "driver_unit")));
    EXPECT_EQ(driver.configToolPath, directory + "velmora_asio_configura.exe");
    EXPECT_EQ(driver.referencePath, directory + "setting_org.inf");
    FinderCall* finder = DllVelmorafind();
    ASSERT_NE(finder, nullptr);
    EXPECT_EQ(text(*finder, &FinderCall::settingOrgPath), driver.referencePath);
    if (!windows) {
        EXPECT_EQ(text(*finder, &FinderCall::settingPath), driver.settingPath);
        EXPECT_EQ(driver.settingPath, user.file("KESTRANE Velmora/setting.inf"));
        EXPECT_EQ(driver.settings.cycleTime, NORVA::TimeValue::fromUs(2500));
    }
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

}  // namespace
