#include "ComServer.h"

#include <gtest/gtest.h>

#include "DriverEnvironment.h"
#include "asio_velmora.h"

namespace {

constexpr GUID otherId = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

class ComServer : public DriverEnvironment {
  protected:
    static IClassFactory* getFactory() {
        void* out = nullptr;
        EXPECT_EQ(DllGetClassObject(classIdVelmora, IID_IClassFactory, &out), S_OK);
        return static_cast<IClassFactory*>(out);
    }
};

TEST_F(ComServer, GetClassObjectAndTheLibrarysLock) {
    EXPECT_EQ(classIdText(classIdVelmora), "{2D388F1A-9F7B-4C34-88F2-337E95484C68}");
    void* out = &out;
    EXPECT_EQ(DllGetClassObject(classIdVelmora, classIdVelmora, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    // The interface is checked before the class.
    EXPECT_EQ(DllGetClassObject(otherId, classIdVelmora, &out), E_NOINTERFACE);
    EXPECT_EQ(DllGetClassObject(otherId, IID_IClassFactory, &out), CLASS_E_CLASSNOTAVAILABLE);

    ASSERT_EQ(DllGetClassObject(classIdVelmora, IID_IUnknown, &out), S_OK);
    auto* factory = static_cast<IClassFactory*>(out);
    void* asFactory = nullptr;
    ASSERT_EQ(factory->QueryInterface(IID_IClassFactory, &asFactory), S_OK);
    EXPECT_EQ(asFactory, out);
    EXPECT_EQ(factory->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
    // The factory alone doesn't hold the library; a lock does.
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    EXPECT_EQ(factory->LockServer(1), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);
    EXPECT_EQ(factory->LockServer(0), S_OK);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
    EXPECT_EQ(factory->Release(), 1u);
    EXPECT_EQ(factory->Release(), 0u);
}

TEST_F(ComServer, CreateInstanceGivesTheDriverAndItsLifetime) {
    IClassFactory* factory = getFactory();
    void* out = &out;
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IClassFactory, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(CBaseObject::liveObjects(), 0) << "a refused interface leaves no object";
    EXPECT_EQ(factory->CreateInstance(nullptr, classIdVelmora, nullptr), E_POINTER);
    ASSERT_EQ(factory->CreateInstance(nullptr, classIdVelmora, &out), S_OK);
    factory->Release();
    auto* driver = static_cast<IASIO*>(out);
    EXPECT_EQ(DllCanUnloadNow(), S_FALSE);

    // One identity: the IUnknown of every interface is the same pointer.
    void *unknown = nullptr, *again = nullptr, *unknownAgain = nullptr;
    ASSERT_EQ(driver->QueryInterface(IID_IUnknown, &unknown), S_OK);
    ASSERT_EQ(static_cast<IUnknown*>(unknown)->QueryInterface(classIdVelmora, &again), S_OK);
    EXPECT_EQ(again, out);
    ASSERT_EQ(static_cast<IUnknown*>(again)->QueryInterface(IID_IUnknown, &unknownAgain), S_OK);
    EXPECT_EQ(unknownAgain, unknown);
    void* none = &none;
    EXPECT_EQ(driver->QueryInterface(IID_IClassFactory, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);

    // Four references now: the creation's and three queries'.
    EXPECT_EQ(driver->AddRef(), 5u);
    for (ULONG left = 4; left > 0; --left) EXPECT_EQ(driver->Release(), left);
    EXPECT_EQ(CBaseObject::liveObjects(), 1);
    EXPECT_EQ(driver->Release(), 0u);
    EXPECT_EQ(CBaseObject::liveObjects(), 0);
    EXPECT_EQ(DllCanUnloadNow(), S_OK);
}

// An aggregating object that counts what reaches it.
class Outer : public IUnknown {
  public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override {
        ++queries;
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ULONG(++references); }
    ULONG STDMETHODCALLTYPE Release() override { return ULONG(--references); }
    int references = 1;
    int queries = 0;
};

TEST_F(ComServer, AggregationForwardsToTheOuterObject) {
    IClassFactory* factory = getFactory();
    Outer outer;
    void* out = &out;
    // The outer object may only ask for the inner unknown.
    EXPECT_EQ(factory->CreateInstance(&outer, classIdVelmora, &out), E_NOINTERFACE);
    EXPECT_EQ(CBaseObject::liveObjects(), 0);
    ASSERT_EQ(factory->CreateInstance(&outer, IID_IUnknown, &out), S_OK);
    factory->Release();
    auto* inner = static_cast<IUnknown*>(out);
    void* driverOut = nullptr;
    ASSERT_EQ(inner->QueryInterface(classIdVelmora, &driverOut), S_OK);
    // The driver's reference went to the outer object, not the inner count.
    EXPECT_EQ(outer.references, 2);
    auto* driver = static_cast<IASIO*>(driverOut);
    void* elsewhere = nullptr;
    driver->QueryInterface(IID_IUnknown, &elsewhere);
    EXPECT_EQ(outer.queries, 1);
    driver->Release();
    EXPECT_EQ(outer.references, 1);
    EXPECT_EQ(inner->Release(), 0u);
    EXPECT_EQ(CBaseObject::liveObjects(), 0);
}

}  // namespace
