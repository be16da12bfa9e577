#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "FindPeer.h"
#include "Protocol/Connection.h"

namespace {

using NORVA::IPAddress;
using NORVA::TimeValue;
using namespace VELMORA;

class SendAck : public ::testing::Test {
  protected:
    Connection connection;
    IPAddress local = IPAddress::loopback(0);
    ConnectionBuffer answer{*connection.socket};

    void SetUp() override { ASSERT_TRUE(connection.open(local)); }
    bool exchange(FindPeer& peer, std::uint16_t type, TimeValue timeout = TimeValue::fromSeconds(10)) {
        ConnectionBuffer request(*connection.socket, peer.address, type);
        return connection.sendAck(request, peer.address, awaitedAnswer(type), answer, timeout);
    }
    static std::size_t sends(FindPeer& peer, std::uint16_t type) {
        peer.stop();
        return peer.requestsOf(type).size();
    }
};

// Silence costs three sends; NOPBREAK waits for FORMAT_ANS, so its own answer type is silence too.
TEST_F(SendAck, SilenceIsThreeSendsAndAnEmptyAnswer) {
    for (std::uint16_t type : {MessageType::TARGETNAME_REQ, MessageType::NOPBREAK_REQ}) {
        SCOPED_TRACE(type);
        FindPeer peer([](FindPeer& self, const Receive&) { self.reply(MessageType::NOPBREAK_ANS, flagYes); });
        TimeValue start = TimeValue::now();
        EXPECT_TRUE(exchange(peer, type, TimeValue::fromMs(20)));
        EXPECT_GE(TimeValue::now() - start, TimeValue::fromMs(3 * 20));
        EXPECT_TRUE(answer.isEmpty());
        EXPECT_EQ(sends(peer, type), 3u);
    }
}

// A yes fills the answer; a no, or an echo of the request, ends the exchange empty after one send.
TEST_F(SendAck, OneAnswerEndsTheExchange) {
    const struct {
        bool echo;
        std::uint16_t flags;
    } rows[] = {{false, flagYes}, {false, 0}, {true, flagYes}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.echo) + " " + std::to_string(row.flags));
        FindPeer peer([&row](FindPeer& self, const Receive& request) {
            self.reply(row.echo ? request.type() : awaitedAnswer(request.type()), row.flags, 6);
        });
        EXPECT_TRUE(exchange(peer, MessageType::TARGETNAME_REQ));
        EXPECT_EQ(answer.isEmpty(), row.echo || row.flags == 0);
        EXPECT_EQ(answer.param0(), answer.isEmpty() ? 0 : 6);
        EXPECT_EQ(sends(peer, MessageType::TARGETNAME_REQ), 1u);
    }
}

// A stray yes from the peer's address at another port comes first; only the peer's own answer counts.
TEST_F(SendAck, ADatagramFromAnotherPortDoesNotEndTheWait) {
    NORVA::UDPV6 stray;
    IPAddress strayAddress = IPAddress::loopback(0);
    ASSERT_TRUE(stray.openNonBlocking() && stray.bind(strayAddress));
    FindPeer peer([&stray](FindPeer& self, const Receive& request) {
        Send fake(awaitedAnswer(request.type()), flagYes, 1, 0, 0, 0);
        fake.finish();
        stray.sendTo(self.from, true, fake.bytes.data, fake.bytes.size);
        self.yes(request, 2);
    });
    EXPECT_TRUE(exchange(peer, MessageType::STATUS_REQ));
    EXPECT_EQ(answer.param0(), 2);
}

// Other types and malformed frames keep arriving for longer than the timeout: each restarts the
// wait, so the request goes out once.
TEST_F(SendAck, UnrelatedFramesRestartTheWait) {
    FindPeer peer([](FindPeer& self, const Receive& request) {
        const std::uint8_t broken[16] = {99};
        for (int i = 0; i < 30; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
            if (i % 5 == 4) self.socket.sendTo(self.from, true, broken, sizeof(broken));
            if (i % 5 != 4) self.reply(MessageType::STATUS_ANS, flagYes);
        }
        self.yes(request, 9);
    });
    TimeValue start = TimeValue::now();
    EXPECT_TRUE(exchange(peer, MessageType::SETTINGLIST_REQ, TimeValue::fromMs(200)));
    EXPECT_GE(TimeValue::now() - start, TimeValue::fromMs(300));
    EXPECT_EQ(answer.type(), MessageType::SETTINGLIST_ANS);
    EXPECT_EQ(answer.param0(), 9);
    EXPECT_EQ(sends(peer, MessageType::SETTINGLIST_REQ), 1u);
}

}  // namespace
