#include "Network/Socket.h"

#include <gtest/gtest.h>

#include "Network/ByteArray.h"
#include "Network/Interfaces.h"
#include "Network/SocketSet.h"

#include <cstring>
#include <string>

namespace {

using NORVA::ByteArray;
using NORVA::IPAddress;
using NORVA::Socket;
using NORVA::SocketSet;
using NORVA::TimeValue;
using NORVA::UDPV6;

// Generous: only a broken socket waits this long.
const TimeValue arrival = TimeValue::fromSeconds(10);

// A UDP socket on [::1] at a port the system picks.
IPAddress bindLoopback(UDPV6& socket) {
    IPAddress address = IPAddress::loopback(0);
    EXPECT_TRUE(socket.bind(address));
    return address;
}

TEST(Socket, StartsClosedWithItsDefaults) {
    UDPV6 socket;
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(socket.kind, Socket::tcp4);
    EXPECT_EQ(socket.receiveSize, 1500u);
    EXPECT_TRUE(socket.blocking);
    EXPECT_EQ(socket.lastError, 0);
    EXPECT_EQ(socket.boundScope, 0u);
}

TEST(Socket, OpenSetBlockingAndClose) {
    UDPV6 socket;
    ASSERT_TRUE(socket.openNonBlocking());
    EXPECT_EQ(socket.kind, Socket::udp6);
    EXPECT_FALSE(socket.blocking);
    ASSERT_TRUE(socket.setBlocking(true));
    EXPECT_TRUE(socket.blocking);

    // Opening again starts over in blocking mode.
    ASSERT_TRUE(socket.open(Socket::udp6dual));
    EXPECT_EQ(socket.kind, Socket::udp6dual);
    EXPECT_TRUE(socket.blocking);

    socket.close();
    EXPECT_FALSE(socket.isOpen());
    socket.close();
    EXPECT_FALSE(socket.isOpen());

    // The raw kind makes no socket.
    EXPECT_TRUE(socket.open(Socket::raw));
    EXPECT_FALSE(socket.isOpen());
}

TEST(Socket, BindToPortZeroWritesTheAssignedPortBack) {
    UDPV6 first;
    UDPV6 second;
    ASSERT_TRUE(first.open(Socket::udp6));
    ASSERT_TRUE(second.open(Socket::udp6));
    IPAddress a = bindLoopback(first);
    IPAddress b = bindLoopback(second);
    EXPECT_NE(a.port(), 0);
    EXPECT_NE(b.port(), 0);
    EXPECT_NE(a.port(), b.port());
    EXPECT_EQ(first.boundScope, 0u);

    // The port written back is the one the socket really has.
    const char text[] = "to the assigned port";
    ASSERT_TRUE(second.sendTo(a, false, text, sizeof(text) - 1));
    ASSERT_EQ(first.waitReadable(arrival), 2);
    char data[64];
    std::size_t received = 0;
    IPAddress peer;
    ASSERT_TRUE(first.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_EQ(std::string(data, received), text);
    EXPECT_EQ(peer.port(), b.port());
    EXPECT_TRUE(peer.isLoopback());
}

// Only a link-local address (or ::1 given a scope) binds to an interface.
TEST(Socket, BindingALinkLocalAddressTakesItsScope) {
    NORVA::InterfaceMap map;
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(map, false));
    if (map.empty()) GTEST_SKIP() << "no link-local address";
    IPAddress linkLocal = map.begin()->first;
    ASSERT_NE(linkLocal.scope(), 0u);

    UDPV6 socket;
    ASSERT_TRUE(socket.openNonBlocking());
    ASSERT_TRUE(socket.bind(linkLocal));
    EXPECT_EQ(socket.boundScope, linkLocal.scope());
    EXPECT_NE(linkLocal.port(), 0);

    UDPV6 loopback;
    ASSERT_TRUE(loopback.openNonBlocking());
    IPAddress plain = IPAddress::loopback(0);
    plain.setScope(0);
    ASSERT_TRUE(loopback.bind(plain));
    EXPECT_EQ(loopback.boundScope, 0u);
}

TEST(Socket, ASecondBindFailsWithTheError) {
    UDPV6 socket;
    ASSERT_TRUE(socket.open(Socket::udp6));
    IPAddress first = bindLoopback(socket);
    IPAddress second = IPAddress::loopback(0);
    EXPECT_FALSE(socket.bind(second));
    EXPECT_NE(socket.lastError, 0);
    // Nothing is written back on failure.
    EXPECT_EQ(second.port(), 0);
    EXPECT_NE(first.port(), 0);
}

// The one code that differs from Winsock's numbers on every system: the
// target keeps quiet about it.
TEST(Socket, AnAddressThatIsNotOursIsNotAvailable) {
    UDPV6 socket;
    ASSERT_TRUE(socket.open(Socket::udp6));
    IPAddress foreign;
    ASSERT_TRUE(foreign.parseV6("2001:db8::7"));
    EXPECT_FALSE(socket.bind(foreign));
    EXPECT_EQ(socket.lastError, 99);
}

TEST(Socket, WaitReadableTimesOutOrSeesADatagram) {
    UDPV6 receiver;
    UDPV6 sender;
    ASSERT_TRUE(receiver.open(Socket::udp6));
    ASSERT_TRUE(sender.openNonBlocking());
    IPAddress target = bindLoopback(receiver);

    EXPECT_EQ(receiver.waitReadable(TimeValue()), 1);
    EXPECT_EQ(receiver.waitReadable(TimeValue::fromMs(1)), 1);

    ASSERT_TRUE(sender.sendTo(target, true, "x", 1));
    EXPECT_EQ(receiver.waitReadable(arrival), 2);
    // Still readable: waiting doesn't take the datagram.
    EXPECT_EQ(receiver.waitReadable(TimeValue()), 2);

    UDPV6 closed;
    EXPECT_EQ(closed.waitReadable(TimeValue()), 0);
}

TEST(Socket, NonBlockingReceiveOnAnEmptySocketIsNothingReceived) {
    UDPV6 socket;
    ASSERT_TRUE(socket.openNonBlocking());
    bindLoopback(socket);
    char data[16];
    std::size_t received = 99;
    IPAddress peer;
    EXPECT_TRUE(socket.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_EQ(received, 0u);

    // A socket that isn't there is a failure, not "nothing".
    UDPV6 closed;
    EXPECT_FALSE(closed.receiveFrom(data, sizeof(data), received, peer));
}

TEST(Socket, DatagramsKeepTheirBoundariesAndAreCutToTheBuffer) {
    UDPV6 receiver;
    UDPV6 sender;
    ASSERT_TRUE(receiver.openNonBlocking());
    ASSERT_TRUE(sender.openNonBlocking());
    IPAddress target = bindLoopback(receiver);

    std::string big(1000, 'b');
    ASSERT_TRUE(sender.sendTo(target, true, big.data(), big.size()));
    ASSERT_TRUE(sender.sendTo(target, true, "", 0));
    ASSERT_TRUE(sender.sendTo(target, true, "small", 5));

    char data[100];
    std::size_t received = 0;
    IPAddress peer;
    ASSERT_EQ(receiver.waitReadable(arrival), 2);
    ASSERT_TRUE(receiver.receiveFrom(data, 10, received, peer));
    EXPECT_EQ(std::string(data, received), std::string(10, 'b'));

    ASSERT_EQ(receiver.waitReadable(arrival), 2);
    received = 99;
    ASSERT_TRUE(receiver.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_EQ(received, 0u);

    ASSERT_EQ(receiver.waitReadable(arrival), 2);
    ASSERT_TRUE(receiver.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_EQ(std::string(data, received), "small");
}

TEST(Socket, SendToANonExistentSocketFails) {
    UDPV6 closed;
    EXPECT_FALSE(closed.sendTo(IPAddress::loopback(9), true, "x", 1));
    EXPECT_NE(closed.lastError, 0);
}

TEST(Socket, ReceiveIntoAnArrayTakesTheReceiveSizeAndKeepsTheAllocation) {
    UDPV6 receiver;
    UDPV6 sender;
    ASSERT_TRUE(receiver.openNonBlocking());
    ASSERT_TRUE(sender.openNonBlocking());
    IPAddress target = bindLoopback(receiver);
    receiver.receiveSize = 64;

    ByteArray array;
    IPAddress peer;
    ASSERT_TRUE(receiver.receiveFrom(array, peer));
    EXPECT_TRUE(array.empty());
    EXPECT_EQ(array.allocated(), 64u);

    ASSERT_TRUE(sender.sendTo(target, true, "datagram", 8));
    ASSERT_EQ(receiver.waitReadable(arrival), 2);
    const std::uint8_t* storage = array.data();
    ASSERT_TRUE(receiver.receive(array));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(array.data()), array.size()), "datagram");
    EXPECT_EQ(array.data(), storage);
}

TEST(ByteArray, GrowsKeepingItsBytesAndNeverShrinks) {
    ByteArray array;
    EXPECT_TRUE(array.resize(4));
    std::memcpy(array.data(), "abcd", 4);
    EXPECT_TRUE(array.resize(1000));
    EXPECT_EQ(std::memcmp(array.data(), "abcd", 4), 0);
    EXPECT_EQ(array.data()[999], 0);

    const std::uint8_t* storage = array.data();
    EXPECT_FALSE(array.resize(2));
    EXPECT_EQ(array.size(), 2u);
    EXPECT_EQ(array.allocated(), 1000u);
    array.clear();
    EXPECT_FALSE(array.resize(1000));
    EXPECT_EQ(array.data(), storage);
    EXPECT_EQ(std::memcmp(array.data(), "abcd", 4), 0);
}

TEST(SocketSet, TellsWhichSocketIsReadable) {
    UDPV6 first;
    UDPV6 second;
    UDPV6 sender;
    ASSERT_TRUE(first.openNonBlocking());
    ASSERT_TRUE(second.openNonBlocking());
    ASSERT_TRUE(sender.openNonBlocking());
    bindLoopback(first);
    IPAddress target = bindLoopback(second);

    SocketSet set;
    EXPECT_EQ(set.wait(TimeValue()), 0);
    UDPV6 closed;
    EXPECT_FALSE(set.add(closed));
    ASSERT_TRUE(set.add(first));
    ASSERT_TRUE(set.add(second));
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(set.wait(TimeValue::fromMs(1)), 1);

    ASSERT_TRUE(sender.sendTo(target, true, "x", 1));
    ASSERT_EQ(set.wait(arrival), 2);
    EXPECT_FALSE(set.isReady(first));
    EXPECT_TRUE(set.isReady(second));
    EXPECT_FALSE(set.isReady(closed));
}

}  // namespace
