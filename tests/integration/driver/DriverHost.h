// What a host does to reach the driver: load the library from its file and
// make the driver object through the COM entry point.
#pragma once

#include <dlfcn.h>

#include <string>

#include "ComServer.h"
#include "asio/Asio.h"

class DriverHost {
  public:
    explicit DriverHost(const std::string& libraryPath)
        : library(dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
    ~DriverHost() {
        if (library != nullptr) dlclose(library);
    }
    DriverHost(const DriverHost&) = delete;
    DriverHost& operator=(const DriverHost&) = delete;

    bool loaded() const { return library != nullptr; }

    // A new driver object, or null. Hosts ask for it with its class
    // identifier as the interface.
    IASIO* create() const {
        using GetClassObject = HRESULT (*)(REFCLSID, REFIID, void**);
        auto getClassObject = reinterpret_cast<GetClassObject>(dlsym(library, "DllGetClassObject"));
        if (getClassObject == nullptr) return nullptr;
        IClassFactory* factory = nullptr;
        if (getClassObject(classIdVelmora, IID_IClassFactory, reinterpret_cast<void**>(&factory)) != S_OK)
            return nullptr;
        IASIO* driver = nullptr;
        factory->CreateInstance(nullptr, classIdVelmora, reinterpret_cast<void**>(&driver));
        factory->Release();
        return driver;
    }

  private:
    void* library;
};
