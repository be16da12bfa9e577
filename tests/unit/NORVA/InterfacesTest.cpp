#include "Network/Interfaces.h"

#include <gtest/gtest.h>

namespace {

using NORVA::InterfaceMap;

// Every machine the tests run on has a loopback interface with ::1 (Linux
// and Wine alike); beyond that, what a machine has is not known here.
TEST(Interfaces, LoopbackIsEnumeratedWithItsScope) {
    InterfaceMap all;
    ASSERT_TRUE(NORVA::enumerateV6(all));
    bool loopbackSeen = false;
    for (const auto& [address, info] : all) {
        EXPECT_EQ(address.port(), 0);
        EXPECT_LE(address.scope(), 0xFFFFu);
        if (address.isLoopback()) {
            loopbackSeen = true;
            EXPECT_NE(address.scope(), 0u) << "the interface index is the scope";
            EXPECT_FALSE(info.adapterName.empty());
        }
    }
    EXPECT_TRUE(loopbackSeen);
}

TEST(Interfaces, LocalAddressFilter) {
    InterfaceMap all;
    ASSERT_TRUE(NORVA::enumerateV6(all));
    InterfaceMap linkLocal;
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(linkLocal, false));
    InterfaceMap withLoopback;
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(withLoopback, true));

    std::size_t expectedLinkLocal = 0;
    for (const auto& entry : all) expectedLinkLocal += entry.first.isLinkLocal() ? 1 : 0;
    EXPECT_EQ(linkLocal.size(), expectedLinkLocal);
    for (const auto& entry : linkLocal) EXPECT_TRUE(entry.first.isLinkLocal());
    EXPECT_GT(withLoopback.size(), linkLocal.size());

    std::uint32_t scope = NORVA::firstLinkLocalScope();
    if (linkLocal.empty()) {
        EXPECT_EQ(scope, 0u);
    } else {
        EXPECT_EQ(scope, linkLocal.begin()->first.scope());
    }
}

TEST(Interfaces, V4InMappedForm) {
    InterfaceMap all;
    ASSERT_TRUE(NORVA::enumerateV4(all));
    for (const auto& [address, info] : all) {
        EXPECT_EQ(address.group(5), 0xffff) << address.toString();
        EXPECT_EQ(info.mtu, 0u) << "only the names are filled for IPv4";
    }
}

}  // namespace
