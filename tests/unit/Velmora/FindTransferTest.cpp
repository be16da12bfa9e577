#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "FindPeer.h"
#include "LogCapture.h"
#include "Protocol/Crc16.h"

namespace {

using namespace VELMORA;

constexpr std::uint16_t ackWanted = 0x8000;

// The target's end of a slot transfer: two slots of 4 blocks of 4 packets of 1024 bytes, frames
// taken in sequence only, an acknowledgement naming the sequence number it expects next, a CRC check
// over what it took. It can lose chosen frames on their first sending.
class SlotTarget {
  public:
    void loseOnce(std::uint16_t sequence) {
        std::lock_guard<std::mutex> guard(lock);
        lost.insert(sequence);
    }
    std::vector<std::uint8_t> taken() {
        std::lock_guard<std::mutex> guard(lock);
        return data;
    }

  private:
    void answer(FindPeer& self, const Receive& request) {
        std::lock_guard<std::mutex> guard(lock);
        const std::uint16_t p0 = request.param0(), sequence = request.param1();
        switch (request.type()) {
            case MessageType::TRANSFERINFO_REQ:
                if (p0 == 0) return self.yes(request, 2, 0xFFFF);
                if (p0 <= 2) return self.yes(request, p0, 1023, 3, 3);
                return self.reply(MessageType::TRANSFERINFO_ANS, 0);
            case MessageType::TRANSFERCHECK_REQ:
                if (crc16(data.data(), data.size()) != request.param1())
                    return self.reply(MessageType::TRANSFERCHECK_ANS, 0);
                return self.yes(request, p0, request.param1(), request.param2());
            case MessageType::TRANSFERDATA_SET:
                if (lost.erase(sequence) != 0) return;
                if (sequence == 0 && request.param2() == 0 && request.param3() == 0)
                    expected = 0, data.clear();
                if ((p0 & ackWanted) != 0) self.yes(request, p0 & 0x7FFF, expected);
                if (sequence != expected) return;
                ++expected;
                data.insert(data.end(), request.body(), request.body() + request.bodySize());
                return;
        }
        self.echo(request);
    }

    std::mutex lock;
    std::set<std::uint16_t> lost;
    std::vector<std::uint8_t> data;
    std::uint16_t expected = 0;

  public:
    // Last, so that its thread starts on a whole object.
    FindPeer peer{[this](FindPeer& self, const Receive& request) { answer(self, request); }};
};

std::vector<std::uint8_t> pattern(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    return bytes;
}

class SlotTransfer : public FindOnLoopback {
  protected:
    SlotTarget target;
    std::vector<std::pair<unsigned, unsigned>> progress;
    LogCapture log;

    bool transfer(const std::vector<std::uint8_t>& bytes, unsigned window, int slot = 0) {
        return find.Transfer(target.peer.address, slot,
                             {bytes.data(), static_cast<std::uint32_t>(bytes.size())}, window,
                             [this](const unsigned short& block, const unsigned short& blocks) {
                                 progress.emplace_back(block, blocks);
                             });
    }
    std::vector<SeenRequest> frames() { return target.peer.requestsOf(MessageType::TRANSFERDATA_SET); }
};

// 2.5 blocks and a window of 3000 bytes: bursts of three frames, the last asking for the
// acknowledgement, and shorter bursts at the end of each block.
TEST_F(SlotTransfer, DataLargerThanABlockArrivesWholeInWindowedBursts) {
    std::vector<std::uint8_t> bytes = pattern(10 * 1024 + 300);
    ASSERT_TRUE(transfer(bytes, 3000));
    EXPECT_EQ(target.taken(), bytes);
    std::vector<SeenRequest> sent = frames();
    ASSERT_EQ(sent.size(), 11u);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].params[1], i);      // sequence
        EXPECT_EQ(sent[i].params[2], i % 4);  // packet in block
        EXPECT_EQ(sent[i].params[3], i / 4);  // block
        // The third frame of a burst, and the last of a block.
        EXPECT_EQ((sent[i].params[0] & ackWanted) != 0, i % 4 >= 2 || i + 1 == sent.size()) << i;
    }
    EXPECT_EQ(progress, (std::vector<std::pair<unsigned, unsigned>>{{0, 4}, {1, 4}, {2, 4}}));
}

TEST_F(SlotTransfer, ALostFrameIsSentAgainFromWhereTheTargetStopped) {
    target.loseOnce(1);
    std::vector<std::uint8_t> bytes = pattern(4 * 1024);
    ASSERT_TRUE(transfer(bytes, 0));
    EXPECT_EQ(target.taken(), bytes);
    std::vector<SeenRequest> sent = frames();  // four frames, then 1, 2 and 3 again
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(sent[4].params[1], 1);
    EXPECT_EQ(sent[6].params[1], 3);
    EXPECT_TRUE(log.has("Retry Detect err 3 1"));
}

TEST_F(SlotTransfer, DataOrSlotsBeyondTheTargetAreRefusedBeforeAnyFrame) {
    std::vector<std::uint8_t> full = pattern(4 * 4 * 1024);
    EXPECT_FALSE(transfer(pattern(full.size() + 1), 0));
    EXPECT_TRUE(log.hasPrefix("slot siz miss 16384<16385"));
    EXPECT_FALSE(transfer(pattern(10), 0, 2));
    EXPECT_TRUE(log.has("no support Transfer 2"));
    EXPECT_TRUE(frames().empty());
    EXPECT_TRUE(transfer(full, 0));
    EXPECT_EQ(target.taken(), full);
}

}  // namespace
