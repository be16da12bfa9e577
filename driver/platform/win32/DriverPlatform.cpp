// The driver's system calls on Windows: the module's own file name, the
// roaming application data folder, ShellExecuteEx for the tool, and the
// registry entries of an in-process COM server and an ASIO driver.
#include "platform/DriverPlatform.h"

// windows.h first: the shell headers depend on it.
#include <windows.h>

#include <shellapi.h>
#include <shlobj.h>

#include "System/Log.h"

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

// A registry call that fails doesn't stop the registration: the rest is
// still written, and the failure goes to the log.
void logRefusal(const char* call, const std::string& path, LONG result) {
    if (result != ERROR_SUCCESS) NORVA::LogLine(3) << call << " " << path << " error " << result;
}

void deleteTree(HKEY root, const std::string& path) {
    logRefusal("RegDeleteTree", path, RegDeleteTreeA(root, path.c_str()));
}

// Opens the key for writing, making it if it isn't there; null on failure.
HKEY createKey(HKEY root, const std::string& path) {
    HKEY key = nullptr;
    LONG result = RegCreateKeyExA(root, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr);
    logRefusal("RegCreateKey", path, result);
    return result == ERROR_SUCCESS ? key : nullptr;
}

void makeKey(HKEY root, const std::string& path) {
    if (HKEY key = createKey(root, path)) RegCloseKey(key);
}

// Sets one string value (null name: the default value) of the key.
void setValue(HKEY root, const std::string& path, const char* name, const std::string& value) {
    HKEY key = createKey(root, path);
    if (key == nullptr) return;
    logRefusal("RegSetValue", path,
               RegSetValueExA(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                              DWORD(value.size() + 1)));
    RegCloseKey(key);
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

    // The class entries stay as they are when they name this file already.
    const bool classKeyFound = keyExists(HKEY_CLASSES_ROOT, classKey);
    if (!classKeyFound || lowered(readDefaultValue(HKEY_CLASSES_ROOT, serverKey)) != modulePath) {
        if (classKeyFound) deleteTree(HKEY_CLASSES_ROOT, classKey);
        setValue(HKEY_CLASSES_ROOT, classKey, nullptr, registration.name);
        setValue(HKEY_CLASSES_ROOT, serverKey, nullptr, modulePath);
        setValue(HKEY_CLASSES_ROOT, serverKey, "ThreadingModel", "Apartment");
    }
    if (!keyExists(HKEY_LOCAL_MACHINE, asioRoot)) {
        makeKey(HKEY_LOCAL_MACHINE, asioRoot);
    } else if (keyExists(HKEY_LOCAL_MACHINE, driverKey)) {
        deleteTree(HKEY_LOCAL_MACHINE, driverKey);
    }
    setValue(HKEY_LOCAL_MACHINE, driverKey, "CLSID", registration.classIdText);
    setValue(HKEY_LOCAL_MACHINE, driverKey, "Description", registration.name);
    return true;
}

bool unregisterServer(const ServerRegistration& registration) {
    if (modulePathLowered().empty()) return false;
    const std::string classKey = "CLSID\\" + registration.classIdText;
    const std::string driverKey = asioRoot + "\\" + registration.name;
    if (keyExists(HKEY_CLASSES_ROOT, classKey)) deleteTree(HKEY_CLASSES_ROOT, classKey);
    if (keyExists(HKEY_LOCAL_MACHINE, driverKey)) deleteTree(HKEY_LOCAL_MACHINE, driverKey);
    return true;
}

}  // namespace DriverPlatform
