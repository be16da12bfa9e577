// The class factory, the driver's COM identity and the library's lifetime, as a host's COM runtime sees them.
#include "ComServer.h"

#include <gtest/gtest.h>

#include "DriverEnvironment.h"
#include "asio_velmora.h"

namespace {

constexpr GUID otherId = {0x12345678, 0x1234, 0x5678, {1, 2, 3, 4, 5, 6, 7, 8}};

class ComServer : public DriverEnvironment {};

// Refusals leave no object and null out the result; the library stays while a lock or an object lives.
TEST_F(ComServer, FactoryDriverAndTheLibrarysLifetime) {
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

}  // namespace
