// Discovery and the port lists of the responder, over the loopback address.
#include <gtest/gtest.h>

#include "TargetPeer.h"

using namespace VELMORA;

TEST(TargetDiscovery, AnswersDiscoverEchoesUnknownTypesAndListsARegisteredPort) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    const std::uint16_t to = open.control();
    Receive answer = peer.ask(MessageType::DISCOVER, to);
    ASSERT_EQ(answer.type(), MessageType::DISCOVER_ANS);
    EXPECT_EQ(answer.paramU64(), testConfig().productId);
    EXPECT_EQ(peer.body(answer), "test target");
    EXPECT_EQ(peer.ask(MessageType::TARGETNAME_REQ, to).flags(), 0) << "no target name";
    // An unused even type is echoed; an answer type is dropped.
    EXPECT_EQ(peer.ask(0x0026, to).type(), 0x0026);
    Send dropped(MessageType::SETTINGLIST_ANS, 1);
    peer.send(dropped, to);
    EXPECT_EQ(peer.ask(MessageType::STATUS_REGIST, to).type(), MessageType::STATUS_REGIST);

    SendBuffer registration(MessageType::PORT_REGIST, 0, 3, 0, 40000, 0);
    registration.setBodyText("out 3");
    peer.send(registration, open.registration());
    // Registrations arrive on another socket than requests: ask until the answer shows the port.
    Receive one;
    for (int i = 0; i < 100 && (one.flags() & flagYes) == 0; ++i)
        one = peer.ask(MessageType::PORT_REQ, to, 3, 0, 1, 1);
    EXPECT_EQ(one.flags(), flagYes);
    EXPECT_EQ(one.param2(), 40000);
    EXPECT_EQ(peer.body(one), "out 3");

    Receive list = peer.ask(MessageType::PORT_REQ, to, 0, 0, 0, 1);
    EXPECT_EQ(list.param0(), 3);
    EXPECT_EQ(list.param2(), 1);  // the default class
    ASSERT_EQ(list.bodySize(), 1024u);
    EXPECT_EQ(list.body()[0], 0x0F);  // indices 0 to 3, present or not
    EXPECT_EQ(list.body()[1], 0);
    Receive missing = peer.ask(MessageType::PORT_REQ, to, 2, 0, 1, 1);
    EXPECT_EQ(missing.flags(), 0);
    EXPECT_EQ(missing.param0(), 2);
    Receive table = peer.ask(MessageType::PORT_REQ, to, 1, 0xFFFF, 0, 1);
    EXPECT_EQ(readU16(table.body() + 2 * 2), 40000);  // index 3 is the third entry from 1
    EXPECT_EQ(peer.ask(MessageType::PORT_REQ, to, 0xFFFF, 0xFFFF, 0, 1).param0(), 3);
    EXPECT_EQ(peer.ask(MessageType::PORT_REQ, to, 5, 7, 0, 1).flags(), 0) << "both indices";
    EXPECT_EQ(peer.ask(MessageType::PORT_REQ, to, 3, 0, 3, 1).flags(), 0) << "no class 3";
}
