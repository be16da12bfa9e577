#include "Network/Interfaces.h"

#include <gtest/gtest.h>

namespace {

using NORVA::InterfaceMap;

// Every machine the tests run on has ::1 on a loopback interface (Linux and
// Wine alike); beyond that, what a machine has is not known here.
TEST(Interfaces, EnumerationAndTheLocalAddressFilter) {
    InterfaceMap all, linkLocal, withLoopback;
    ASSERT_TRUE(NORVA::enumerateV6(all));
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(linkLocal, false));
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(withLoopback, true));
    bool loopbackSeen = false;
    std::size_t linkLocalCount = 0;
    for (const auto& [address, info] : all) {
        EXPECT_EQ(address.port(), 0);
        EXPECT_LE(address.scope(), 0xFFFFu);
        linkLocalCount += address.isLinkLocal() ? 1 : 0;
        if (!address.isLoopback()) continue;
        loopbackSeen = true;
        EXPECT_NE(address.scope(), 0u) << "the interface index is the scope";
        EXPECT_FALSE(info.adapterName.empty());
    }
    EXPECT_TRUE(loopbackSeen);
    EXPECT_EQ(linkLocal.size(), linkLocalCount);
    for (const auto& entry : linkLocal) EXPECT_TRUE(entry.first.isLinkLocal());
    EXPECT_GT(withLoopback.size(), linkLocal.size());
    EXPECT_EQ(NORVA::firstLinkLocalScope(), linkLocal.empty() ? 0u : linkLocal.begin()->first.scope());
}

}  // namespace
