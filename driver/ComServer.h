// The in-process COM server: object counting, the aggregatable unknown that
// the driver object is built on, and the class factory behind
// DllGetClassObject.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/Com.h"

// The driver's class identifier, which is also the interface identifier a
// host asks for: {2D388F1A-9F7B-4C34-88F2-337E95484C68}.
inline constexpr CLSID classIdVelmora = {
    0x2D388F1A, 0x9F7B, 0x4C34, {0x88, 0xF2, 0x33, 0x7E, 0x95, 0x48, 0x4C, 0x68}};

// The name under which hosts list the driver, and of its class entry.
inline constexpr const char* registeredName = "KESTRANE Velmora";

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", upper case, as StringFromCLSID.
std::string classIdText(const GUID& id);

// Counts the live objects of the server, so that the library isn't unloaded
// under them.
class CBaseObject {
  public:
    CBaseObject() { objectCount.fetch_add(1); }
    ~CBaseObject() { objectCount.fetch_sub(1); }
    CBaseObject(const CBaseObject&) = delete;
    CBaseObject& operator=(const CBaseObject&) = delete;

    static std::int32_t liveObjects() { return objectCount.load(); }

  private:
    static std::atomic<std::int32_t> objectCount;
};

// The inner unknown of COM aggregation: its operations never forward.
class INonDelegatingUnknown {
  public:
    virtual HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID iid, void** out) = 0;
    virtual ULONG STDMETHODCALLTYPE NonDelegatingAddRef() = 0;
    virtual ULONG STDMETHODCALLTYPE NonDelegatingRelease() = 0;

  protected:
    ~INonDelegatingUnknown() = default;
};

// Base of an aggregatable object. `owner` is the unknown that the object's
// public IUnknown operations forward to: the aggregating object, or this
// object's own inner unknown when it stands alone.
class CUnknown : public INonDelegatingUnknown, public CBaseObject {
  public:
    explicit CUnknown(IUnknown* outer);
    virtual ~CUnknown() = default;

    // Answers IUnknown with the inner unknown.
    HRESULT STDMETHODCALLTYPE NonDelegatingQueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE NonDelegatingAddRef() override;
    // Deletes the object when the count reaches 0.
    ULONG STDMETHODCALLTYPE NonDelegatingRelease() override;

    // The object as a plain IUnknown whose operations don't forward; what
    // an aggregating object holds.
    IUnknown* innerUnknown() { return &inner; }

    IUnknown* owner;
    std::atomic<std::int32_t> references{0};

  protected:
    // Stores `object` in `out` with a new reference on it.
    static HRESULT handOut(IUnknown* object, void** out);

  private:
    // A real IUnknown, so that no one has to call the non-delegating side
    // through a type it isn't.
    class Inner : public IUnknown {
      public:
        explicit Inner(CUnknown& object) : object(object) {}
        HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
            return object.NonDelegatingQueryInterface(iid, out);
        }
        ULONG STDMETHODCALLTYPE AddRef() override { return object.NonDelegatingAddRef(); }
        ULONG STDMETHODCALLTYPE Release() override { return object.NonDelegatingRelease(); }

      private:
        CUnknown& object;
    };
    Inner inner{*this};
};

// One class the server can make.
struct CFactoryTemplate {
    const wchar_t* name;
    const CLSID* classId;
    CUnknown* (*create)(IUnknown* outer, HRESULT* result);
    void (*initialise)(BOOL loading, const CLSID* classId);
};

class CClassFactory final : public IClassFactory {
  public:
    explicit CClassFactory(const CFactoryTemplate* entry) : entry(entry) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override;
    ULONG STDMETHODCALLTYPE Release() override;
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override;
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override;

    // Locks taken by LockServer; the apartment model needs no atomics.
    static std::int32_t lockCount;

  private:
    ~CClassFactory() = default;

    const CFactoryTemplate* entry;
    std::int32_t references = 0;
};

// The classes of this server; defined beside the driver object.
extern const CFactoryTemplate factoryTemplates[];
extern const int factoryTemplateCount;

// The library's exports.
STDAPI DllGetClassObject(REFCLSID classId, REFIID iid, void** out);
STDAPI DllCanUnloadNow();
STDAPI DllRegisterServer();
STDAPI DllUnregisterServer();
