// The registry entries of the COM server, checked in Wine's registry.
#ifdef _WIN32

#include <windows.h>

#include <gtest/gtest.h>

#include <cctype>
#include <string>

#include "ComServer.h"

namespace {

const std::string classKey = "CLSID\\" + classIdText(classIdVelmora);
const std::string driverKey = "SOFTWARE\\ASIO\\KESTRANE Velmora";

bool keyExists(HKEY root, const std::string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::string value(HKEY root, const std::string& path, const char* name) {
    char text[1024] = {};
    DWORD size = sizeof(text) - 1;
    if (RegGetValueA(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &size) != ERROR_SUCCESS)
        return "?";
    return text;
}

std::string programPathLowered() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    CharLowerA(path);
    return path;
}

void setValue(HKEY root, const std::string& path, const char* name, const std::string& text) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExA(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr),
              ERROR_SUCCESS);
    RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()), DWORD(text.size() + 1));
    RegCloseKey(key);
}

class Registry : public ::testing::Test {
  protected:
    void TearDown() override { DllUnregisterServer(); }
};

TEST_F(Registry, RegisterWritesBothKeysAndUnregisterRemovesThem) {
    ASSERT_EQ(DllRegisterServer(), S_FALSE);
    EXPECT_EQ(value(HKEY_CLASSES_ROOT, classKey, nullptr), "KESTRANE Velmora");
    EXPECT_EQ(value(HKEY_CLASSES_ROOT, classKey + "\\InprocServer32", nullptr), programPathLowered());
    EXPECT_EQ(value(HKEY_CLASSES_ROOT, classKey + "\\InprocServer32", "ThreadingModel"), "Apartment");
    EXPECT_EQ(value(HKEY_LOCAL_MACHINE, driverKey, "CLSID"), "{2D388F1A-9F7B-4C34-88F2-337E95484C68}");
    EXPECT_EQ(value(HKEY_LOCAL_MACHINE, driverKey, "Description"), "KESTRANE Velmora");

    EXPECT_EQ(DllUnregisterServer(), S_FALSE);
    EXPECT_FALSE(keyExists(HKEY_CLASSES_ROOT, classKey));
    EXPECT_FALSE(keyExists(HKEY_LOCAL_MACHINE, driverKey));
    EXPECT_TRUE(keyExists(HKEY_LOCAL_MACHINE, "SOFTWARE\\ASIO"));
    EXPECT_EQ(DllUnregisterServer(), S_FALSE);
}

TEST_F(Registry, SamePathKeepsTheClassKeyAndRenewsTheDriverKey) {
    ASSERT_EQ(DllRegisterServer(), S_FALSE);
    // Upper case: the comparison of paths ignores case.
    std::string upper = programPathLowered();
    for (char& c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
    setValue(HKEY_CLASSES_ROOT, classKey + "\\InprocServer32", nullptr, upper);
    setValue(HKEY_CLASSES_ROOT, classKey, "Marker", "kept");
    setValue(HKEY_LOCAL_MACHINE, driverKey, "Marker", "dropped");

    ASSERT_EQ(DllRegisterServer(), S_FALSE);
    EXPECT_EQ(value(HKEY_CLASSES_ROOT, classKey, "Marker"), "kept");
    EXPECT_EQ(value(HKEY_LOCAL_MACHINE, driverKey, "Marker"), "?");
}

TEST_F(Registry, OtherPathReplacesTheClassKey) {
    setValue(HKEY_CLASSES_ROOT, classKey + "\\InprocServer32", nullptr,
             "c:\\elsewhere\\asio_kestrane_w32.dll");
    setValue(HKEY_CLASSES_ROOT, classKey + "\\Stale", nullptr, "old");
    ASSERT_EQ(DllRegisterServer(), S_FALSE);
    EXPECT_FALSE(keyExists(HKEY_CLASSES_ROOT, classKey + "\\Stale"));
    EXPECT_EQ(value(HKEY_CLASSES_ROOT, classKey + "\\InprocServer32", nullptr), programPathLowered());
}

}  // namespace

#endif
