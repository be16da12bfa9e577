#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Network/Socket.h"

namespace {

using NORVA::BufferList;
using NORVA::EthernetBuffer;
using NORVA::IPAddress;
using NORVA::TimeValue;
using NORVA::UDPV6;

// Generous: only a broken socket waits this long.
const TimeValue arrival = TimeValue::fromSeconds(10);
// Far enough ahead that the test itself can't reach it first, even slowed
// down by a sanitizer.
const TimeValue ahead = TimeValue::fromMs(40);

struct Endpoint {
    UDPV6 socket;
    IPAddress address = IPAddress::loopback(0);

    Endpoint() {
        EXPECT_TRUE(socket.openNonBlocking());
        EXPECT_TRUE(socket.bind(address));
    }
};

std::unique_ptr<EthernetBuffer> frameTo(UDPV6& socket, const IPAddress& peer, const std::string& text) {
    std::unique_ptr<EthernetBuffer> frame = socket.newBuffer(nullptr, 0);
    frame->resize(static_cast<std::uint32_t>(text.size()), 0);
    std::memcpy(frame->frame(), text.data(), text.size());
    frame->setPeer(peer);
    return frame;
}

std::unique_ptr<EthernetBuffer> emptyBuffer(UDPV6& socket) {
    std::unique_ptr<EthernetBuffer> buffer = socket.newBuffer(nullptr, 0);
    buffer->length = 0;
    return buffer;
}

std::string textOf(const EthernetBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.frame()), buffer.length);
}

// The next datagram on `socket`, or "" after a long wait.
std::string nextDatagram(UDPV6& socket) {
    if (socket.waitReadable(arrival) != 2) return "";
    char data[2048];
    std::size_t received = 0;
    socket.receive(data, sizeof(data), received);
    return std::string(data, received);
}

// Collects `count` datagrams on another thread, with the time each one was
// seen.
class Listener {
  public:
    std::vector<std::string> texts;
    std::vector<TimeValue> seen;

    Listener(UDPV6& socket, std::size_t count)
        : thread([this, &socket, count] {
              for (std::size_t i = 0; i < count; ++i) {
                  std::string text = nextDatagram(socket);
                  seen.push_back(TimeValue::now());
                  texts.push_back(text);
              }
          }) {}
    void join() { thread.join(); }

  private:
    std::thread thread;
};

TEST(Transfer, EmptyListsReturnAtOnce) {
    Endpoint local;
    TimeValue deadline = TimeValue::now() + TimeValue::fromSeconds(30);
    EXPECT_TRUE(local.socket.transfer({}, deadline, {}, nullptr, nullptr));

    // A receive list whose buffers are all filled has nothing to wait for.
    auto filled = frameTo(local.socket, local.address, "full");
    EthernetBuffer* const receiveList[] = {filled.get()};
    EXPECT_TRUE(local.socket.transfer({}, deadline, receiveList, nullptr, nullptr));
    EXPECT_LT(TimeValue::now(), deadline);
    EXPECT_EQ(textOf(*filled), "full");
}

TEST(Transfer, ReceiveWithoutTimeoutPollsAnEmptySocket) {
    Endpoint local;
    auto buffer = frameTo(local.socket, local.address, "stale");
    EXPECT_TRUE(local.socket.receive(buffer.get(), TimeValue()));
    EXPECT_EQ(buffer->length, 0u);
    EXPECT_TRUE(local.socket.receive(nullptr, TimeValue::fromSeconds(30)));
}

TEST(Transfer, ReceiveFromTellsTheSender) {
    Endpoint local;
    Endpoint remote;
    ASSERT_TRUE(remote.socket.sendTo(local.address, true, "hello", 5));
    auto buffer = emptyBuffer(local.socket);
    IPAddress sender;
    ASSERT_TRUE(local.socket.receiveFrom(buffer.get(), sender, arrival));
    EXPECT_EQ(textOf(*buffer), "hello");
    EXPECT_EQ(sender, remote.address);
}

TEST(Transfer, ADeadlineInThePastSendsAtOnceAndReceivesNothing) {
    Endpoint local;
    Endpoint remote;
    ASSERT_TRUE(remote.socket.sendTo(local.address, true, "waiting", 7));
    ASSERT_EQ(local.socket.waitReadable(arrival), 2);

    auto frame = frameTo(local.socket, remote.address, "now");
    auto buffer = emptyBuffer(local.socket);
    EthernetBuffer* const sendList[] = {frame.get()};
    EthernetBuffer* const receiveList[] = {buffer.get()};
    TimeValue past = TimeValue::now() - TimeValue::fromMs(5);
    for (int mode : {0, 4}) {
        local.socket.waitMode = mode;
        ASSERT_TRUE(local.socket.transfer(sendList, past, receiveList, nullptr, nullptr));
        EXPECT_EQ(nextDatagram(remote.socket), "now");
        EXPECT_EQ(buffer->length, 0u);
    }
    EXPECT_EQ(local.socket.waitReadable(TimeValue()), 2);
}

TEST(Transfer, AllFramesGoToThePeerOfTheFirst) {
    Endpoint local;
    Endpoint first;
    Endpoint second;
    auto a = frameTo(local.socket, first.address, "a");
    auto b = frameTo(local.socket, second.address, "b");
    EthernetBuffer* const sendList[] = {a.get(), b.get()};
    ASSERT_TRUE(local.socket.sendNow(sendList));
    EXPECT_EQ(nextDatagram(first.socket), "a");
    EXPECT_EQ(nextDatagram(first.socket), "b");
    EXPECT_EQ(second.socket.waitReadable(TimeValue()), 1);

    // A list whose first frame has no destination isn't sent at all.
    auto nowhere = local.socket.newBuffer(nullptr, 0);
    EthernetBuffer* const undirected[] = {nowhere.get(), a.get()};
    EXPECT_FALSE(local.socket.sendNow(undirected));
}

TEST(Transfer, OtherSocketDoesTheReceiving) {
    Endpoint sending;
    Endpoint receiving;
    Endpoint remote;
    ASSERT_TRUE(remote.socket.sendTo(receiving.address, true, "for the other", 13));

    auto frame = frameTo(sending.socket, remote.address, "out");
    auto buffer = emptyBuffer(sending.socket);
    EthernetBuffer* const sendList[] = {frame.get()};
    EthernetBuffer* const receiveList[] = {buffer.get()};
    IPAddress sender;
    TimeValue deadline = TimeValue::now() + ahead;
    ASSERT_TRUE(sending.socket.transfer(sendList, deadline, receiveList, &sender, &receiving.socket));
    EXPECT_EQ(textOf(*buffer), "for the other");
    EXPECT_EQ(sender, remote.address);
    EXPECT_EQ(nextDatagram(remote.socket), "out");

    // With nothing to send, the other socket's receive is the whole call.
    buffer->length = 0;
    ASSERT_TRUE(remote.socket.sendTo(receiving.address, true, "again", 5));
    ASSERT_TRUE(
        sending.socket.transfer({}, TimeValue::now() + arrival, receiveList, nullptr, &receiving.socket));
    EXPECT_EQ(textOf(*buffer), "again");
}

TEST(Transfer, ADatagramLargerThanTheReceiveSizeIsCut) {
    Endpoint local;
    Endpoint remote;
    local.socket.receiveSize = 8;
    ASSERT_TRUE(remote.socket.sendTo(local.address, true, "0123456789abcdef", 16));
    auto buffer = emptyBuffer(local.socket);
    ASSERT_TRUE(local.socket.receive(buffer.get(), arrival));
    EXPECT_EQ(textOf(*buffer), "01234567");
}

TEST(Transfer, AReusedBufferStopsAllocating) {
    Endpoint local;
    Endpoint remote;
    auto buffer = emptyBuffer(local.socket);
    EXPECT_TRUE(buffer->resize(4096, 0));
    std::uint8_t* storage = buffer->data;
    EXPECT_FALSE(buffer->resize(100, 6));
    EXPECT_EQ(buffer->data, storage);
    EXPECT_EQ(buffer->frame(), storage + 6);

    local.socket.receiveSize = 4096;
    for (const char* text : {"a longer datagram", "short"}) {
        ASSERT_TRUE(remote.socket.sendTo(local.address, true, text, std::strlen(text)));
        ASSERT_TRUE(local.socket.receive(buffer.get(), arrival));
        EXPECT_EQ(textOf(*buffer), text);
        EXPECT_EQ(buffer->data, storage);
    }
}

TEST(Transfer, AClosedSocketFails) {
    UDPV6 closed;
    auto buffer = emptyBuffer(closed);
    EXPECT_FALSE(closed.receive(buffer.get(), TimeValue::fromMs(1)));
    auto frame = frameTo(closed, IPAddress::loopback(9), "x");
    EXPECT_FALSE(closed.send(*frame));
}

class TransferWaitMode : public ::testing::TestWithParam<int> {};

TEST_P(TransferWaitMode, FramesLeaveInOrderAtTheDeadlineAndNotBefore) {
    Endpoint local;
    Endpoint remote;
    local.socket.waitMode = GetParam();
    auto first = frameTo(local.socket, remote.address, "first");
    auto second = frameTo(local.socket, remote.address, "second");
    EthernetBuffer* const sendList[] = {first.get(), second.get()};
    auto buffer = emptyBuffer(local.socket);
    EthernetBuffer* const receiveList[] = {buffer.get()};

    Listener listener(remote.socket, 2);
    TimeValue deadline = TimeValue::now() + ahead;
    bool sent = local.socket.transfer(sendList, deadline, receiveList, nullptr, nullptr);
    TimeValue returned = TimeValue::now();
    listener.join();

    EXPECT_TRUE(sent);
    EXPECT_GE(returned, deadline);
    ASSERT_EQ(listener.texts.size(), 2u);
    EXPECT_EQ(listener.texts[0], "first");
    EXPECT_EQ(listener.texts[1], "second");
    EXPECT_GE(listener.seen[0], deadline);
    EXPECT_EQ(buffer->length, 0u);
}

// Two datagrams wait before the call: a mode that receives while waiting
// takes both, one that spins takes only the one after the send.
TEST_P(TransferWaitMode, ReceivesWhileWaitingOnlyInModesThatSleep) {
    Endpoint local;
    Endpoint remote;
    int mode = GetParam();
    local.socket.waitMode = mode;
    ASSERT_TRUE(remote.socket.sendTo(local.address, true, "one", 3));
    ASSERT_TRUE(remote.socket.sendTo(local.address, true, "two", 3));
    ASSERT_EQ(local.socket.waitReadable(arrival), 2);

    auto frame = frameTo(local.socket, remote.address, "out");
    EthernetBuffer* const sendList[] = {frame.get()};
    auto a = emptyBuffer(local.socket);
    auto b = emptyBuffer(local.socket);
    EthernetBuffer* const receiveList[] = {a.get(), b.get()};
    IPAddress sender;
    ASSERT_TRUE(local.socket.transfer(sendList, TimeValue::now() + ahead, receiveList, &sender, nullptr));

    EXPECT_EQ(textOf(*a), "one");
    EXPECT_EQ(textOf(*b), mode <= 3 ? "two" : "");
    EXPECT_EQ(sender, remote.address);
    EXPECT_EQ(nextDatagram(remote.socket), "out");
}

INSTANTIATE_TEST_SUITE_P(AllModes, TransferWaitMode, ::testing::Range(0, 7));

}  // namespace
