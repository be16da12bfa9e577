#include "Network/IPAddress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Network/Interfaces.h"

namespace {

using NORVA::IPAddress;

IPAddress fromGroups(const std::vector<std::uint16_t>& groups) {
    std::uint8_t bytes[16] = {};
    for (std::size_t i = 0; i < groups.size(); ++i) {
        bytes[2 * i] = std::uint8_t(groups[i] >> 8);
        bytes[2 * i + 1] = std::uint8_t(groups[i]);
    }
    IPAddress address;
    address.setBytes(bytes);
    return address;
}

std::vector<std::uint16_t> groupsOf(const IPAddress& address) {
    std::vector<std::uint16_t> groups;
    for (int i = 0; i < 8; ++i) groups.push_back(address.group(i));
    return groups;
}

TEST(IPAddressText, CompressesOnlyTheFirstZeroRun) {
    EXPECT_EQ(IPAddress::loopback(0).toString(), "::1");
    EXPECT_EQ(IPAddress().toString(), "::");
    EXPECT_EQ(fromGroups({1, 0, 0, 2, 0, 0, 0, 3}).toString(), "1::2:0:0:0:3");
    EXPECT_EQ(fromGroups({1, 0, 2, 3, 4, 5, 6, 7}).toString(), "1:0:2:3:4:5:6:7");
    EXPECT_EQ(fromGroups({1, 2, 3, 4, 5, 6, 7, 0}).toString(), "1:2:3:4:5:6:7:0");
    EXPECT_EQ(fromGroups({1, 0, 0, 0, 0, 0, 0, 0}).toString(), "1::");
    EXPECT_EQ(fromGroups({0xfe80, 0, 0, 0, 0xabcd, 0, 0, 0x1}).toString(), "fe80::abcd:0:0:1");
}

TEST(IPAddressText, MappedV4PrintsAsDottedQuad) {
    EXPECT_EQ(IPAddress(1, 2, 3, 4, 0).toString(), "1.2.3.4");
    EXPECT_EQ(IPAddress::loopback4().toString(), "127.0.0.1");
    // Only ::ffff: is mapped; ::fffe:... stays hexadecimal.
    EXPECT_EQ(fromGroups({0, 0, 0, 0, 0, 0xfffe, 0x0102, 0x0304}).toString(), "::fffe:102:304");
}

TEST(IPAddressText, PortAndScopeForms) {
    IPAddress address = fromGroups({0xfe80, 0, 0, 0, 0, 0, 0, 1});
    address.setPort(19640);
    address.setScope(12);
    EXPECT_EQ(address.toStringPort(), "fe80::1,19640");
    EXPECT_EQ(address.toStringScopePort(), "fe80::1%12,19640");
    // Only the low 16 bits of the scope are written.
    address.setScope(0x10000 + 12);
    EXPECT_EQ(address.toStringScopePort(), "fe80::1%12,19640");
    EXPECT_EQ(IPAddress().toStringScopePort(), "::%0,0");
}

// Every ":" that opens no gap ends a group, a leading one too.
TEST(IPAddressParse, GroupsAndGaps) {
    struct Case {
        const char* text;
        bool accepted;
        std::vector<std::uint16_t> groups;
    };
    const Case cases[] = {
        {"1:2:3:4::5:6", true, {1, 2, 3, 4, 0, 0, 5, 6}},
        {"::1", true, {0, 0, 0, 0, 0, 0, 0, 1}},
        {"FE80::aBcD", true, {0xfe80, 0, 0, 0, 0, 0, 0, 0xabcd}},
        {"ffff:1:2:3:4:5:6:7", true, {0xffff, 1, 2, 3, 4, 5, 6, 7}},
        {"1::", true, {1, 0, 0, 0, 0, 0, 0, 0}},
        {"::", true, {0, 0, 0, 0, 0, 0, 0, 0}},
        {"1:2:3:4:5:6:7:", true, {1, 2, 3, 4, 5, 6, 7, 0}},
        {":1:2:3:4:5:6:7", true, {0, 1, 2, 3, 4, 5, 6, 7}},
        {"::1:2:3:4:5:6:7", false, {}},  // the leading ":" is a group: eight and a gap
        {"1:2:3:4:5:6:7::", false, {}},
        {"1:2:3:4:5:6:7:12345", false, {}},  // five digits
        {"1:2:3:4:5:6:7:8:9", false, {}},    // nine groups
        {"1::2::3", false, {}},              // two gaps
        {":::", false, {}},
        {"1:2:3:4::5:6:7:8", false, {}},  // a gap among eight groups
        {"1:2:3:4:5:6:7", false, {}},     // seven groups, no gap
        {"fe80::g", false, {}},
        {"1.2.3.4", false, {}},
        {"", false, {}},
    };
    for (const Case& c : cases) {
        IPAddress address;
        ASSERT_EQ(address.parseV6(c.text), c.accepted) << c.text;
        if (c.accepted) {
            EXPECT_EQ(groupsOf(address), c.groups) << c.text;
        }
    }
}

TEST(IPAddressParse, RoundTripsItsOwnText) {
    for (const auto& groups : std::vector<std::vector<std::uint16_t>>{
             {1, 0, 0, 2, 0, 0, 0, 3},
             {0, 0, 0, 0, 0, 0, 0, 0},
             {0xfe80, 0, 0, 0, 0x1234, 0x56ff, 0xfe78, 0x9abc},
             {0, 1, 0, 1, 0, 1, 0, 1},
             {0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff, 0xffff}}) {
        IPAddress original = fromGroups(groups);
        IPAddress parsed;
        ASSERT_TRUE(parsed.parseV6(original.toString())) << original.toString();
        EXPECT_EQ(parsed.compare(original), 0) << original.toString();
    }
}

TEST(IPAddressParse, V6PortNeedsTheComma) {
    IPAddress address;
    address.setPort(7);
    address.setScope(3);
    EXPECT_FALSE(address.parseV6Port("fe80::1"));
    EXPECT_TRUE(address.isAny()) << "nothing changes without a comma";
    EXPECT_EQ(address.port(), 7);

    ASSERT_TRUE(address.parseV6Port("fe80::1,19642"));
    EXPECT_EQ(address.port(), 19642);
    EXPECT_EQ(address.scope(), 3u) << "the scope is not touched";
    EXPECT_TRUE(address.isLinkLocal());

    ASSERT_TRUE(address.parseV6Port("::1,"));
    EXPECT_EQ(address.port(), 0);
    ASSERT_TRUE(address.parseV6Port("::1,65537"));
    EXPECT_EQ(address.port(), 1) << "the port wraps at 16 bits";

    EXPECT_FALSE(address.parseV6Port("::2,12x"));
    EXPECT_EQ(address.group(7), 2) << "the address is set even when the port is refused";
    EXPECT_FALSE(address.parseV6Port("::g,1"));
}

TEST(IPAddressParse, PersonTypedText) {
    IPAddress address;
    ASSERT_TRUE(address.parse("  [fe80::1%12],19640 trailing words"));
    EXPECT_EQ(address.toStringScopePort(), "fe80::1%12,19640");
    ASSERT_TRUE(address.parse("::1"));
    EXPECT_TRUE(address.isLoopback());

    address = IPAddress::loopback(5);
    EXPECT_FALSE(address.parse("fe80::1,-3"));
    EXPECT_TRUE(address.isAnyNoPort()) << "a negative port clears the address";
    address = IPAddress::loopback(5);
    EXPECT_FALSE(address.parse("fe80::1%-1,5"));
    EXPECT_TRUE(address.isAnyNoPort());
    address = IPAddress::loopback(5);
    EXPECT_FALSE(address.parse("fe80::1,"));
    EXPECT_TRUE(address.isAnyNoPort()) << "a bare comma stays in the text and fails it";
    EXPECT_FALSE(address.parse("not an address"));
}

TEST(IPAddressParse, DottedQuadWithPort) {
    IPAddress address;
    ASSERT_TRUE(address.parseV4Port("192.168.1.4,514"));
    EXPECT_EQ(address.toStringPort(), "192.168.1.4,514");
    ASSERT_TRUE(address.parseV4Port("10.0.0.1"));
    EXPECT_EQ(address.port(), 0);
    EXPECT_FALSE(address.parseV4Port("256.1.1.1"));
    EXPECT_FALSE(address.parseV4Port("1.2.3"));
    EXPECT_FALSE(address.parseV4Port("1.2.3.4.5"));
    EXPECT_FALSE(address.parseV4Port("1..3.4"));
    EXPECT_FALSE(address.parseV4Port("1.2.3.4,70000"));
}

TEST(IPAddressValue, ConstructorsAndTests) {
    IPAddress multicast = IPAddress::multicast(0xff02, 19642);
    EXPECT_EQ(multicast.toStringPort(), "ff02::1,19642");
    EXPECT_FALSE(multicast.isLinkLocal());
    EXPECT_TRUE(fromGroups({0xfe80, 0, 0, 0, 0, 0, 0, 9}).isLinkLocal());
    EXPECT_FALSE(fromGroups({0xfe81, 0, 0, 0, 0, 0, 0, 9}).isLinkLocal()) << "fe80::/16, not /10";

    IPAddress port = IPAddress::loopback(0x1234);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&port.portNetworkOrder);
    EXPECT_EQ(bytes[0], 0x12) << "the port lies in network order";
    EXPECT_EQ(bytes[1], 0x34);
    EXPECT_FALSE(port.isAnyNoPort());
    EXPECT_TRUE(port.isLoopback());
    EXPECT_FALSE(IPAddress(0, 0, 0, 1, 0).isLoopback()) << "::ffff:0.0.0.1 is not ::1";
}

TEST(IPAddressValue, OrderTakesAddressThenPortThenScope) {
    IPAddress a = IPAddress::loopback(1);
    IPAddress b = IPAddress::loopback(1);
    b.setScope(2);
    a.setScope(1);
    EXPECT_EQ(a.compare(b), -1);
    EXPECT_EQ(b.compare(a), 1);
    EXPECT_FALSE(a == b);

    // The port compares by its bytes in memory: 0x0100 (256) before 0x0001 (1)
    // would be wrong; network order makes the byte order the numeric one.
    EXPECT_EQ(IPAddress::loopback(1).compare(IPAddress::loopback(256)), -1);
    // The address outranks the port.
    EXPECT_EQ(IPAddress::loopback(9).compare(fromGroups({0, 0, 0, 0, 0, 0, 0, 2})), -1);

    NORVA::InterfaceMap map;
    map[a];
    map[b];
    EXPECT_EQ(map.size(), 2u) << "entries that differ only in scope are different keys";
    EXPECT_EQ(map.begin()->first.scope(), 1u);
}

}  // namespace
