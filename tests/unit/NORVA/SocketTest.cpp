#include "Network/Socket.h"

#include <gtest/gtest.h>

#include "Network/ByteArray.h"
#include "Network/Interfaces.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using NORVA::ByteArray;
using NORVA::EthernetBuffer;
using NORVA::IPAddress;
using NORVA::Socket;
using NORVA::TimeValue;
using NORVA::UDPV6;

// Generous: only a broken socket waits this long.
const TimeValue longWait = TimeValue::fromSeconds(10);
// Far enough ahead that the test can't reach it first, even under a sanitizer.
const TimeValue ahead = TimeValue::fromMs(40);

// A UDP socket bound on [::1] at a port the system picks.
struct Endpoint {
    UDPV6 socket;
    IPAddress address = IPAddress::loopback(0), peer;
    explicit Endpoint(bool blocks = false) {
        EXPECT_TRUE((blocks ? socket.open(Socket::udp6) : socket.openNonBlocking()) && socket.bind(address));
    }
    // A frame to `to` holding `text`; "" makes an empty receive buffer.
    std::unique_ptr<EthernetBuffer> frame(const IPAddress& to = {}, const std::string& text = "") {
        std::unique_ptr<EthernetBuffer> frame = socket.newBuffer(nullptr, 0);
        frame->resize(static_cast<std::uint32_t>(text.size()), 0);
        if (text.empty()) return frame;
        std::memcpy(frame->frame(), text.data(), text.size());
        frame->setPeer(to);
        return frame;
    }
    void send(const IPAddress& to, const std::string& text) {
        EXPECT_TRUE(socket.sendTo(to, true, text.data(), text.size()));
    }
    // The next datagram cut to `room` bytes, its sender in `peer`.
    std::string next(std::size_t room = 2048) {
        char data[2048];
        std::size_t received = 99;
        if (socket.waitReadable(longWait) != 2) return "<none>";
        EXPECT_TRUE(socket.receiveFrom(data, room, received, peer));
        return std::string(data, received);
    }
};

std::string textOf(const EthernetBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.frame()), buffer.length);
}

// Every loopback test binds to port 0 and is sent to at the port written
// back; here the failures, which write nothing back.
TEST(Socket, OpenSetBlockingCloseAndFailures) {
    UDPV6 socket;
    ASSERT_TRUE(socket.openNonBlocking());
    EXPECT_TRUE(socket.kind == Socket::udp6 && !socket.blocking);
    EXPECT_TRUE(socket.setBlocking(true) && socket.blocking);
    // Opening again starts over in blocking mode.
    ASSERT_TRUE(socket.open(Socket::udp6dual));
    EXPECT_TRUE(socket.kind == Socket::udp6dual && socket.blocking);
    socket.close();
    socket.close();
    EXPECT_TRUE(socket.open(Socket::raw) && !socket.isOpen()) << "the raw kind makes no socket";

    // A socket that isn't there fails every call, never reads as "nothing".
    std::uint8_t data[16];
    std::uint8_t* buffers[1] = {data};
    std::size_t received = 0, count = 0;
    IPAddress peer;
    std::chrono::nanoseconds age{};
    EXPECT_EQ(socket.waitReadable(TimeValue()), 0);
    EXPECT_FALSE(socket.receiveFrom(data, sizeof(data), received, peer));
    EXPECT_FALSE(socket.receiveMany(buffers, sizeof(data), &received, &peer, &age, 1, count));
    EXPECT_FALSE(socket.sendTo(IPAddress::loopback(9), true, "x", 1));
    EXPECT_NE(socket.lastError, 0);

    Endpoint bound;
    IPAddress again = IPAddress::loopback(0), foreign;
    EXPECT_FALSE(bound.socket.bind(again));
    EXPECT_TRUE(bound.socket.lastError != 0 && again.port() == 0);
    // The one code that differs from Winsock's numbers on every system.
    ASSERT_TRUE(foreign.parseV6("2001:db8::7") && socket.open(Socket::udp6));
    EXPECT_FALSE(socket.bind(foreign));
    EXPECT_EQ(socket.lastError, 99);
}

// Hundreds of picked ports, all different (a socket that shared its port
// would lose datagrams to the other); a named port is shared.
TEST(Socket, APickedPortIsTheSocketsAloneANamedOneIsShared) {
    std::vector<std::unique_ptr<Endpoint>> endpoints(500);
    std::set<std::uint16_t> ports;
    for (auto& endpoint : endpoints) {
        endpoint = std::make_unique<Endpoint>();
        ports.insert(endpoint->address.port());
    }
    EXPECT_EQ(ports.size(), endpoints.size());
    IPAddress named = IPAddress::loopback(endpoints.back()->address.port());
    endpoints.back().reset();
    UDPV6 first, second;
    EXPECT_TRUE(first.open(Socket::udp6) && first.bind(named) && second.open(Socket::udp6) &&
                second.bind(named));
}

// The loopback side of the filter is the FindLoopback integration tests';
// here it keeps exactly the link-local addresses, and one binds to its interface.
TEST(Interfaces, LinkLocalFilterAndBinding) {
    NORVA::InterfaceMap all, linkLocal;
    ASSERT_TRUE(NORVA::enumerateV6(all) && NORVA::getMyLocalAddresV6(linkLocal, false));
    auto isLinkLocal = [](const auto& entry) { return entry.first.isLinkLocal(); };
    EXPECT_EQ(linkLocal.size(), std::size_t(std::count_if(all.begin(), all.end(), isLinkLocal)));
    for (const auto& entry : linkLocal) EXPECT_TRUE(entry.first.isLinkLocal() && entry.first.port() == 0);
    EXPECT_EQ(NORVA::firstLinkLocalScope(), linkLocal.empty() ? 0u : linkLocal.begin()->first.scope());
    if (linkLocal.empty()) return;
    IPAddress address = linkLocal.begin()->first;
    UDPV6 socket;
    ASSERT_TRUE(socket.openNonBlocking() && socket.bind(address));
    EXPECT_TRUE(socket.boundScope == address.scope() && socket.boundScope != 0u);
}

TEST(Socket, DatagramsKeepTheirBoundariesAndAreCutToTheBufferOneOrManyAtATime) {
    Endpoint receiver, sender;
    char none[16];
    std::size_t length = 99;
    EXPECT_TRUE(receiver.socket.receiveFrom(none, sizeof(none), length, receiver.peer));
    EXPECT_EQ(length, 0u) << "non-blocking and empty: nothing received";

    for (const std::string& text : {std::string(1000, 'b'), std::string(), std::string("small")})
        sender.send(receiver.address, text);
    EXPECT_EQ(receiver.next(10), std::string(10, 'b'));
    EXPECT_EQ(receiver.next(), "");
    EXPECT_EQ(receiver.next(), "small");

    // Into an array: the receive size is allocated once and kept.
    receiver.socket.receiveSize = 64;
    ByteArray array;
    ASSERT_TRUE(receiver.socket.receiveFrom(array, receiver.peer));
    EXPECT_TRUE(array.empty() && array.allocated() == 64u);
    const std::uint8_t* storage = array.data();
    sender.send(receiver.address, "datagram");
    ASSERT_TRUE(receiver.socket.waitReadable(longWait) == 2 && receiver.socket.receive(array));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(array.data()), array.size()), "datagram");
    EXPECT_EQ(array.data(), storage);

    // Many at once: what waits, in order, up to the count, each cut.
    bool stamped = receiver.socket.stampArrivals();
    for (const std::string& datagram :
         {std::string("one"), std::string(40, 'x'), std::string(), std::string("4")})
        sender.send(receiver.address, datagram);

    constexpr std::size_t room = 8;
    std::uint8_t buffers[3][room];
    std::uint8_t* data[3] = {buffers[0], buffers[1], buffers[2]};
    std::size_t received[3], count = 99;
    IPAddress peers[3];
    std::chrono::nanoseconds ages[3];
    std::vector<std::string> taken;
    for (int tries = 0; taken.size() < 4 && tries < 50; ++tries) {
        ASSERT_EQ(receiver.socket.waitReadable(longWait), 2);
        ASSERT_TRUE(receiver.socket.receiveMany(data, room, received, peers, ages, 3, count));
        ASSERT_LE(count, 3u);
        for (std::size_t i = 0; i < count; ++i) {
            taken.emplace_back(reinterpret_cast<char*>(data[i]), received[i]);
            EXPECT_EQ(peers[i].toStringPort(), sender.address.toStringPort());
        }
    }
    EXPECT_EQ(taken, (std::vector<std::string>{"one", std::string(room, 'x'), "", "4"}));
    EXPECT_TRUE(receiver.socket.receiveMany(data, room, received, peers, ages, 3, count));
    EXPECT_EQ(count, 0u) << "nothing waits";

    // Stamped, a datagram's age counts the time it waited in the socket. Linux
    // now and then leaves one unstamped (read as taken on arrival): a few tries.
    if (!stamped) GTEST_SKIP() << "this system stamps no arrivals";
    std::chrono::nanoseconds oldest{};
    for (int tries = 0; tries < 5 && oldest < std::chrono::milliseconds(20); ++tries) {
        sender.send(receiver.address, "late");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(receiver.socket.receiveMany(data, room, received, peers, ages, 3, count));
        ASSERT_EQ(count, 1u);
        oldest = std::max(oldest, ages[0]);
    }
    EXPECT_GE(oldest, std::chrono::milliseconds(20));
}

// The wait ends with its timeout passed, never before: spans below a
// millisecond, of a few, and beyond the margins Windows keeps. That a datagram
// ends it at once, and stays to be read, every loopback test relies on.
TEST(SocketWait, EndsOnlyAfterTheTimeout) {
    Endpoint receiver(true);
    EXPECT_EQ(receiver.socket.waitReadable(TimeValue()), 1);
    for (std::int64_t us : {300, 1500, 2500, 4500, 12000}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(receiver.socket.waitReadable(TimeValue::fromUs(std::uint64_t(us))), 1) << us << " us";
        auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(waited).count(), us) << us << " us";
    }
}

TEST(Transfer, ReceiveIntoABufferAndAnUndirectedListIsNotSent) {
    Endpoint local, remote;
    auto buffer = local.frame(local.address, "stale");
    EXPECT_TRUE(local.socket.receive(buffer.get(), TimeValue()));
    EXPECT_EQ(buffer->length, 0u) << "without a timeout an empty socket is polled";
    EXPECT_TRUE(local.socket.receive(nullptr, TimeValue::fromSeconds(30)));

    local.socket.receiveSize = 8;
    remote.send(local.address, "0123456789abcdef");
    IPAddress sender;
    ASSERT_TRUE(local.socket.receiveFrom(buffer.get(), sender, longWait));
    EXPECT_EQ(textOf(*buffer), "01234567") << "cut to the receive size";
    EXPECT_EQ(sender, remote.address);

    // Grown once, a buffer keeps its storage for a shorter frame further in.
    EXPECT_TRUE(buffer->resize(4096, 0));
    std::uint8_t* storage = buffer->data;
    EXPECT_FALSE(buffer->resize(100, 6));
    EXPECT_EQ(buffer->frame(), storage + 6);
    // Frames go to the peer of the first: a list whose first has none isn't sent.
    auto nowhere = local.frame();
    EthernetBuffer* const undirected[] = {nowhere.get(), buffer.get()};
    EXPECT_FALSE(local.socket.sendNow(undirected));
}

// Two datagrams wait before the call and none come after: a mode that sleeps receives both, then waits out
// the deadline on the third buffer; one that spins takes only one, after the send. Both frames leave for the
// first's peer at the deadline, not before; with the deadline passed, at once.
class TransferWaitMode : public ::testing::TestWithParam<int> {};

TEST_P(TransferWaitMode, FramesLeaveAtTheDeadlineAndOnlySleepingModesReceiveWhileWaiting) {
    Endpoint local, remote, elsewhere;
    local.socket.waitMode = GetParam();
    auto first = local.frame(remote.address, "first"), second = local.frame(elsewhere.address, "second");
    auto a = local.frame(), b = local.frame(), c = local.frame();
    remote.send(local.address, "one");
    remote.send(local.address, "two");
    ASSERT_EQ(local.socket.waitReadable(longWait), 2);
    EthernetBuffer* const sendList[] = {first.get(), second.get()};
    EthernetBuffer* const receiveList[] = {a.get(), b.get(), c.get()};
    std::string texts;
    TimeValue seen;
    std::thread listener([&] {
        texts = remote.next();
        seen = TimeValue::now();
        texts += " " + remote.next();
    });
    IPAddress sender;
    TimeValue deadline = TimeValue::now() + ahead;
    bool sent = local.socket.transfer(sendList, deadline, receiveList, &sender, nullptr);
    TimeValue returned = TimeValue::now();
    listener.join();
    ASSERT_TRUE(sent);
    EXPECT_GE(returned, deadline);
    EXPECT_GE(seen, deadline);
    EXPECT_EQ(texts, "first second");
    EXPECT_EQ(elsewhere.socket.waitReadable(TimeValue()), 1);
    EXPECT_EQ(textOf(*a) + "|" + textOf(*b) + "|" + textOf(*c), GetParam() <= 3 ? "one|two|" : "one||");
    EXPECT_EQ(sender, remote.address);

    remote.send(local.address, "late");
    ASSERT_EQ(local.socket.waitReadable(longWait), 2);
    a->length = 0;
    EthernetBuffer* const one[] = {a.get()};
    ASSERT_TRUE(local.socket.transfer(sendList, TimeValue::now() - ahead, one, nullptr, nullptr));
    EXPECT_EQ(remote.next(), "first");
    EXPECT_EQ(remote.next(), "second");
    EXPECT_EQ(a->length, 0u) << "a passed deadline receives nothing";
}

// 0 has a wait of its own; 1 and 3 bound the modes that sleep, 4 is the first that spins.
INSTANTIATE_TEST_SUITE_P(Modes, TransferWaitMode, ::testing::Values(0, 1, 3, 4));

}  // namespace
