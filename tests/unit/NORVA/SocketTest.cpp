#include "Network/Socket.h"

#include <gtest/gtest.h>

#include "Network/ByteArray.h"
#include "Network/Interfaces.h"
#include "Network/SocketSet.h"

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

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

// A receiver bound on [::1] and a non-blocking sender.
struct SocketPair {
    UDPV6 receiver;
    UDPV6 sender;
    IPAddress target, peer;
    explicit SocketPair(bool receiverBlocks = false) {
        EXPECT_TRUE(receiverBlocks ? receiver.open(Socket::udp6) : receiver.openNonBlocking());
        EXPECT_TRUE(sender.openNonBlocking());
        target = bindLoopback(receiver);
    }
    std::string take(std::size_t room = 100) {
        char data[100];
        std::size_t received = 99;
        if (receiver.waitReadable(arrival) != 2) return "<none>";
        EXPECT_TRUE(receiver.receiveFrom(data, room, received, peer));
        return std::string(data, received);
    }
};

TEST(Socket, OpenSetBlockingAndClose) {
    UDPV6 socket;
    EXPECT_FALSE(socket.isOpen());
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
    socket.close();
    EXPECT_FALSE(socket.isOpen());
    EXPECT_TRUE(socket.open(Socket::raw) && !socket.isOpen()) << "the raw kind makes no socket";

    // A socket that isn't there fails every call, never reads as "nothing".
    char data[16];
    std::uint8_t* buffers[1] = {reinterpret_cast<std::uint8_t*>(data)};
    std::size_t received = 0, count = 0;
    IPAddress peer;
    std::chrono::nanoseconds age{};
    EXPECT_EQ(socket.waitReadable(TimeValue()), 0);
    EXPECT_FALSE(socket.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_FALSE(socket.receiveMany(buffers, sizeof(data), &received, &peer, &age, 1, count));
    EXPECT_FALSE(socket.sendTo(IPAddress::loopback(9), true, "x", 1));
    EXPECT_NE(socket.lastError, 0);
    SocketSet set;
    EXPECT_FALSE(set.add(socket));
}

TEST(Socket, BindWritesTheAssignedPortBackAndFailsWithTheError) {
    SocketPair pair;
    IPAddress from = bindLoopback(pair.sender);
    EXPECT_NE(pair.target.port(), 0);
    EXPECT_NE(pair.target.port(), from.port());
    EXPECT_EQ(pair.receiver.boundScope, 0u);
    // The port written back is the one the socket really has.
    ASSERT_TRUE(pair.sender.sendTo(pair.target, false, "to a", 4));
    EXPECT_EQ(pair.take(), "to a");
    EXPECT_EQ(pair.peer.port(), from.port());
    EXPECT_TRUE(pair.peer.isLoopback());

    // A second bind fails, writing nothing back.
    IPAddress again = IPAddress::loopback(0);
    EXPECT_FALSE(pair.receiver.bind(again));
    EXPECT_NE(pair.receiver.lastError, 0);
    EXPECT_EQ(again.port(), 0);
    // The one code that differs from Winsock's numbers on every system.
    IPAddress foreign;
    UDPV6 third;
    ASSERT_TRUE(foreign.parseV6("2001:db8::7") && third.open(Socket::udp6));
    EXPECT_FALSE(third.bind(foreign));
    EXPECT_EQ(third.lastError, 99);
}

// Only a link-local address (or ::1 given a scope) binds to an interface.
TEST(Socket, BindingALinkLocalAddressTakesItsScope) {
    NORVA::InterfaceMap map;
    ASSERT_TRUE(NORVA::getMyLocalAddresV6(map, false));
    if (map.empty()) GTEST_SKIP() << "no link-local address";
    IPAddress linkLocal = map.begin()->first;
    UDPV6 socket;
    ASSERT_TRUE(socket.openNonBlocking() && socket.bind(linkLocal));
    EXPECT_EQ(socket.boundScope, linkLocal.scope());
    EXPECT_NE(socket.boundScope, 0u);
}

TEST(Socket, DatagramsKeepTheirBoundariesAndAreCutToTheBuffer) {
    SocketPair pair;
    char data[16];
    std::size_t received = 99;
    IPAddress peer;
    EXPECT_TRUE(pair.receiver.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_EQ(received, 0u) << "non-blocking and empty: nothing received";

    std::string big(1000, 'b');
    ASSERT_TRUE(pair.sender.sendTo(pair.target, true, big.data(), big.size()));
    ASSERT_TRUE(pair.sender.sendTo(pair.target, true, "", 0));
    ASSERT_TRUE(pair.sender.sendTo(pair.target, true, "small", 5));
    EXPECT_EQ(pair.take(10), std::string(10, 'b'));
    EXPECT_EQ(pair.take(), "");
    EXPECT_EQ(pair.take(), "small");

    // Into an array: the receive size is allocated once and kept.
    pair.receiver.receiveSize = 64;
    ByteArray array;
    ASSERT_TRUE(pair.receiver.receiveFrom(array, peer));
    EXPECT_TRUE(array.empty());
    EXPECT_EQ(array.allocated(), 64u);
    const std::uint8_t* storage = array.data();
    ASSERT_TRUE(pair.sender.sendTo(pair.target, true, "datagram", 8));
    ASSERT_EQ(pair.receiver.waitReadable(arrival), 2);
    ASSERT_TRUE(pair.receiver.receive(array));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(array.data()), array.size()), "datagram");
    EXPECT_EQ(array.data(), storage);
}

TEST(Socket, ReceiveManyTakesWhatWaitsInOrderUpToTheCountEachCut) {
    SocketPair pair;
    IPAddress from = bindLoopback(pair.sender);
    bool stamped = pair.receiver.stampArrivals();
    for (const std::string& datagram :
         {std::string("one"), std::string(40, 'x'), std::string(), std::string("4"), std::string("five")})
        ASSERT_TRUE(pair.sender.sendTo(pair.target, true, datagram.data(), datagram.size()));

    constexpr std::size_t room = 8;
    std::uint8_t buffers[3][room];
    std::uint8_t* data[3] = {buffers[0], buffers[1], buffers[2]};
    std::size_t received[3];
    IPAddress peers[3];
    std::chrono::nanoseconds ages[3];
    std::vector<std::string> taken;
    std::size_t count = 99;
    for (int tries = 0; taken.size() < 5 && tries < 50; ++tries) {
        ASSERT_EQ(pair.receiver.waitReadable(arrival), 2);
        ASSERT_TRUE(pair.receiver.receiveMany(data, room, received, peers, ages, 3, count));
        ASSERT_LE(count, 3u);
        for (std::size_t i = 0; i < count; ++i) {
            taken.emplace_back(reinterpret_cast<char*>(data[i]), received[i]);
            EXPECT_EQ(peers[i].toStringPort(), from.toStringPort());
        }
    }
    EXPECT_EQ(taken, (std::vector<std::string>{"one", std::string(room, 'x'), "", "4", "five"}));
    EXPECT_TRUE(pair.receiver.receiveMany(data, room, received, peers, ages, 3, count));
    EXPECT_EQ(count, 0u) << "nothing waits";

    // Stamped, a datagram's age counts the time it waited in the socket. Linux
    // now and then leaves one unstamped (read as taken on arrival): a few tries.
    if (!stamped) GTEST_SKIP() << "this system stamps no arrivals";
    std::chrono::nanoseconds oldest{};
    for (int tries = 0; tries < 5 && oldest < std::chrono::milliseconds(20); ++tries) {
        ASSERT_TRUE(pair.sender.sendTo(pair.target, true, "late", 4));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(pair.receiver.receiveMany(data, room, received, peers, ages, 3, count));
        ASSERT_EQ(count, 1u);
        oldest = std::max(oldest, ages[0]);
    }
    EXPECT_GE(oldest, std::chrono::milliseconds(20));
}

TEST(ByteArray, GrowsKeepingItsBytesAndNeverShrinks) {
    ByteArray array;
    EXPECT_TRUE(array.resize(4));
    std::memcpy(array.data(), "abcd", 4);
    EXPECT_TRUE(array.resize(1000));
    const std::uint8_t* storage = array.data();
    EXPECT_EQ(array.data()[999], 0);
    EXPECT_FALSE(array.resize(2));
    EXPECT_EQ(array.allocated(), 1000u);
    array.clear();
    EXPECT_FALSE(array.resize(1000));
    EXPECT_EQ(array.data(), storage);
    EXPECT_EQ(std::memcmp(array.data(), "abcd", 4), 0);
}

TEST(SocketSet, TellsWhichSocketIsReadable) {
    SocketPair pair;
    UDPV6 other;
    ASSERT_TRUE(other.openNonBlocking());
    bindLoopback(other);
    SocketSet set;
    EXPECT_EQ(set.wait(TimeValue()), 0);
    ASSERT_TRUE(set.add(other) && set.add(pair.receiver));
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(set.wait(TimeValue::fromMs(1)), 1);
    ASSERT_TRUE(pair.sender.sendTo(pair.target, true, "x", 1));
    ASSERT_EQ(set.wait(arrival), 2);
    EXPECT_FALSE(set.isReady(other));
    EXPECT_TRUE(set.isReady(pair.receiver));
}

// The wait ends with the datagram, or with its timeout passed, never before:
// spans below a millisecond, of a few, and beyond the margins Windows keeps.
TEST(SocketWait, EndsAtTheDatagramOrAfterTheTimeout) {
    SocketPair pair(true);
    EXPECT_EQ(pair.receiver.waitReadable(TimeValue()), 1);
    for (std::int64_t us : {300, 1500, 2500, 4500, 12000}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(pair.receiver.waitReadable(TimeValue::fromUs(std::uint64_t(us))), 1) << us << " us";
        auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(waited).count(), us) << us << " us";
    }
    for (int delayMs : {1, 5, 30}) {
        std::thread sender([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            EXPECT_TRUE(pair.sender.sendTo(pair.target, true, "x", 1));
        });
        EXPECT_EQ(pair.receiver.waitReadable(TimeValue::fromSeconds(10)), 2) << delayMs << " ms";
        sender.join();
        EXPECT_EQ(pair.receiver.waitReadable(TimeValue()), 2) << "waiting doesn't take the datagram";
        EXPECT_EQ(pair.take(), "x");
    }
}

}  // namespace
