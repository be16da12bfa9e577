// Discovery and the port lists of the responder, over the loopback address.
#include <gtest/gtest.h>

#include "TargetPeer.h"

using namespace VELMORA;

namespace {

void registerPort(TargetPeer& peer, std::uint16_t to, std::uint16_t sinkIndex, std::uint16_t secondIndex,
                  std::uint16_t port, const std::string& name, std::uint16_t flags = 0,
                  std::uint16_t base = 0) {
    SendBuffer registration(MessageType::PORT_REGIST, flags, sinkIndex, secondIndex, port, base);
    registration.setBodyText(name);
    peer.send(registration, to);
}

// Registrations arrive on another socket than requests: ask until the
// answer shows the port, within a bound.
Receive askUntilVisible(TargetPeer& peer, std::uint16_t control, std::uint16_t index) {
    Receive answer;
    for (int i = 0; i < 100; ++i) {
        answer = peer.ask(MessageType::PORT_REQ, control, index, 0, 1, 1);
        if ((answer.flags() & flagYes) != 0) break;
    }
    return answer;
}

}  // namespace

TEST(TargetDiscovery, AnswersDiscoverNameAndUnknownTypes) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;

    Receive answer = peer.ask(MessageType::DISCOVER, open.control());
    ASSERT_EQ(answer.type(), MessageType::DISCOVER_ANS);
    EXPECT_EQ(answer.flags(), flagYes);
    EXPECT_EQ(answer.paramU64(), testConfig().productId);
    EXPECT_EQ(peer.body(answer), "test target");

    // No target name: a no.
    answer = peer.ask(MessageType::TARGETNAME_REQ, open.control());
    EXPECT_EQ(answer.type(), MessageType::TARGETNAME_ANS);
    EXPECT_EQ(answer.flags(), 0);

    // An unused even type is echoed; an answer type is dropped, so the next
    // datagram is the echo of the request after it.
    answer = peer.ask(0x0026, open.control());
    EXPECT_EQ(answer.type(), 0x0026);
    EXPECT_EQ(answer.flags(), 0);
    Send dropped(MessageType::SETTINGLIST_ANS, 1);
    peer.send(dropped, open.control());
    answer = peer.ask(MessageType::STATUS_REGIST, open.control());
    EXPECT_EQ(answer.type(), MessageType::STATUS_REGIST);
    EXPECT_EQ(answer.flags(), 0);
}

TEST(TargetDiscovery, LoopbackDiscoverIsBlockedUnlessAllowed) {
    TargetConfig config = testConfig();
    config.allowLoopback = false;
    OpenTarget<> open(config);
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    Send discover(MessageType::DISCOVER, 0);
    peer.send(discover, open.control());
    // The first answer is to the request after it.
    Receive answer = peer.ask(MessageType::TARGETTEXT1_REQ, open.control());
    EXPECT_EQ(answer.type(), MessageType::TARGETTEXT1_ANS);
}

TEST(TargetDiscovery, RegisteredPortAppearsInListAndByIndex) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    registerPort(peer, open.registration(), 3, 0, 40000, "out 3");

    Receive one = askUntilVisible(peer, open.control(), 3);
    EXPECT_EQ(one.flags(), flagYes);
    EXPECT_EQ(one.param0(), 3);
    EXPECT_EQ(one.param2(), 40000);
    EXPECT_EQ(one.param3(), 1);
    EXPECT_EQ(peer.body(one), "out 3");

    Receive list = peer.ask(MessageType::PORT_REQ, open.control(), 0, 0, 0, 1);
    ASSERT_EQ(list.flags(), flagYes);
    EXPECT_EQ(list.param0(), 3);
    EXPECT_EQ(list.param1(), 0);
    EXPECT_EQ(list.param2(), 1);  // the default class
    ASSERT_EQ(list.bodySize(), 1024u);
    EXPECT_EQ(list.body()[0], 0x0F);  // indices 0 to 3, present or not
    EXPECT_EQ(list.body()[1], 0);
    EXPECT_EQ(list.body()[512], 0);

    Receive missing = peer.ask(MessageType::PORT_REQ, open.control(), 2, 0, 1, 1);
    EXPECT_EQ(missing.flags(), 0);
    EXPECT_EQ(missing.param0(), 2);
    EXPECT_EQ(missing.param2(), 0);

    Receive table = peer.ask(MessageType::PORT_REQ, open.control(), 1, 0xFFFF, 0, 1);
    ASSERT_EQ(table.bodySize(), 1024u);
    EXPECT_EQ(readU16(table.body() + 2 * 2), 40000);  // index 3 is the third entry from 1
    EXPECT_EQ(readU16(table.body()), 0);

    Receive counts = peer.ask(MessageType::PORT_REQ, open.control(), 0xFFFF, 0xFFFF, 0, 1);
    EXPECT_EQ(counts.param0(), 3);
    EXPECT_EQ(counts.bodySize(), 0u);

    Receive refused = peer.ask(MessageType::PORT_REQ, open.control(), 5, 7, 0, 1);
    EXPECT_EQ(refused.type(), MessageType::PORT_ANS);
    EXPECT_EQ(refused.flags(), 0);
    EXPECT_EQ(refused.param3(), 1);

    Receive badClass = peer.ask(MessageType::PORT_REQ, open.control(), 3, 0, 3, 1);
    EXPECT_EQ(badClass.flags(), 0);
}

TEST(TargetDiscovery, PortExpiresUnlessRegisteredAgainButStaticPortStays) {
    TargetConfig config = testConfig();
    config.registrationLifetime = NORVA::TimeValue::fromMs(200);
    config.staticPorts.push_back(StaticPort{41000, 7, "fixed", true, 1});
    OpenTarget<> open(config);
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    registerPort(peer, open.registration(), 2, 0, 40002, "short lived");
    ASSERT_EQ(askUntilVisible(peer, open.control(), 2).flags(), flagYes);

    Receive gone;
    for (int i = 0; i < 200; ++i) {
        gone = peer.ask(MessageType::PORT_REQ, open.control(), 2, 0, 1, 1);
        if (gone.flags() == 0) break;
        NORVA::sleepMilliseconds(20);
    }
    EXPECT_EQ(gone.flags(), 0);
    Receive fixed = peer.ask(MessageType::PORT_REQ, open.control(), 7, 0, 1, 1);
    EXPECT_EQ(fixed.flags(), flagYes);
    EXPECT_EQ(fixed.param2(), 41000);
}

TEST(TargetDiscovery, HeldOffHostSeesPortAgainAfterNopBreak) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    registerPort(peer, open.registration(), 1, 0, 40001, "sink");
    ASSERT_EQ(askUntilVisible(peer, open.control(), 1).flags(), flagYes);

    // NOPTA_SET with the host's stored address: 24 bytes of body.
    SendBuffer holdOff(MessageType::NOPTA_SET, 0, 1, 0, 60, 1);
    holdOff.setBodySize(24);
    std::fill(holdOff.body(), holdOff.body() + 24, 0);
    holdOff.body()[15] = 1;  // ::1
    peer.send(holdOff, open.control());
    Receive hidden = peer.ask(MessageType::PORT_REQ, open.control(), 1, 0, 1, 1);
    EXPECT_EQ(hidden.flags(), 0);

    Receive broken = peer.ask(MessageType::NOPBREAK_REQ, open.control());
    EXPECT_EQ(broken.type(), MessageType::NOPBREAK_ANS);
    Receive seen = peer.ask(MessageType::PORT_REQ, open.control(), 1, 0, 1, 1);
    EXPECT_EQ(seen.flags(), flagYes);
}

TEST(TargetDiscovery, RegistrationFromPortZeroTakesTheSourcePortAndSecondListIsSeparate) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    registerPort(peer, open.registration(), 0, 4, 0, "second", 0x0002);
    Receive answer;
    for (int i = 0; i < 100; ++i) {
        answer = peer.ask(MessageType::PORT_REQ, open.control(), 0, 4, 1, 1);
        if (answer.flags() == flagYes) break;
    }
    EXPECT_EQ(answer.flags(), flagYes);
    EXPECT_EQ(answer.param2(), peer.port);
    EXPECT_TRUE(open.target.hasActive());
    Receive list = peer.ask(MessageType::PORT_REQ, open.control(), 0, 0, 0, 1);
    EXPECT_EQ(list.param0(), 0);
    EXPECT_EQ(list.param1(), 4);
    EXPECT_EQ(list.body()[0], 0);
    EXPECT_EQ(list.body()[512], 0x1F);
}
