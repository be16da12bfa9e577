// Windows: a DAW finds the driver under HKLM\SOFTWARE\ASIO, reads its class
// identifier and asks COM for the object with that identifier as interface.
// A library given by path is loaded and asked through DllGetClassObject
// instead, so that an unregistered build can be played.
#include "DriverLoader.h"

#include <windows.h>

#include "ComServer.h"

struct DriverLoader::State {
    HMODULE library = nullptr;
    bool com = false;
};

DriverLoader::DriverLoader() : state(std::make_unique<State>()) {}

DriverLoader::~DriverLoader() {
    if (state->library != nullptr) FreeLibrary(state->library);
    if (state->com) CoUninitialize();
}

bool DriverLoader::hasRegistry() {
    return true;
}

namespace {

std::wstring wide(const std::string& text) {
    int length = MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, nullptr, 0);
    std::wstring result(std::size_t(length > 0 ? length : 1), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.c_str(), -1, result.data(), length);
    result.resize(result.size() - 1);
    return result;
}

std::string hex(HRESULT result) {
    char text[16];
    wsprintfA(text, "0x%08lX", static_cast<unsigned long>(result));
    return text;
}

// The class identifier that the driver's key under SOFTWARE\ASIO names.
bool registeredClass(const std::string& name, CLSID& id, std::string& error) {
    std::wstring key = L"SOFTWARE\\ASIO\\" + wide(name);
    wchar_t text[64] = {};
    DWORD size = sizeof text - sizeof(wchar_t);
    LONG status =
        RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"CLSID", RRF_RT_REG_SZ, nullptr, text, &size);
    if (status != ERROR_SUCCESS) {
        error = "no ASIO driver \"" + name + "\" is registered (HKLM\\SOFTWARE\\ASIO)";
        return false;
    }
    if (CLSIDFromString(text, &id) != NOERROR) {
        error = "the CLSID of \"" + name + "\" in the registry doesn't parse";
        return false;
    }
    return true;
}

}  // namespace

IASIO* DriverLoader::create(const std::string& path, const std::string& name, std::string& error) {
    HRESULT result = CoInitialize(nullptr);
    state->com = SUCCEEDED(result);
    IASIO* driver = nullptr;
    if (path.empty()) {
        origin = "HKLM\\SOFTWARE\\ASIO\\" + name;
        CLSID id;
        if (!registeredClass(name, id, error)) return nullptr;
        result = CoCreateInstance(id, nullptr, CLSCTX_INPROC_SERVER, id, reinterpret_cast<void**>(&driver));
        if (result != S_OK || driver == nullptr) {
            error = "CoCreateInstance failed (" + hex(result) + ")";
            return nullptr;
        }
        return driver;
    }
    origin = path;
    state->library = LoadLibraryW(wide(path).c_str());
    if (state->library == nullptr) {
        error = "can't load the driver " + path + " (error " + std::to_string(GetLastError()) + ")";
        return nullptr;
    }
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    auto getClassObject = reinterpret_cast<GetClassObject>(
        reinterpret_cast<void*>(GetProcAddress(state->library, "DllGetClassObject")));
    if (getClassObject == nullptr) {
        error = path + " exports no DllGetClassObject: not a COM server";
        return nullptr;
    }
    IClassFactory* factory = nullptr;
    result = getClassObject(classIdVelmora, IID_IClassFactory, reinterpret_cast<void**>(&factory));
    if (result != S_OK || factory == nullptr) {
        error = "DllGetClassObject refused the driver's class (" + hex(result) + ")";
        return nullptr;
    }
    result = factory->CreateInstance(nullptr, classIdVelmora, reinterpret_cast<void**>(&driver));
    factory->Release();
    if (result != S_OK || driver == nullptr) {
        error = "CreateInstance failed (" + hex(result) + ")";
        return nullptr;
    }
    return driver;
}

bool DriverLoader::useSettingsFolder(const std::string&, std::string& error) {
    error = "--settings is for Linux: on Windows the driver reads the user's roaming AppData folder";
    return false;
}
