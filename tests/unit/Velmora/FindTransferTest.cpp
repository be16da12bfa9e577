#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "FindPeer.h"
#include "LogCapture.h"
#include "Protocol/Crc16.h"

namespace {

using VELMORA::Find;
using VELMORA::Receive;
namespace MessageType = VELMORA::MessageType;

constexpr std::uint16_t ackWanted = 0x8000;

// The target's end of a slot transfer: frames taken in sequence only, an
// acknowledgement naming the next sequence number it expects, a CRC check
// over what it took. It can lose chosen frames on their first sending.
class SlotTarget {
  public:
    std::uint16_t window = 0xFFFF;
    std::uint16_t slotCount = 2;
    std::uint16_t packetSize = 1024;
    std::uint16_t packetsPerBlock = 4;
    std::uint16_t blockCount = 4;
    // Sequence numbers lost the first time, and every time. Set while the
    // peer runs, so under the lock.
    void loseOnce(std::set<std::uint16_t> sequences) {
        std::lock_guard<std::mutex> guard(lock);
        lostOnce = std::move(sequences);
    }
    void loseAlways(std::set<std::uint16_t> sequences) {
        std::lock_guard<std::mutex> guard(lock);
        lostAlways = std::move(sequences);
    }

    std::vector<std::uint8_t> taken() {
        std::lock_guard<std::mutex> guard(lock);
        return data;
    }

  private:
    void answer(FindPeer& self, const Receive& request) {
        switch (request.type()) {
            case MessageType::TRANSFERINFO_REQ:
                if (request.param0() == 0) {
                    self.yes(request, slotCount, window);
                } else if (request.param0() <= slotCount) {
                    self.yes(request, request.param0(), packetSize - 1, packetsPerBlock - 1, blockCount - 1);
                } else {
                    self.reply(MessageType::TRANSFERINFO_ANS, 0);
                }
                return;
            case MessageType::TRANSFERDATA_SET:
                takeData(self, request);
                return;
            case MessageType::TRANSFERCHECK_REQ: {
                bool good = VELMORA::crc16(taken().data(), taken().size()) == request.param1();
                if (good) self.yes(request, request.param0(), request.param1(), request.param2());
                if (!good) self.reply(MessageType::TRANSFERCHECK_ANS, 0);
                return;
            }
        }
        self.echo(request);
    }

    void takeData(FindPeer& self, const Receive& request) {
        std::uint16_t sequence = request.param1();
        std::lock_guard<std::mutex> guard(lock);
        if (lostAlways.count(sequence) != 0 || lostOnce.erase(sequence) != 0) return;
        if (sequence == 0 && request.param2() == 0 && request.param3() == 0) {
            expected = 0;
            data.clear();
        }
        if ((request.param0() & ackWanted) != 0) {
            self.yes(request, request.param0() & 0x7FFF, expected);
        }
        if (sequence != expected) return;
        ++expected;
        data.insert(data.end(), request.body(), request.body() + request.bodySize());
    }

    std::mutex lock;
    std::set<std::uint16_t> lostOnce;
    std::set<std::uint16_t> lostAlways;
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

NORVA::BufferCS_const viewOf(const std::vector<std::uint8_t>& bytes) {
    return {bytes.data(), static_cast<std::uint32_t>(bytes.size())};
}

class SlotTransfer : public ::testing::Test {
  protected:
    Find find{loopbackSettings()};
    SlotTarget target;
    std::vector<std::pair<unsigned, unsigned>> progress;

    void SetUp() override { ASSERT_TRUE(find.open()); }

    bool transfer(const std::vector<std::uint8_t>& bytes, unsigned limit, int slot = 0) {
        return find.Transfer(target.peer.address, slot, viewOf(bytes), limit,
                             [this](const unsigned short& block, const unsigned short& blocks) {
                                 progress.emplace_back(block, blocks);
                             });
    }
    std::vector<SeenRequest> frames() { return target.peer.requestsOf(MessageType::TRANSFERDATA_SET); }
};

// 2.5 blocks of 4 packets of 1024 bytes, a window of 3000 bytes: bursts of
// three frames, the third asking for the acknowledgement, and shorter
// bursts at the end of each block.
TEST_F(SlotTransfer, DataLargerThanABlockArrivesWholeInWindowedBursts) {
    std::vector<std::uint8_t> bytes = pattern(10 * 1024 + 300);
    ASSERT_TRUE(transfer(bytes, 3000));
    EXPECT_EQ(target.taken(), bytes);
    std::vector<SeenRequest> sent = frames();
    ASSERT_EQ(sent.size(), 11u);
    std::vector<bool> asks;
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].params[1], i);      // sequence
        EXPECT_EQ(sent[i].params[2], i % 4);  // packet in block
        EXPECT_EQ(sent[i].params[3], i / 4);  // block
        asks.push_back((sent[i].params[0] & ackWanted) != 0);
    }
    std::vector<bool> expected{false, false, true, true, false, false, true, true, false, false, true};
    EXPECT_EQ(asks, expected);
    std::vector<std::pair<unsigned, unsigned>> blocks{{0, 4}, {1, 4}, {2, 4}};
    EXPECT_EQ(progress, blocks);
}

TEST_F(SlotTransfer, ALostFrameIsSentAgainFromWhereTheTargetStopped) {
    LogCapture log;
    target.loseOnce({1});
    std::vector<std::uint8_t> bytes = pattern(4 * 1024);
    ASSERT_TRUE(transfer(bytes, 0));
    EXPECT_EQ(target.taken(), bytes);
    // Four frames, then 1, 2 and 3 again.
    std::vector<SeenRequest> sent = frames();
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(sent[4].params[1], 1);
    EXPECT_EQ(sent[6].params[1], 3);
    EXPECT_TRUE(log.has("Retry Detect err 3 1"));
}

TEST_F(SlotTransfer, ALostLastFrameEndsTheTransferWithATimeout) {
    LogCapture log;
    std::vector<std::uint8_t> bytes = pattern(2 * 1024 + 10);
    target.loseAlways({2});
    EXPECT_FALSE(transfer(bytes, 0));
    EXPECT_TRUE(log.has("Transfer Timeout error "));
    EXPECT_TRUE(target.peer.requestsOf(MessageType::TRANSFERCHECK_REQ).empty());
}

TEST_F(SlotTransfer, AFrameLostForGoodEndsAfterTenRepetitions) {
    LogCapture log;
    target.loseAlways({0});
    EXPECT_FALSE(transfer(pattern(2 * 1024), 0));
    EXPECT_TRUE(log.has("Transfer error 11"));
    // The first sending and ten repetitions of both frames.
    EXPECT_EQ(frames().size(), 22u);
}

TEST_F(SlotTransfer, DataBeyondTheSlotIsRefusedBeforeAnyFrame) {
    LogCapture log;
    std::vector<std::uint8_t> full = pattern(4 * 4 * 1024);
    std::vector<std::uint8_t> tooMuch = pattern(full.size() + 1);
    EXPECT_FALSE(transfer(tooMuch, 0));
    EXPECT_TRUE(log.hasPrefix("slot siz miss 16384<16385"));
    EXPECT_TRUE(frames().empty());
    EXPECT_TRUE(transfer(full, 0));
    EXPECT_EQ(target.taken(), full);
}

TEST_F(SlotTransfer, ASlotBeyondTheCountIsRefused) {
    LogCapture log;
    EXPECT_FALSE(transfer(pattern(10), 0, 2));
    EXPECT_TRUE(log.has("no support Transfer 2"));
}

TEST_F(SlotTransfer, EmptyDataGoesStraightToTheCheck) {
    ASSERT_TRUE(transfer({}, 0));
    EXPECT_TRUE(frames().empty());
    EXPECT_TRUE(progress.empty());
    auto checks = target.peer.requestsOf(MessageType::TRANSFERCHECK_REQ);
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_EQ(checks[0].params[1], 0);
}

TEST_F(SlotTransfer, AWrongCrcFailsTheCheck) {
    LogCapture log;
    std::uint16_t state = 0xFFFF;
    EXPECT_FALSE(find.checkTransfer(target.peer.address, 0, 0x1234, state));
    FindPeer silent([](FindPeer&, const Receive&) {});
    EXPECT_FALSE(find.Transfer(silent.address, 0, viewOf(pattern(10)), 0));
    EXPECT_TRUE(log.has("no support Transfer "));
}

TEST(SlotList, ReadsBothStringsAndTheValue) {
    FindPeer peer([](FindPeer& self, const Receive& request) {
        if (request.type() != MessageType::SLOTLIST_REQ) return self.echo(request);
        if (request.param0() == 0) return self.yes(request, 2);
        VELMORA::SendBuffer answer(MessageType::SLOTLIST_ANS, VELMORA::flagYes, request.param0(), 40, 0, 0);
        answer.setBodyText("firmware");
        answer.appendBodyText(request.param0() == 1 ? "main" : "");
        self.reply(answer);
    });
    Find find(loopbackSettings());
    ASSERT_TRUE(find.open());
    std::vector<VELMORA::SlotDescription> list;
    ASSERT_TRUE(find.readSlotList(peer.address, list));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].name, "firmware");
    EXPECT_EQ(list[0].text, "main");
    EXPECT_EQ(list[1].text, "");
    EXPECT_EQ(list[1].value, 40);
}

}  // namespace
