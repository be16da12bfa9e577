#include "LocalService.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <stop_token>
#include <thread>
#include <tuple>
#include <vector>

#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Protocol/Frame.h"
#include "Protocol/MessageTypes.h"

namespace {

using VELMORA::FrameHeader;
namespace MessageType = VELMORA::MessageType;
using Clock = std::chrono::steady_clock;

// A service on a loopback port that records every frame and answers the n-th (from 0) with the bytes
// `answer` gives, or not at all if there are none.
class FakeService {
  public:
    using Answer = std::function<std::vector<std::uint8_t>(int index, const FrameHeader& request)>;

    explicit FakeService(Answer answer = {}) : answer(std::move(answer)) {
        NORVA::IPAddress local = NORVA::IPAddress::loopback(0);
        EXPECT_TRUE(socket.open(NORVA::Socket::udp6) && socket.bind(local));
        exchange.port = local.port();
        thread = std::jthread([this](std::stop_token stop) { serve(stop); });
    }

    // What arrived, after a little wait for anything still under way.
    std::vector<FrameHeader> frames() {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        thread.request_stop();
        thread.join();
        return received;
    }

    LocalServiceExchange exchange;  // with this service

  private:
    void serve(std::stop_token stop) {
        while (!stop.stop_requested()) {
            if (socket.waitReadable(NORVA::TimeValue::fromMs(10)) != 2) continue;
            std::uint8_t data[1500];
            std::size_t length = 0;
            NORVA::IPAddress peer;
            if (!socket.receiveFrom(data, sizeof(data), length, peer) || length == 0) continue;
            FrameHeader header;
            std::memcpy(header.bytes, data, std::min<std::size_t>(length, VELMORA::headerSize));
            received.push_back(header);
            EXPECT_EQ(length, VELMORA::headerSize);
            std::vector<std::uint8_t> reply;
            if (answer) reply = answer(int(received.size() - 1), header);
            if (!reply.empty()) socket.sendTo(peer, false, reply.data(), reply.size());
        }
    }

    NORVA::UDPV6 socket;
    Answer answer;
    std::vector<FrameHeader> received;
    std::jthread thread;
};

DriverSettings placement(std::int32_t cpuSend, std::int32_t cpuOther, std::int32_t count, bool wait) {
    DriverSettings s;
    std::tie(s.cpuSend, s.cpuOther, s.cpuOtherCount, s.ackProcessCtl) =
        std::tie(cpuSend, cpuOther, count, wait);
    return s;
}

// Type, flags and the four parameters, after checking version and length.
std::vector<std::uint16_t> fields(const FrameHeader& frame) {
    EXPECT_EQ(VELMORA::readU16(frame.bytes), VELMORA::protocolVersion);
    EXPECT_EQ(frame.length(), 16);
    return {frame.type(), frame.flags(), frame.param(0), frame.param(1), frame.param(2), frame.param(3)};
}
using Fields = std::vector<std::uint16_t>;

constexpr std::uint64_t processId = 0x0000123456789ABCull;

TEST(LocalService, WithoutWaitingEachRequestGoesOutOnce) {
    FakeService service;
    service.exchange.up(placement(-1, 2, 4, false), processId);
    service.exchange.down(placement(-1, 2, 4, false), processId);

    std::vector<FrameHeader> frames = service.frames();
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(fields(frames[0]), Fields({MessageType::LOCALSERVICE_REQ, 2, 0x9ABC, 0x5678, 0x1234, 0}));
    EXPECT_EQ(fields(frames[1]), Fields({MessageType::LOCALCPU_REQ, 2, 0xFFFF, 1, 2, 4}));
    EXPECT_EQ(fields(frames[2]), Fields({MessageType::LOCALSERVICE_REQ, 0, 0x9ABC, 0x5678, 0x1234, 0}));
    EXPECT_EQ(fields(frames[3]), Fields({MessageType::LOCALCPU_REQ, 0, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF}));
}

TEST(LocalService, WaitingResendsUntilTheRightAnswer) {
    // No answer, a short datagram, the wrong type; then the right answer.
    FakeService service([](int index, const FrameHeader& request) -> std::vector<std::uint8_t> {
        if (index < 2)
            return index == 0 ? std::vector<std::uint8_t>() : std::vector<std::uint8_t>{1, 2, 3, 4};
        FrameHeader answer;
        answer.set(index == 2 ? MessageType::LOCALCPU_ANS : std::uint16_t(request.type() + 1),
                   VELMORA::flagYes, 0, 0, 0, 0);
        return std::vector<std::uint8_t>(answer.bytes, answer.bytes + VELMORA::headerSize);
    });
    service.exchange.answerWait = NORVA::TimeValue::fromMs(100);
    service.exchange.up(placement(3, -1, -1, true), processId);

    std::vector<FrameHeader> frames = service.frames();
    ASSERT_EQ(frames.size(), 5u);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(frames[i].type(), MessageType::LOCALSERVICE_REQ) << i;
    EXPECT_EQ(fields(frames[4]), Fields({MessageType::LOCALCPU_REQ, 2, 3, 1, 0xFFFF, 0xFFFF}));
}

TEST(LocalService, SilentServiceIsAskedUntilTheLimit) {
    FakeService service;
    service.exchange.answerWait = NORVA::TimeValue::fromMs(50);
    service.exchange.limit = NORVA::TimeValue::fromMs(500);
    Clock::time_point start = Clock::now();
    service.exchange.down(placement(-1, 0, 1, true), processId);
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
    auto wants = [](std::int32_t cpuSend, std::int32_t cpuOther, std::uint32_t thredMode) {
        DriverSettings settings = placement(cpuSend, cpuOther, -1, false);
        settings.thredMode = thredMode;
        return wantsLocalService(settings);
    };
    EXPECT_FALSE(wants(-1, -1, 1 | thredModeCpuSend));
    EXPECT_FALSE(wants(2, -1, 1)) << "the send side needs its thread mode bit";
    EXPECT_TRUE(wants(2, -1, 1 | thredModeCpuSend));
    EXPECT_TRUE(wants(-1, 0, 1));
}

}  // namespace
