// The COM base types the driver's server is built from. On Windows these are
// the system's own; elsewhere a minimal set with the same layout, so that the
// same vtables and entry points serve a host that loads the library by hand.
#pragma once

#ifdef _WIN32

#include <objbase.h>
#include <olectl.h>
#include <unknwn.h>

#else

#include <cstdint>

using HRESULT = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using BOOL = std::int32_t;

struct GUID {
    std::uint32_t Data1;
    std::uint16_t Data2;
    std::uint16_t Data3;
    std::uint8_t Data4[8];
};
using IID = GUID;
using CLSID = GUID;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline bool operator==(const GUID& a, const GUID& b) {
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
    for (int i = 0; i < 8; ++i) {
        if (a.Data4[i] != b.Data4[i]) return false;
    }
    return true;
}

#define STDMETHODCALLTYPE
#define WINAPI
#define STDAPI extern "C" HRESULT

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT S_FALSE = 1;
inline constexpr HRESULT E_NOINTERFACE = HRESULT(0x80004002u);
inline constexpr HRESULT E_POINTER = HRESULT(0x80004003u);
inline constexpr HRESULT E_OUTOFMEMORY = HRESULT(0x8007000Eu);
inline constexpr HRESULT CLASS_E_CLASSNOTAVAILABLE = HRESULT(0x80040111u);
inline constexpr HRESULT SELFREG_E_CLASS = HRESULT(0x80040201u);

inline constexpr GUID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr GUID IID_IClassFactory = {0x00000001, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// No virtual destructor: it would add a slot that COM's layout doesn't have.
struct IUnknown {
    virtual HRESULT QueryInterface(REFIID iid, void** out) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;
};

struct IClassFactory : public IUnknown {
    virtual HRESULT CreateInstance(IUnknown* outer, REFIID iid, void** out) = 0;
    virtual HRESULT LockServer(BOOL lock) = 0;
};

#endif
