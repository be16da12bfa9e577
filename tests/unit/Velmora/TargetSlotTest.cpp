// The target's end of a slot transfer.
#include <gtest/gtest.h>

#include <cstring>

#include "LogCapture.h"
#include "Protocol/Crc16.h"
#include "TargetPeer.h"

using namespace VELMORA;

namespace {

// Each slot: 4 bytes a packet, 2 packets a block, 2 blocks.
class SlotBench {
  public:
    static TargetConfig slotConfig() {
        TargetConfig config = testConfig();
        config.slotCount = 2;
        config.slots[0] = 3, config.slots[1] = 1, config.slots[2] = 1;
        return config;
    }
    OpenTarget<> open{slotConfig()};
    TargetPeer peer;

    void send(std::uint16_t slot, bool ack, std::uint16_t sequence, std::uint16_t packet, std::uint16_t block,
              const char* bytes) {
        SendBuffer frame(MessageType::TRANSFERDATA_SET, 0,
                         static_cast<std::uint16_t>(slot | (ack ? 0x8000 : 0)), sequence, packet, block);
        frame.setBodySize(static_cast<std::uint16_t>(std::strlen(bytes)));
        std::memcpy(frame.body(), bytes, std::strlen(bytes));
        peer.send(frame, open.control());
    }
    std::uint16_t check(std::uint16_t slot, std::uint16_t crc) {
        return peer.ask(MessageType::TRANSFERCHECK_REQ, open.control(), slot, crc, 0xFFFF).flags();
    }
};

}  // namespace

// The sequence number wraps, so a sender can go on for ever: what is kept stops at the slot's 16
// bytes, and the next transfer starts afresh.
TEST(TargetSlots, FramesAreTakenInSequenceUpToTheSlotsSizeAndTheCheckComparesTheCrc) {
    LogCapture log;
    SlotBench s;
    ASSERT_TRUE(s.open.opened);
    s.send(2, false, 0, 0, 0, "abcd");
    s.send(2, true, 1, 1, 0, "efgh");
    Receive ack;
    ASSERT_TRUE(s.peer.receive(ack));
    EXPECT_EQ(ack.type(), MessageType::TRANSFERDATA_ANS);
    EXPECT_EQ(ack.param1(), 1) << "expected before this frame was counted";
    s.send(2, true, 3, 1, 1, "mn");  // 2 is lost: 3 is dropped, and the answer names 2
    ASSERT_TRUE(s.peer.receive(ack));
    EXPECT_EQ(ack.param1(), 2);
    // A frame for a slot that doesn't exist gets no answer.
    s.send(3, true, 2, 0, 1, "zz");
    s.send(2, false, 2, 0, 1, "ijkl");
    s.send(2, true, 3, 1, 1, "mn");
    ASSERT_TRUE(s.peer.receive(ack));
    EXPECT_EQ(ack.param1(), 3);

    const std::uint16_t crc = crc16("abcdefghijklmn", 14);
    EXPECT_EQ(s.check(2, static_cast<std::uint16_t>(crc ^ 1)), 0);
    EXPECT_EQ(s.check(2, crc), flagYes);
    EXPECT_EQ(s.check(3, crc), 0);

    for (std::uint16_t sequence = 0; sequence < 6; ++sequence)
        s.send(1, false, sequence, sequence != 0, 0, "abcd");
    EXPECT_EQ(s.check(1, crc16("abcdabcdabcdabcd", 16)), flagYes);
    EXPECT_TRUE(log.hasPrefix("TRANSFERDATA_SET beyond the slot's 16 bytes"));
    s.send(1, false, 0, 0, 0, "wxyz");
    EXPECT_EQ(s.check(1, crc16("wxyz", 4)), flagYes);
}
