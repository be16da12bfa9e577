#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Network/Interfaces.h"
#include "Network/Socket.h"
#include "Protocol/Connection.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

namespace {

using NORVA::IPAddress;
using NORVA::TimeValue;
using NORVA::UDPV6;
using VELMORA::Connection;
using VELMORA::ConnectionBuffer;
using VELMORA::Receive;
using VELMORA::SendBuffer;
namespace MessageType = VELMORA::MessageType;

const TimeValue shortWait = TimeValue::fromMs(20);

void sendFrame(UDPV6& socket, const IPAddress& to, SendBuffer& message) {
    message.finish();
    EXPECT_TRUE(socket.sendTo(to, true, message.bytes.data, message.bytes.size));
}

// A peer on [::1] that runs a script for every datagram it receives, on a
// thread of its own, and counts them.
class ScriptedPeer {
  public:
    using Script = std::function<void(ScriptedPeer& peer, const Receive& request, const IPAddress& from)>;

    UDPV6 socket;
    IPAddress address = IPAddress::loopback(0);
    std::atomic<int> requests{0};

    explicit ScriptedPeer(Script onRequest) : script(std::move(onRequest)) {
        EXPECT_TRUE(socket.openNonBlocking());
        EXPECT_TRUE(socket.bind(address));
        thread = std::thread([this] { serve(); });
    }
    ~ScriptedPeer() { stopAndCount(); }

    // Stops after taking what has arrived; the number of requests seen.
    int stopAndCount() {
        if (thread.joinable()) {
            stop = true;
            thread.join();
        }
        return requests;
    }

    void answer(const IPAddress& to, std::uint16_t type, std::uint16_t flags, std::uint16_t param0 = 0) {
        SendBuffer message(type, flags, param0, 0, 0, 0);
        sendFrame(socket, to, message);
    }

  private:
    void serve() {
        std::vector<std::uint8_t> data(4096);
        for (;;) {
            bool stopping = stop;
            std::size_t received = 0;
            IPAddress from;
            if (socket.waitReadable(TimeValue::fromMs(5)) == 2 &&
                socket.receiveFrom(data.data(), data.size(), received, from) && received != 0) {
                ++requests;
                script(*this, Receive(data.data(), static_cast<std::uint32_t>(received)), from);
            } else if (stopping) {
                return;
            }
        }
    }

    Script script;
    std::atomic<bool> stop{false};
    std::thread thread;
};

// A yes with param0 1 from `stray`, then the peer's own yes with param0 2.
ScriptedPeer::Script strayYesThenYes(UDPV6& stray) {
    return [&stray](ScriptedPeer& self, const Receive& request, const IPAddress& from) {
        std::uint16_t answerType = VELMORA::awaitedAnswer(request.type());
        SendBuffer fake(answerType, VELMORA::flagYes, 1, 0, 0, 0);
        sendFrame(stray, from, fake);
        self.answer(from, answerType, VELMORA::flagYes, 2);
    };
}

class SendAck : public ::testing::Test {
  protected:
    Connection connection;
    IPAddress local = IPAddress::loopback(0);

    void SetUp() override { ASSERT_TRUE(connection.open(local)); }

    // One exchange of a request of `type` with `peer`; the answer is left in
    // `answer`.
    bool exchange(ScriptedPeer& peer, std::uint16_t type, TimeValue timeout) {
        ConnectionBuffer request(*connection.socket, peer.address, type);
        return connection.sendAck(request, peer.address, VELMORA::awaitedAnswer(type), answer, timeout);
    }

    ConnectionBuffer answer{*connection.socket};
};

TEST_F(SendAck, SilenceIsThreeSendsAndAnEmptyAnswer) {
    ScriptedPeer peer([](ScriptedPeer&, const Receive&, const IPAddress&) {});
    TimeValue start = TimeValue::now();
    EXPECT_TRUE(exchange(peer, MessageType::TARGETNAME_REQ, shortWait));
    EXPECT_GE(TimeValue::now() - start, TimeValue::fromMs(3 * 20));
    EXPECT_TRUE(answer.isEmpty());
    EXPECT_EQ(peer.stopAndCount(), 3);
}

TEST_F(SendAck, AYesFillsTheAnswer) {
    ScriptedPeer peer([](ScriptedPeer& self, const Receive& request, const IPAddress& from) {
        SendBuffer message(VELMORA::awaitedAnswer(request.type()), VELMORA::flagYes);
        message.setBodyText("target");
        sendFrame(self.socket, from, message);
    });
    EXPECT_TRUE(exchange(peer, MessageType::TARGETNAME_REQ, TimeValue::fromSeconds(10)));
    ASSERT_FALSE(answer.isEmpty());
    EXPECT_EQ(answer.type(), MessageType::TARGETNAME_ANS);
    std::string text;
    answer.bodyText(text);
    EXPECT_EQ(text, "target");
    EXPECT_EQ(peer.stopAndCount(), 1);
}

TEST_F(SendAck, ANoEndsTheExchangeAfterOneSend) {
    ScriptedPeer peer([](ScriptedPeer& self, const Receive& request, const IPAddress& from) {
        self.answer(from, VELMORA::awaitedAnswer(request.type()), 0);
    });
    EXPECT_TRUE(exchange(peer, MessageType::RESTART_REQ, TimeValue::fromSeconds(10)));
    EXPECT_TRUE(answer.isEmpty());
    EXPECT_EQ(peer.stopAndCount(), 1);
}

TEST_F(SendAck, AnEchoOfTheRequestIsANo) {
    ScriptedPeer peer([](ScriptedPeer& self, const Receive& request, const IPAddress& from) {
        self.answer(from, request.type(), VELMORA::flagYes);
    });
    EXPECT_TRUE(exchange(peer, MessageType::TARGETTEXT1_REQ, TimeValue::fromSeconds(10)));
    EXPECT_TRUE(answer.isEmpty());
    EXPECT_EQ(peer.stopAndCount(), 1);
}

// The stray yes comes first, from the peer's address at another port; only
// the peer's own answer (param0 2) ends the wait.
TEST_F(SendAck, ADatagramFromAnotherPortDoesNotEndTheWait) {
    UDPV6 stray;
    ASSERT_TRUE(stray.openNonBlocking());
    IPAddress strayAddress = IPAddress::loopback(0);
    ASSERT_TRUE(stray.bind(strayAddress));
    ScriptedPeer peer(strayYesThenYes(stray));
    EXPECT_TRUE(exchange(peer, MessageType::STATUS_REQ, TimeValue::fromSeconds(10)));
    ASSERT_FALSE(answer.isEmpty());
    EXPECT_EQ(answer.param0(), 2);
}

// Needs an address of this host besides ::1; the stray takes the peer's port
// number there, so that only the address differs.
TEST(SendAckStray, ADatagramFromAnotherAddressDoesNotEndTheWait) {
    NORVA::InterfaceMap map;
    IPAddress otherHost;
    if (NORVA::enumerateV6(map)) {
        for (const auto& [address, info] : map) {
            if (!address.isLoopback() && !address.isLinkLocal()) otherHost = address;
        }
    }
    if (otherHost.isAny()) GTEST_SKIP() << "no address besides ::1 and fe80";

    Connection connection;
    IPAddress any;
    ASSERT_TRUE(connection.open(any));
    UDPV6 stray;
    ASSERT_TRUE(stray.openNonBlocking());
    ScriptedPeer peer(strayYesThenYes(stray));
    otherHost.setScope(0);
    otherHost.setPort(peer.address.port());
    if (!stray.bind(otherHost)) GTEST_SKIP() << "can't bind " << otherHost.toStringPort();

    ConnectionBuffer request(*connection.socket, peer.address, MessageType::STATUS_REQ);
    ConnectionBuffer answer(*connection.socket);
    EXPECT_TRUE(connection.sendAck(request, peer.address, MessageType::STATUS_ANS, answer,
                                   TimeValue::fromSeconds(10)));
    ASSERT_FALSE(answer.isEmpty());
    EXPECT_EQ(answer.param0(), 2);
}

// Frames of other types, and malformed ones, keep arriving for longer than
// the timeout: each starts the wait afresh, so the request goes out once.
TEST_F(SendAck, UnrelatedFramesRestartTheWait) {
    const TimeValue timeout = TimeValue::fromMs(200);
    ScriptedPeer peer([](ScriptedPeer& self, const Receive& request, const IPAddress& from) {
        for (int i = 0; i < 30; ++i) {
            if (i % 5 == 4) {
                const std::uint8_t broken[16] = {99};
                self.socket.sendTo(from, true, broken, sizeof(broken));
            } else {
                self.answer(from, MessageType::STATUS_ANS, VELMORA::flagYes);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        self.answer(from, VELMORA::awaitedAnswer(request.type()), VELMORA::flagYes, 9);
    });
    TimeValue start = TimeValue::now();
    EXPECT_TRUE(exchange(peer, MessageType::SETTINGLIST_REQ, timeout));
    EXPECT_GE(TimeValue::now() - start, TimeValue::fromMs(300));
    ASSERT_FALSE(answer.isEmpty());
    EXPECT_EQ(answer.type(), MessageType::SETTINGLIST_ANS);
    EXPECT_EQ(answer.param0(), 9);
    EXPECT_EQ(peer.stopAndCount(), 1);
}

TEST_F(SendAck, NopBreakWaitsForFormatAnswer) {
    ScriptedPeer peer([](ScriptedPeer& self, const Receive&, const IPAddress& from) {
        self.answer(from, MessageType::NOPBREAK_ANS, VELMORA::flagYes);
    });
    EXPECT_TRUE(exchange(peer, MessageType::NOPBREAK_REQ, shortWait));
    EXPECT_TRUE(answer.isEmpty());
    EXPECT_EQ(peer.stopAndCount(), 3);
}

TEST(SendAckFailure, AClosedSocketIsFalse) {
    Connection connection;
    ConnectionBuffer request(*connection.socket, IPAddress::loopback(9), MessageType::DISCOVER);
    ConnectionBuffer answer(*connection.socket);
    EXPECT_FALSE(
        connection.sendAck(request, IPAddress::loopback(9), MessageType::DISCOVER_ANS, answer, shortWait));
}

TEST(Connection, ABorrowedSocketIsLeftAlone) {
    UDPV6 shared;
    ASSERT_TRUE(shared.openNonBlocking());
    IPAddress address = IPAddress::loopback(0);
    ASSERT_TRUE(shared.bind(address));
    {
        Connection borrower(shared);
        EXPECT_FALSE(borrower.ownsSocket());
        IPAddress other = IPAddress::loopback(0);
        EXPECT_TRUE(borrower.open(other));
        EXPECT_EQ(other.port(), 0);
        borrower.close();
        EXPECT_TRUE(shared.isOpen());
    }
    EXPECT_TRUE(shared.isOpen());

    Connection owner;
    EXPECT_TRUE(owner.ownsSocket());
    IPAddress bound = IPAddress::loopback(0);
    ASSERT_TRUE(owner.open(bound));
    EXPECT_NE(bound.port(), 0);
    EXPECT_EQ(owner.socket->receiveSize, 4096u);
    EXPECT_FALSE(owner.socket->blocking);
    owner.close();
    EXPECT_FALSE(owner.socket->isOpen());
}

TEST(Connection, LocalAddressesComeFromTheKeptListOnlyForTheSameLoopbackChoice) {
    Connection connection;
    VELMORA::LocalAddressEntry kept;
    ASSERT_TRUE(kept.address.parse("fe80::99%42"));
    kept.interfaceIndex = 42;
    connection.localAddresses = {kept};
    connection.localWithLoopback = true;

    std::vector<VELMORA::LocalAddressEntry> list;
    ASSERT_TRUE(connection.getMyLocalAddresV6(list, true, false));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].address, kept.address);

    // Another choice asks the system and drops the kept list.
    ASSERT_TRUE(connection.getMyLocalAddresV6(list, false, false));
    EXPECT_TRUE(connection.localAddresses.empty());
    EXPECT_FALSE(connection.localWithLoopback);
    for (const auto& entry : list) {
        EXPECT_TRUE(entry.address.isLinkLocal()) << entry.address.toString();
        EXPECT_EQ(entry.interfaceIndex, entry.address.scope());
    }

    // Refreshed with loopback: ::1, if the system lists it, has scope 0.
    connection.localAddresses = {kept};
    connection.localWithLoopback = true;
    ASSERT_TRUE(connection.getMyLocalAddresV6(list, true, true));
    for (const auto& entry : list) {
        EXPECT_NE(entry.address, kept.address);
        if (entry.address.isLoopback()) {
            EXPECT_EQ(entry.address.scope(), 0u);
            EXPECT_EQ(entry.interfaceIndex, 0u);
        }
    }
}

}  // namespace
