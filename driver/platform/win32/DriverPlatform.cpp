// The driver's system calls on Windows: the module's own file name, the
// roaming application data folder, ShellExecuteEx for the tool, and the
// registry entries of an in-process COM server and an ASIO driver.
#include "platform/DriverPlatform.h"

// windows.h first: the shell headers depend on it.
#include <windows.h>

#include <shellapi.h>
#include <shlobj.h>

namespace DriverPlatform {

namespace {

std::string toUtf8(const wchar_t* wide) {
    int size = WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1) return {};
    std::string text(std::size_t(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide, -1, text.data(), size, nullptr, nullptr);
    text.resize(std::size_t(size - 1));
    return text;
}

std::wstring toWide(const std::string& text) {
    int size = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
    if (size <= 1) return {};
    std::wstring wide(std::size_t(size), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, wide.data(), size);
    wide.resize(std::size_t(size - 1));
    return wide;
}

// The module that holds this code: the DLL in a host, the program in a test.
HMODULE ownModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ownModule), &module);
    return module;
}

// The module's full path in the system's narrow code page, lowered, as the
// registry's InprocServer32 value holds it.
std::string modulePathLowered() {
    HMODULE module = ownModule();
    if (module == nullptr) return {};
    char path[MAX_PATH + 100] = {};
    DWORD length = GetModuleFileNameA(module, path, DWORD(sizeof(path)));
    if (length == 0 || length >= sizeof(path)) return {};
    CharLowerA(path);
    return path;
}

std::string lowered(std::string text) {
    if (!text.empty()) CharLowerA(text.data());
    return text;
}

bool keyExists(HKEY root, const std::string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

std::string readDefaultValue(HKEY root, const std::string& path) {
    char value[MAX_PATH + 100] = {};
    DWORD size = sizeof(value) - 1;
    if (RegGetValueA(root, path.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, value, &size) != ERROR_SUCCESS) {
        return {};
    }
    return value;
}

bool deleteTree(HKEY root, const std::string& path) {
    return RegDeleteTreeA(root, path.c_str()) == ERROR_SUCCESS;
}

// Opens the key for writing, making it if it isn't there; null on failure.
HKEY createKey(HKEY root, const std::string& path) {
    HKEY key = nullptr;
    if (RegCreateKeyExA(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr) !=
        ERROR_SUCCESS) {
        return nullptr;
    }
    return key;
}

bool makeKey(HKEY root, const std::string& path) {
    HKEY key = createKey(root, path);
    if (key == nullptr) return false;
    RegCloseKey(key);
    return true;
}

// Sets one string value (null name: the default value) of the key.
bool setValue(HKEY root, const std::string& path, const char* name, const std::string& value) {
    HKEY key = createKey(root, path);
    if (key == nullptr) return false;
    LONG result = RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                 DWORD(value.size() + 1));
    RegCloseKey(key);
    return result == ERROR_SUCCESS;
}

const std::string asioRoot = "SOFTWARE\\ASIO";

}  // namespace

// The folder of `module`'s file, with its trailing backslash; null: the program.
static std::string moduleDirectory(HMODULE module) {
    wchar_t path[MAX_PATH] = {};
    DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return {};
    std::string text = toUtf8(path);
    return text.substr(0, text.rfind('\\') + 1);
}

std::string libraryDirectory() {
    HMODULE module = ownModule();
    if (module == nullptr) return {};
    return moduleDirectory(module);
}

std::string programDirectory() {
    return moduleDirectory(nullptr);
}

std::string userDataFolder() {
    wchar_t path[MAX_PATH] = {};
    if (!SHGetSpecialFolderPathW(nullptr, path, CSIDL_APPDATA, FALSE)) return {};
    return toUtf8(path);
}

std::uint64_t processId() {
    return GetCurrentProcessId();
}

bool runAndWait(const std::string& programPath) {
    std::wstring file = toWide(programPath);
    if (file.empty()) return false;
    SHELLEXECUTEINFOW info{};
    info.cbSize = sizeof(info);
    info.fMask = SEE_MASK_NOCLOSEPROCESS;
    info.lpFile = file.c_str();
    info.nShow = SW_SHOWNORMAL;
    if (!ShellExecuteExW(&info) || reinterpret_cast<INT_PTR>(info.hInstApp) <= 32) return false;
    if (info.hProcess != nullptr) {
        WaitForSingleObject(info.hProcess, INFINITE);
        CloseHandle(info.hProcess);
    }
    return true;
}

bool registerServer(const ServerRegistration& registration) {
    std::string modulePath = modulePathLowered();
    if (modulePath.empty()) return false;
    const std::string classKey = "CLSID\\" + registration.classIdText;
    const std::string serverKey = classKey + "\\InprocServer32";
    const std::string driverKey = asioRoot + "\\" + registration.name;

    // Every step is tried, so that one refused key doesn't leave the rest
    // stale; any refusal makes the answer false.
    bool done = true;
    bool current = false;
    if (keyExists(HKEY_CLASSES_ROOT, classKey)) {
        current = lowered(readDefaultValue(HKEY_CLASSES_ROOT, serverKey)) == modulePath;
        if (!current) done &= deleteTree(HKEY_CLASSES_ROOT, classKey);
    }
    if (!current) {
        done &= setValue(HKEY_CLASSES_ROOT, classKey, nullptr, registration.name);
        done &= setValue(HKEY_CLASSES_ROOT, serverKey, nullptr, modulePath);
        done &= setValue(HKEY_CLASSES_ROOT, serverKey, "ThreadingModel", "Apartment");
    }
    if (!keyExists(HKEY_LOCAL_MACHINE, asioRoot)) {
        done &= makeKey(HKEY_LOCAL_MACHINE, asioRoot);
    } else if (keyExists(HKEY_LOCAL_MACHINE, driverKey)) {
        done &= deleteTree(HKEY_LOCAL_MACHINE, driverKey);
    }
    done &= setValue(HKEY_LOCAL_MACHINE, driverKey, "CLSID", registration.classIdText);
    done &= setValue(HKEY_LOCAL_MACHINE, driverKey, "Description", registration.name);
    return done;
}

bool unregisterServer(const ServerRegistration& registration) {
    if (modulePathLowered().empty()) return false;
    const std::string classKey = "CLSID\\" + registration.classIdText;
    const std::string driverKey = asioRoot + "\\" + registration.name;
    bool done = true;
    if (keyExists(HKEY_CLASSES_ROOT, classKey)) done &= deleteTree(HKEY_CLASSES_ROOT, classKey);
    if (keyExists(HKEY_LOCAL_MACHINE, driverKey)) done &= deleteTree(HKEY_LOCAL_MACHINE, driverKey);
    return done;
}

}  // namespace DriverPlatform
