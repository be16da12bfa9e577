#include "Network/IPAddress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using NORVA::IPAddress;

IPAddress parsed(const std::string& text) {
    IPAddress address;
    EXPECT_TRUE(address.parseV6(text)) << text;
    return address;
}

// Only the first zero run is compressed; the text parses back to the same
// address. Every ":" that opens no gap ends a group, a leading one too.
TEST(IPAddressText, CompressesOnlyTheFirstZeroRunAndRoundTrips) {
    const std::pair<const char*, const char*> cases[] = {
        {"0:0:0:0:0:0:0:1", "::1"},
        {"1:2:3:4::5:6", "1:2:3:4::5:6"},
        {"FE80::aBcD", "fe80::abcd"},
        {"1:2:3:4:5:6:7:", "1:2:3:4:5:6:7:0"},
        {":1:2:3:4:5:6:7", "0:1:2:3:4:5:6:7"},
        {"0:0:0:0:0:0:0:0", "::"},
        {"1:0:0:2:0:0:0:3", "1::2:0:0:0:3"},
        {"1:0:2:3:4:5:6:7", "1:0:2:3:4:5:6:7"},
        {"1:2:3:4:5:6:7:0", "1:2:3:4:5:6:7:0"},
        {"1:0:0:0:0:0:0:0", "1::"},
        {"fe80:0:0:0:abcd:0:0:1", "fe80::abcd:0:0:1"},
        {"0:0:0:0:0:fffe:102:304", "::fffe:102:304"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}};
    for (const auto& [full, text] : cases) {
        EXPECT_EQ(parsed(full).toString(), text);
        EXPECT_EQ(parsed(text).compare(parsed(full)), 0) << text;
    }
    EXPECT_EQ(parsed("::ffff:102:304").toString(), "1.2.3.4") << "only ::ffff: is mapped";
    EXPECT_EQ(IPAddress(1, 2, 3, 4, 0).toString(), "1.2.3.4");
    IPAddress address = parsed("fe80::1");
    address.setPort(19640);
    address.setScope(0x10000 + 12);
    EXPECT_EQ(address.toStringPort(), "fe80::1,19640");
    EXPECT_EQ(address.toStringScopePort(), "fe80::1%12,19640") << "only the low 16 bits of the scope";
}

// "::1:2:3:4:5:6:7" is eight groups and a gap.
TEST(IPAddressParse, RefusesMalformedGroupsAndGaps) {
    for (const char* text :
         {"::1:2:3:4:5:6:7", "1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:12345", "1:2:3:4:5:6:7:8:9", "1::2::3",
          ":::", "1:2:3:4::5:6:7:8", "1:2:3:4:5:6:7", "fe80::g", "1.2.3.4", ""}) {
        IPAddress address;
        EXPECT_FALSE(address.parseV6(text)) << text;
    }
}

// The port wraps at 16 bits; the scope is never touched; the address is set
// even when the port behind it is refused. Typed text is read more freely.
TEST(IPAddressParse, V6PortNeedsTheCommaAndPersonTypedTextIsReadFreely) {
    IPAddress address;
    address.setPort(7);
    address.setScope(3);
    EXPECT_FALSE(address.parseV6Port("fe80::1"));
    EXPECT_TRUE(address.isAny() && address.port() == 7) << "nothing changes without a comma";
    const std::pair<const char*, int> ports[] = {{"fe80::1,19642", 19642}, {"::1,", 0}, {"::1,65537", 1}};
    for (const auto& [text, port] : ports) {
        ASSERT_TRUE(address.parseV6Port(text)) << text;
        EXPECT_TRUE(address.port() == port && address.scope() == 3u) << text;
    }
    EXPECT_TRUE(!address.parseV6Port("::2,12x") && address.group(7) == 2);
    EXPECT_FALSE(address.parseV6Port("::g,1"));

    ASSERT_TRUE(address.parse("  [fe80::1%12],19640 trailing words"));
    EXPECT_EQ(address.toStringScopePort(), "fe80::1%12,19640");
    // Numbers wrap to their field, never overflow into a sign.
    ASSERT_TRUE(address.parse("fe80::1%4294967308,99999999999999999999"));
    EXPECT_EQ(address.scope(), 12u);
    EXPECT_TRUE(address.parse("::1") && address.isLoopback());
    // A negative number, or a bare comma left in the text, clears the address.
    for (const char* text : {"fe80::1,-3", "fe80::1%-1,5", "fe80::1,", "not an address"}) {
        address = IPAddress::loopback(5);
        EXPECT_TRUE(!address.parse(text) && address.isAnyNoPort()) << text;
    }
}

TEST(IPAddressValue, TestsAndOrder) {
    EXPECT_EQ(IPAddress::multicast(0xff02, 19642).toStringPort(), "ff02::1,19642");
    EXPECT_FALSE(IPAddress::multicast(0xff02, 0).isLinkLocal());
    EXPECT_TRUE(parsed("fe80::9").isLinkLocal() && !parsed("fe81::9").isLinkLocal()) << "fe80::/16, not /10";
    EXPECT_FALSE(IPAddress(0, 0, 0, 1, 0).isLoopback()) << "::ffff:0.0.0.1 is not ::1";
    EXPECT_FALSE(IPAddress::loopback(0).isAnyNoPort());

    // Address, then port (numerically: it lies in network order), then scope.
    IPAddress a = IPAddress::loopback(1), b = IPAddress::loopback(1);
    a.setScope(1);
    b.setScope(2);
    EXPECT_TRUE(a.compare(b) == -1 && b.compare(a) == 1 && !(a == b));
    EXPECT_EQ(IPAddress::loopback(1).compare(IPAddress::loopback(256)), -1);
    EXPECT_EQ(IPAddress::loopback(9).compare(parsed("::2")), -1);
}

}  // namespace
