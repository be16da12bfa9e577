#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Network/Socket.h"

namespace {

using NORVA::EthernetBuffer;
using NORVA::IPAddress;
using NORVA::TimeValue;
using NORVA::UDPV6;

// Generous: only a broken socket waits this long.
const TimeValue longWait = TimeValue::fromSeconds(10);
// Far enough ahead that the test can't reach it first, even under a sanitizer.
const TimeValue ahead = TimeValue::fromMs(40);

struct Endpoint {
    UDPV6 socket;
    IPAddress address = IPAddress::loopback(0);
    Endpoint() { EXPECT_TRUE(socket.openNonBlocking() && socket.bind(address)); }
    // A frame to `peer` holding `text`; "" makes an empty receive buffer.
    std::unique_ptr<EthernetBuffer> frame(const IPAddress& peer = {}, const std::string& text = "") {
        std::unique_ptr<EthernetBuffer> frame = socket.newBuffer(nullptr, 0);
        frame->resize(static_cast<std::uint32_t>(text.size()), 0);
        std::memcpy(frame->frame(), text.data(), text.size());
        if (!text.empty()) frame->setPeer(peer);
        return frame;
    }
    void send(const IPAddress& to, const std::string& text) {
        ASSERT_TRUE(socket.sendTo(to, true, text.data(), text.size()));
    }
    // The next datagram, or "" after a long wait.
    std::string next() {
        if (socket.waitReadable(longWait) != 2) return "";
        char data[2048];
        std::size_t received = 0;
        socket.receive(data, sizeof(data), received);
        return std::string(data, received);
    }
};

std::string textOf(const EthernetBuffer& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.frame()), buffer.length);
}

TEST(Transfer, EmptyListsReturnAtOnce) {
    Endpoint local;
    TimeValue deadline = TimeValue::now() + TimeValue::fromSeconds(30);
    EXPECT_TRUE(local.socket.transfer({}, deadline, {}, nullptr, nullptr));
    // A receive list whose buffers are all filled has nothing to wait for.
    auto filled = local.frame(local.address, "full");
    EthernetBuffer* const receiveList[] = {filled.get()};
    EXPECT_TRUE(local.socket.transfer({}, deadline, receiveList, nullptr, nullptr));
    EXPECT_LT(TimeValue::now(), deadline);
    EXPECT_EQ(textOf(*filled), "full");
}

TEST(Transfer, ReceiveAndReceiveFrom) {
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

    // A buffer once grown is reused: no new storage for a shorter frame.
    EXPECT_TRUE(buffer->resize(4096, 0));
    std::uint8_t* storage = buffer->data;
    local.socket.receiveSize = 4096;
    for (const char* text : {"a longer datagram", "short"}) {
        remote.send(local.address, text);
        ASSERT_TRUE(local.socket.receive(buffer.get(), longWait));
        EXPECT_EQ(textOf(*buffer), text);
        EXPECT_EQ(buffer->data, storage);
    }
    EXPECT_FALSE(buffer->resize(100, 6));
    EXPECT_EQ(buffer->frame(), storage + 6);

    UDPV6 closed;
    EXPECT_FALSE(closed.receive(buffer.get(), TimeValue::fromMs(1)));
    EXPECT_FALSE(closed.send(*local.frame(local.address, "x")));
}

TEST(Transfer, ADeadlineInThePastSendsAtOnceAndReceivesNothing) {
    Endpoint local, remote;
    remote.send(local.address, "waiting");
    ASSERT_EQ(local.socket.waitReadable(longWait), 2);
    auto frame = local.frame(remote.address, "now");
    auto buffer = local.frame();
    EthernetBuffer* const sendList[] = {frame.get()};
    EthernetBuffer* const receiveList[] = {buffer.get()};
    TimeValue past = TimeValue::now() - TimeValue::fromMs(5);
    for (int mode : {0, 4}) {
        local.socket.waitMode = mode;
        ASSERT_TRUE(local.socket.transfer(sendList, past, receiveList, nullptr, nullptr));
        EXPECT_EQ(remote.next(), "now");
        EXPECT_EQ(buffer->length, 0u);
    }
    EXPECT_EQ(local.socket.waitReadable(TimeValue()), 2);
}

TEST(Transfer, AllFramesGoToThePeerOfTheFirst) {
    Endpoint local, first, second;
    auto a = local.frame(first.address, "a");
    auto b = local.frame(second.address, "b");
    EthernetBuffer* const sendList[] = {a.get(), b.get()};
    ASSERT_TRUE(local.socket.sendNow(sendList));
    EXPECT_EQ(first.next(), "a");
    EXPECT_EQ(first.next(), "b");
    EXPECT_EQ(second.socket.waitReadable(TimeValue()), 1);
    // A list whose first frame has no destination isn't sent at all.
    auto nowhere = local.socket.newBuffer(nullptr, 0);
    EthernetBuffer* const undirected[] = {nowhere.get(), a.get()};
    EXPECT_FALSE(local.socket.sendNow(undirected));
}

TEST(Transfer, OtherSocketDoesTheReceiving) {
    Endpoint sending, receiving, remote;
    remote.send(receiving.address, "for the other");
    auto frame = sending.frame(remote.address, "out");
    auto buffer = sending.frame();
    EthernetBuffer* const sendList[] = {frame.get()};
    EthernetBuffer* const receiveList[] = {buffer.get()};
    IPAddress sender;
    ASSERT_TRUE(
        sending.socket.transfer(sendList, TimeValue::now() + ahead, receiveList, &sender, &receiving.socket));
    EXPECT_EQ(textOf(*buffer), "for the other");
    EXPECT_EQ(sender, remote.address);
    EXPECT_EQ(remote.next(), "out");

    // With nothing to send, the other socket's receive is the whole call.
    buffer->length = 0;
    remote.send(receiving.address, "again");
    ASSERT_TRUE(
        sending.socket.transfer({}, TimeValue::now() + longWait, receiveList, nullptr, &receiving.socket));
    EXPECT_EQ(textOf(*buffer), "again");
}

class TransferWaitMode : public ::testing::TestWithParam<int> {
  protected:
    Endpoint local, remote;
    std::unique_ptr<EthernetBuffer> first = local.frame(remote.address, "first");
    std::unique_ptr<EthernetBuffer> second = local.frame(remote.address, "second");
    std::unique_ptr<EthernetBuffer> a = local.frame(), b = local.frame();
    void SetUp() override { local.socket.waitMode = GetParam(); }
};

TEST_P(TransferWaitMode, FramesLeaveInOrderAtTheDeadlineAndNotBefore) {
    EthernetBuffer* const sendList[] = {first.get(), second.get()};
    EthernetBuffer* const receiveList[] = {a.get()};
    std::string texts;
    TimeValue seen;
    std::thread listener([&] {
        texts = remote.next();
        seen = TimeValue::now();
        texts += " " + remote.next();
    });
    TimeValue deadline = TimeValue::now() + ahead;
    bool sent = local.socket.transfer(sendList, deadline, receiveList, nullptr, nullptr);
    TimeValue returned = TimeValue::now();
    listener.join();
    EXPECT_TRUE(sent);
    EXPECT_GE(returned, deadline);
    EXPECT_EQ(texts, "first second");
    EXPECT_GE(seen, deadline);
    EXPECT_EQ(a->length, 0u);
}

// Two datagrams wait before the call: a mode that receives while waiting
// takes both, one that spins takes only the one after the send.
TEST_P(TransferWaitMode, ReceivesWhileWaitingOnlyInModesThatSleep) {
    remote.send(local.address, "one");
    remote.send(local.address, "two");
    ASSERT_EQ(local.socket.waitReadable(longWait), 2);
    EthernetBuffer* const sendList[] = {first.get()};
    EthernetBuffer* const receiveList[] = {a.get(), b.get()};
    IPAddress sender;
    ASSERT_TRUE(local.socket.transfer(sendList, TimeValue::now() + ahead, receiveList, &sender, nullptr));
    EXPECT_EQ(textOf(*a), "one");
    EXPECT_EQ(textOf(*b), GetParam() <= 3 ? "two" : "");
    EXPECT_EQ(sender, remote.address);
    EXPECT_EQ(remote.next(), "first");
}

INSTANTIATE_TEST_SUITE_P(AllModes, TransferWaitMode, ::testing::Range(0, 7));

}  // namespace
