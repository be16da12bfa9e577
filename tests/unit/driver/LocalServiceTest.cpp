#include "LocalService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Protocol/Frame.h"
#include "Protocol/MessageTypes.h"

namespace {

using VELMORA::FrameHeader;
namespace MessageType = VELMORA::MessageType;
using Clock = std::chrono::steady_clock;

// A service on a loopback port of the system's choice that records every
// frame and answers the n-th (counted from 0) as `answer` says: with the
// bytes it gives, or not at all if they are empty.
class FakeService {
  public:
    using Answer = std::function<std::vector<std::uint8_t>(int index, const FrameHeader& request)>;

    explicit FakeService(Answer answer) : answer(std::move(answer)) {
        EXPECT_TRUE(socket.open(NORVA::Socket::udp6));
        NORVA::IPAddress local = NORVA::IPAddress::loopback(0);
        EXPECT_TRUE(socket.bind(local));
        port = local.port();
        thread = std::thread([this] { serve(); });
    }
    ~FakeService() { stopAndJoin(); }

    // What arrived; waits a little first, for anything still under way.
    std::vector<FrameHeader> frames() {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        stopAndJoin();
        return received;
    }

    std::uint16_t port = 0;

  private:
    void serve() {
        while (!stop.load()) {
            if (socket.waitReadable(NORVA::TimeValue::fromMs(10)) != 2) continue;
            std::uint8_t data[1500];
            std::size_t length = 0;
            NORVA::IPAddress peer;
            if (!socket.receiveFrom(data, sizeof(data), length, peer) || length == 0) continue;
            FrameHeader header;
            std::memcpy(header.bytes, data, std::min<std::size_t>(length, VELMORA::headerSize));
            received.push_back(header);
            EXPECT_EQ(length, VELMORA::headerSize);
            std::vector<std::uint8_t> reply = answer(int(received.size() - 1), header);
            if (!reply.empty()) socket.sendTo(peer, false, reply.data(), reply.size());
        }
    }
    void stopAndJoin() {
        stop.store(true);
        if (thread.joinable()) thread.join();
    }

    NORVA::UDPV6 socket;
    Answer answer;
    std::vector<FrameHeader> received;
    std::atomic<bool> stop{false};
    std::thread thread;
};

std::vector<std::uint8_t> answerOf(std::uint16_t type) {
    FrameHeader header;
    header.set(type, VELMORA::flagYes, 0, 0, 0, 0);
    return std::vector<std::uint8_t>(header.bytes, header.bytes + VELMORA::headerSize);
}

std::vector<std::uint8_t> silence(int, const FrameHeader&) {
    return {};
}

DriverSettings placement(std::int32_t cpuSend, std::int32_t cpuOther, std::int32_t count, bool wait) {
    DriverSettings settings;
    settings.cpuSend = cpuSend;
    settings.cpuOther = cpuOther;
    settings.cpuOtherCount = count;
    settings.ackProcessCtl = wait;
    return settings;
}

void expectFrame(const FrameHeader& frame, std::uint16_t type, std::uint16_t flags, std::uint16_t p0,
                 std::uint16_t p1, std::uint16_t p2, std::uint16_t p3) {
    EXPECT_EQ(VELMORA::readU16(frame.bytes), VELMORA::protocolVersion);
    EXPECT_EQ(frame.length(), 16);
    EXPECT_EQ(frame.type(), type);
    EXPECT_EQ(frame.flags(), flags);
    EXPECT_EQ(frame.param(0), p0);
    EXPECT_EQ(frame.param(1), p1);
    EXPECT_EQ(frame.param(2), p2);
    EXPECT_EQ(frame.param(3), p3);
}

constexpr std::uint64_t processId = 0x0000123456789ABCull;

TEST(LocalService, WithoutWaitingEachRequestGoesOutOnce) {
    FakeService service(silence);
    LocalServiceExchange exchange;
    exchange.port = service.port;
    DriverSettings settings = placement(-1, 2, 4, false);
    exchange.up(settings, processId);
    exchange.down(settings, processId);

    std::vector<FrameHeader> frames = service.frames();
    ASSERT_EQ(frames.size(), 4u);
    expectFrame(frames[0], MessageType::LOCALSERVICE_REQ, 2, 0x9ABC, 0x5678, 0x1234, 0);
    expectFrame(frames[1], MessageType::LOCALCPU_REQ, 2, 0xFFFF, 1, 2, 4);
    expectFrame(frames[2], MessageType::LOCALSERVICE_REQ, 0, 0x9ABC, 0x5678, 0x1234, 0);
    expectFrame(frames[3], MessageType::LOCALCPU_REQ, 0, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF);
}

TEST(LocalService, WaitingResendsUntilTheRightAnswer) {
    // The first request goes unanswered, the second gets a short datagram,
    // the third an answer of the wrong type; then the service answers right.
    FakeService service([](int index, const FrameHeader& request) -> std::vector<std::uint8_t> {
        switch (index) {
            case 0:
                return {};
            case 1:
                return {1, 2, 3, 4};
            case 2:
                return answerOf(MessageType::LOCALCPU_ANS);
            default:
                return answerOf(std::uint16_t(request.type() + 1));
        }
    });
    LocalServiceExchange exchange;
    exchange.port = service.port;
    exchange.answerWait = NORVA::TimeValue::fromMs(100);
    exchange.up(placement(3, -1, -1, true), processId);

    std::vector<FrameHeader> frames = service.frames();
    ASSERT_EQ(frames.size(), 5u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(frames[i].type(), MessageType::LOCALSERVICE_REQ) << i;
    expectFrame(frames[4], MessageType::LOCALCPU_REQ, 2, 3, 1, 0xFFFF, 0xFFFF);
}

TEST(LocalService, SilentServiceIsAskedUntilTheLimit) {
    FakeService service(silence);
    LocalServiceExchange exchange;
    exchange.port = service.port;
    exchange.answerWait = NORVA::TimeValue::fromMs(50);
    exchange.limit = NORVA::TimeValue::fromMs(500);
    Clock::time_point start = Clock::now();
    exchange.down(placement(-1, 0, 1, true), processId);
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    EXPECT_GE(took, 450);
    EXPECT_LT(took, 1500);

    // The limit is spent in the first phase: the second request never goes out.
    std::vector<FrameHeader> frames = service.frames();
    EXPECT_GE(frames.size(), 5u);
    EXPECT_LE(frames.size(), 11u);
    for (const FrameHeader& frame : frames) EXPECT_EQ(frame.type(), MessageType::LOCALSERVICE_REQ);
}

TEST(LocalService, OnlyCpuPlacementInvolvesTheService) {
    DriverSettings settings;
    EXPECT_FALSE(wantsLocalService(settings));
    settings.cpuSend = 2;
    EXPECT_FALSE(wantsLocalService(settings));  // the send side's thread mode bit is clear
    settings.thredMode |= thredModeCpuSend;
    EXPECT_TRUE(wantsLocalService(settings));
    settings.cpuSend = -1;
    EXPECT_FALSE(wantsLocalService(settings));
    settings.thredMode = 1;
    settings.cpuOther = 0;
    EXPECT_TRUE(wantsLocalService(settings));
}

}  // namespace
