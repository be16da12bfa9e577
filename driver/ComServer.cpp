#include "ComServer.h"

#include <cstdio>
#include <new>

#include "System/Log.h"
#include "platform/DriverPlatform.h"

std::atomic<std::int32_t> CBaseObject::objectCount{0};
std::int32_t CClassFactory::lockCount = 0;

std::string classIdText(const GUID& id) {
    char text[40];
    std::snprintf(text, sizeof(text), "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  unsigned(id.Data1), unsigned(id.Data2), unsigned(id.Data3), id.Data4[0], id.Data4[1],
                  id.Data4[2], id.Data4[3], id.Data4[4], id.Data4[5], id.Data4[6], id.Data4[7]);
    return text;
}

// ---- CUnknown ---------------------------------------------------------------

CUnknown::CUnknown(IUnknown* outer) : owner(outer != nullptr ? outer : &inner) {}

HRESULT CUnknown::handOut(IUnknown* object, void** out) {
    object->AddRef();
    *out = object;
    return S_OK;
}

HRESULT STDMETHODCALLTYPE CUnknown::NonDelegatingQueryInterface(REFIID iid, void** out) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid == IID_IUnknown) return handOut(&inner, out);
    return E_NOINTERFACE;
}

ULONG STDMETHODCALLTYPE CUnknown::NonDelegatingAddRef() {
    std::int32_t count = references.fetch_add(1) + 1;
    return count == 0 ? 1 : ULONG(count);
}

ULONG STDMETHODCALLTYPE CUnknown::NonDelegatingRelease() {
    std::int32_t count = references.fetch_sub(1) - 1;
    if (count == 0) {
        // Whatever the destructor does with references can't delete twice.
        references.store(1);
        delete this;
        return 0;
    }
    return ULONG(count);
}

// ---- CClassFactory ------------------------------------------------------------

HRESULT STDMETHODCALLTYPE CClassFactory::QueryInterface(REFIID iid, void** out) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IClassFactory) return E_NOINTERFACE;
    AddRef();
    *out = static_cast<IClassFactory*>(this);
    return S_OK;
}

ULONG STDMETHODCALLTYPE CClassFactory::AddRef() {
    return ULONG(++references);
}

ULONG STDMETHODCALLTYPE CClassFactory::Release() {
    if (--references > 0) return ULONG(references);
    delete this;
    return 0;
}

HRESULT STDMETHODCALLTYPE CClassFactory::CreateInstance(IUnknown* outer, REFIID iid, void** out) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    // COM's rule for aggregation: the outer object may only ask for the inner unknown.
    if (outer != nullptr && iid != IID_IUnknown) return E_NOINTERFACE;

    HRESULT result = S_OK;
    CUnknown* object = entry->create(outer, &result);
    if (object == nullptr) return E_OUTOFMEMORY;
    if (result < 0) {
        delete object;
        return result;
    }
    // The query takes its own reference; an object no one asked for ends here.
    object->NonDelegatingAddRef();
    result = object->NonDelegatingQueryInterface(iid, out);
    object->NonDelegatingRelease();
    return result;
}

HRESULT STDMETHODCALLTYPE CClassFactory::LockServer(BOOL lock) {
    lockCount += lock ? 1 : -1;
    return S_OK;
}

// ---- Exports ----------------------------------------------------------------------

STDAPI DllGetClassObject(REFCLSID classId, REFIID iid, void** out) {
    if (out == nullptr) return E_POINTER;
    *out = nullptr;
    if (iid != IID_IUnknown && iid != IID_IClassFactory) return E_NOINTERFACE;
    for (int i = 0; i < factoryTemplateCount; ++i) {
        if (classId == *factoryTemplates[i].classId) {
            auto* factory = new (std::nothrow) CClassFactory(&factoryTemplates[i]);
            if (factory == nullptr) return E_OUTOFMEMORY;
            factory->AddRef();
            *out = static_cast<IClassFactory*>(factory);
            return S_OK;
        }
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() {
    return CClassFactory::lockCount > 0 || CBaseObject::liveObjects() != 0 ? S_FALSE : S_OK;
}

namespace {

DriverPlatform::ServerRegistration registration() {
    return {classIdText(classIdVelmora), registeredName};
}

// Success answers 1 (S_FALSE), as the driver always has, which COM counts as
// success; a failure answers a real error, so that regsvr32 reports it.
HRESULT registrationResult(bool done, const char* what) {
    if (done) return S_FALSE;
    NORVA::LogLine(3) << what << " failed";
    return SELFREG_E_CLASS;
}

}  // namespace

STDAPI DllRegisterServer() {
    return registrationResult(DriverPlatform::registerServer(registration()), "DllRegisterServer");
}

STDAPI DllUnregisterServer() {
    return registrationResult(DriverPlatform::unregisterServer(registration()), "DllUnregisterServer");
}

// Loading needs no work here: the ProductID is a constant and the log is
// made by the first driver object.
#ifdef _WIN32
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID) {
    return TRUE;
}
#else
extern "C" BOOL DllMain(void*, DWORD, void*) {
    return 1;
}
#endif
