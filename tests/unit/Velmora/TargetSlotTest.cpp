// The target's end of a slot transfer, and clock reports from another host.
#include <gtest/gtest.h>

#include <cstring>

#include "LogCapture.h"
#include "Network/Interfaces.h"
#include "Protocol/Crc16.h"
#include "TargetPeer.h"

using namespace VELMORA;

namespace {

class SlotTarget : public Target {
  public:
    using Target::Target;
    const NORVA::ByteArray& data() const { return transferData; }
};

TargetConfig slotConfig() {
    TargetConfig config = testConfig();
    config.slotCount = 2;
    config.window = 3000;
    config.slots[0] = 3;  // 4 bytes a packet
    config.slots[1] = 1;  // 2 packets a block
    config.slots[2] = 1;  // 2 blocks
    config.slotDescriptions.push_back(SlotDescription{"boot", "image", 9});
    return config;
}

void sendData(TargetPeer& peer, std::uint16_t to, std::uint16_t slot, bool ack, std::uint16_t sequence,
              std::uint16_t packet, std::uint16_t block, const char* bytes) {
    SendBuffer frame(MessageType::TRANSFERDATA_SET, 0, static_cast<std::uint16_t>(slot | (ack ? 0x8000 : 0)),
                     sequence, packet, block);
    frame.setBodySize(static_cast<std::uint16_t>(std::strlen(bytes)));
    std::memcpy(frame.body(), bytes, std::strlen(bytes));
    peer.send(frame, to);
}

}  // namespace

TEST(TargetSlots, GeometryAndDescriptions) {
    OpenTarget<> open(slotConfig());
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    Receive overview = peer.ask(MessageType::TRANSFERINFO_REQ, open.control());
    EXPECT_EQ(overview.param0(), 2);
    EXPECT_EQ(overview.param1(), 3000);
    Receive slot = peer.ask(MessageType::TRANSFERINFO_REQ, open.control(), 2);
    EXPECT_EQ(slot.param0(), 2);
    EXPECT_EQ(slot.param1(), 3);
    EXPECT_EQ(peer.ask(MessageType::TRANSFERINFO_REQ, open.control(), 3).flags(), 0);

    EXPECT_EQ(peer.ask(MessageType::SLOTLIST_REQ, open.control()).param0(), 1);
    Receive description = peer.ask(MessageType::SLOTLIST_REQ, open.control(), 1);
    std::vector<std::string> texts;
    description.bodyTextList(texts);
    EXPECT_EQ(texts, (std::vector<std::string>{"boot", "image"}));
    EXPECT_EQ(description.param1(), 9);
    EXPECT_EQ(peer.ask(MessageType::SLOTLIST_REQ, open.control(), 2).flags(), 0);
}

TEST(TargetSlots, FramesAreTakenInSequenceAndTheCheckComparesTheCrc) {
    OpenTarget<SlotTarget> open(slotConfig());
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    const std::uint16_t to = open.control();

    sendData(peer, to, 2, false, 0, 0, 0, "abcd");
    sendData(peer, to, 2, true, 1, 1, 0, "efgh");
    Receive ack;
    ASSERT_TRUE(peer.receive(ack));
    EXPECT_EQ(ack.type(), MessageType::TRANSFERDATA_ANS);
    EXPECT_EQ(ack.param0(), 2);
    EXPECT_EQ(ack.param1(), 1);  // expected before this frame was counted

    // Sequence 2 is lost: 3 is dropped, and the answer names 2.
    sendData(peer, to, 2, true, 3, 1, 1, "mn");
    ASSERT_TRUE(peer.receive(ack));
    EXPECT_EQ(ack.param1(), 2);
    // A frame for a slot that doesn't exist gets no answer: the next one
    // received is the answer to the repetition.
    sendData(peer, to, 3, true, 2, 0, 1, "zz");
    sendData(peer, to, 2, false, 2, 0, 1, "ijkl");
    sendData(peer, to, 2, true, 3, 1, 1, "mn");
    ASSERT_TRUE(peer.receive(ack));
    EXPECT_EQ(ack.type(), MessageType::TRANSFERDATA_ANS);
    EXPECT_EQ(ack.param1(), 3);

    const std::uint16_t crc = crc16("abcdefghijklmn", 14);
    Receive wrong =
        peer.ask(MessageType::TRANSFERCHECK_REQ, to, 2, static_cast<std::uint16_t>(crc ^ 1), 0xFFFF);
    EXPECT_EQ(wrong.type(), MessageType::TRANSFERCHECK_ANS);
    EXPECT_EQ(wrong.flags(), 0);
    Receive right = peer.ask(MessageType::TRANSFERCHECK_REQ, to, 2, crc, 0xFFFF);
    EXPECT_EQ(right.flags(), flagYes);
    EXPECT_EQ(right.param0(), 2);
    EXPECT_EQ(right.param1(), crc);
    EXPECT_EQ(right.param2(), 0xFFFF);
    EXPECT_EQ(peer.ask(MessageType::TRANSFERCHECK_REQ, to, 3, crc, 0xFFFF).flags(), 0);

    open.target.close();
    ASSERT_EQ(open.target.data().size(), 14u);
    EXPECT_EQ(0, std::memcmp(open.target.data().data(), "abcdefghijklmn", 14));
}

// The sequence number wraps, so a sender can go on in sequence for ever:
// what is kept stops at the slot's 16 bytes, and the next transfer starts
// afresh.
TEST(TargetSlots, DataBeyondTheSlotIsDroppedAndLogged) {
    LogCapture log;
    OpenTarget<SlotTarget> open(slotConfig());
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    const std::uint16_t to = open.control();
    for (std::uint16_t sequence = 0; sequence < 6; ++sequence) {
        sendData(peer, to, 1, false, sequence, sequence == 0 ? 0 : 1, 0, "abcd");
    }
    const std::uint16_t crc = crc16("abcdabcdabcdabcd", 16);
    EXPECT_EQ(peer.ask(MessageType::TRANSFERCHECK_REQ, to, 1, crc, 0xFFFF).flags(), flagYes);
    EXPECT_TRUE(log.hasPrefix("TRANSFERDATA_SET beyond the slot's 16 bytes"));

    sendData(peer, to, 1, false, 0, 0, 0, "wxyz");
    EXPECT_EQ(peer.ask(MessageType::TRANSFERCHECK_REQ, to, 1, crc16("wxyz", 4), 0xFFFF).flags(), flagYes);
    open.target.close();
    EXPECT_EQ(open.target.data().size(), 4u);
}

TEST(TargetSlots, EmptyTransferChecksAgainstTheEmptyCrc) {
    OpenTarget<> open(slotConfig());
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    EXPECT_EQ(peer.ask(MessageType::TRANSFERCHECK_REQ, open.control(), 1, 0, 0xFFFF).flags(), flagYes);
}

namespace {

// A socket on this machine's first link-local address: clock reports from
// loopback are ignored.
bool linkLocalPeer(TargetPeer& peer, NORVA::IPAddress& local) {
    NORVA::InterfaceMap map;
    if (!NORVA::getMyLocalAddresV6(map, false) || map.empty()) return false;
    local = map.begin()->first;
    local.setPort(0);
    peer.socket.openNonBlocking();
    return peer.socket.bind(local);
}

void report(TargetPeer& reporter, NORVA::IPAddress to, std::uint16_t number, std::int64_t aheadMs) {
    SendBuffer synchro(MessageType::SYNCHRO, 0, number, 0, 0, 0);
    synchro.setBodySize(8);
    std::uint64_t reading = (NORVA::TimeValue::now() + NORVA::TimeValue::fromMs(aheadMs)).raw();
    for (int i = 0; i < 8; ++i) synchro.body()[i] = static_cast<std::uint8_t>(reading >> (8 * i));
    synchro.finish();
    reporter.socket.sendTo(to, false, synchro.bytes.data, synchro.bytes.size);
}

std::int64_t forwardedOffsetMs(TargetPeer& sink, const NORVA::IPAddress& reporter) {
    Receive forward;
    if (!sink.receive(forward) || forward.type() != MessageType::SYNCHRO_FORWARD ||
        forward.bodySize() != 26) {
        return -1;
    }
    NORVA::IPAddress named;
    named.setBytes(forward.body() + 8);
    EXPECT_EQ(named.toString(), reporter.toString());
    EXPECT_EQ(readU16(forward.body() + 24), reporter.scope());
    std::uint64_t offset = 0;
    for (int i = 0; i < 8; ++i) offset |= std::uint64_t(forward.body()[i]) << (8 * i);
    return static_cast<std::int64_t>(offset) / 1'000'000'000;
}

}  // namespace

TEST(TargetSynchro, SmallestOffsetOfAWindowIsForwardedWhenTheRunningNumberJumps) {
    TargetPeer reporter;
    NORVA::IPAddress local;
    if (!linkLocalPeer(reporter, local)) GTEST_SKIP() << "no link-local address to report from";
    TargetConfig config = testConfig();
    config.synchro = true;
    Target target(config);
    ASSERT_TRUE(target.open(false));
    NORVA::IPAddress to = local;
    to.setPort(target.boundPorts().control);

    TargetPeer sink;
    SendBuffer registration(MessageType::PORT_REGIST, 0, 1, 0, 0, 0);
    sink.send(registration, target.boundPorts().registration);
    for (int i = 0;
         i < 100 && sink.ask(MessageType::PORT_REQ, target.boundPorts().control, 1, 0, 1, 1).flags() == 0;
         ++i) {
    }

    report(reporter, to, 0, 5000);  // a first report starts a window at once
    std::int64_t first = forwardedOffsetMs(sink, local);
    EXPECT_GE(first, 4000);
    EXPECT_LE(first, 5000);
    report(reporter, to, 6, 8000);   // +6: same window, and worse
    report(reporter, to, 13, 3000);  // +7: a new window
    std::int64_t next = forwardedOffsetMs(sink, local);
    EXPECT_GE(next, 2000);
    EXPECT_LE(next, 3000);

    // The reporter reads back its offset.
    Send info(MessageType::TARGETINFO_REQ, 0, 2, 0, 0, 0);
    info.finish();
    reporter.socket.sendTo(to, false, info.bytes.data, info.bytes.size);
    Receive answer;
    ASSERT_TRUE(reporter.receive(answer));
    ASSERT_EQ(answer.bodySize(), 8u);
    std::uint64_t offset = 0;
    for (int i = 0; i < 8; ++i) offset |= std::uint64_t(answer.body()[i]) << (8 * i);
    EXPECT_EQ(static_cast<std::int64_t>(offset) / 1'000'000'000, next);
    target.close();
}
