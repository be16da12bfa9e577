// The responder on its own ports survives malformed and random datagrams on
// all three sockets, and answers correctly afterwards.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "Discovery/Target.h"
#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

using namespace VELMORA;

namespace {

class Client {
  public:
    NORVA::UDPV6 socket;
    NORVA::ByteArray datagram;

    Client() {
        socket.openNonBlocking();
        socket.receiveSize = 70000;
        NORVA::IPAddress local = NORVA::IPAddress::loopback(0);
        socket.bind(local);
    }
    void sendBytes(const void* data, std::size_t size, std::uint16_t port) {
        socket.sendTo(NORVA::IPAddress::loopback(port), false, data, size);
    }
    void drain() {
        NORVA::IPAddress from;
        while (socket.waitReadable(NORVA::TimeValue::fromMs(50)) == 2) socket.receiveFrom(datagram, from);
    }
    // The first answer of `type` to a request, within a bound only a dead
    // target reaches.
    bool ask(std::uint16_t type, std::uint16_t answerType, Receive& answer) {
        Send request(type, 0);
        request.finish();
        sendBytes(request.bytes.data, request.bytes.size, 19642);
        NORVA::IPAddress from;
        while (socket.waitReadable(NORVA::TimeValue::fromSeconds(3)) == 2) {
            socket.receiveFrom(datagram, from);
            answer = Receive(datagram.data(), static_cast<std::uint32_t>(datagram.size()));
            if (answer.isValid() && answer.type() == answerType) return true;
        }
        return false;
    }
};

// Headers with every type and odd lengths, bodies of random bytes, and
// plain noise of every small size.
std::vector<std::vector<std::uint8_t>> floodOf(std::mt19937& random) {
    std::vector<std::vector<std::uint8_t>> flood;
    std::uniform_int_distribution<int> byte(0, 255);
    for (std::uint32_t size = 0; size < 64; ++size) {
        std::vector<std::uint8_t> noise(size);
        for (auto& b : noise) b = static_cast<std::uint8_t>(byte(random));
        flood.push_back(noise);
    }
    for (std::uint32_t type = 0; type < 0x60; ++type) {
        for (std::uint16_t local : {std::uint16_t(0), std::uint16_t(0x8000)}) {
            std::size_t size = 16 + std::uniform_int_distribution<int>(0, 80)(random);
            std::vector<std::uint8_t> frame(size);
            for (auto& b : frame) b = static_cast<std::uint8_t>(byte(random));
            FrameHeader header;
            header.set(static_cast<std::uint16_t>(type | local), static_cast<std::uint16_t>(byte(random)),
                       static_cast<std::uint16_t>(random()), static_cast<std::uint16_t>(random()),
                       static_cast<std::uint16_t>(random()), static_cast<std::uint16_t>(random()));
            header.setLength(static_cast<std::uint16_t>(random() % 2 ? size : random()));
            std::memcpy(frame.data(), header.bytes, headerSize);
            flood.push_back(frame);
        }
    }
    return flood;
}

}  // namespace

TEST(TargetFlood, SurvivesMalformedAndRandomDatagramsOnAllSockets) {
    TargetConfig config;
    config.allowLoopback = true;
    config.idleWithoutSynchro = false;
    config.name = "flooded";
    config.slotCount = 1;
    config.icons[0].width = 2;
    config.icons[0].pixels = {1, 2, 3, 4};
    config.settings.push_back(TargetSettingRow{5, "Mode", "", 0, 0, 0, {"a"}});
    config.staticPorts.push_back(StaticPort{40000, 1, "fixed", true, 1});
    Target target(config);
    ASSERT_TRUE(target.open(NORVA::IPAddress::loopback(0), true)) << "ports 19638, 19641 or 19642 in use";

    Client client;
    std::mt19937 random(1234);
    for (int round = 0; round < 20; ++round) {
        for (const auto& datagram : floodOf(random)) {
            for (std::uint16_t port : {19642, 19638, 19641})
                client.sendBytes(datagram.data(), datagram.size(), port);
        }
        client.drain();
    }
    ASSERT_EQ(target.loopResult(), Target::loopRunning);

    Receive answer;
    ASSERT_TRUE(client.ask(MessageType::DISCOVER, MessageType::DISCOVER_ANS, answer));
    std::string name;
    answer.bodyText(name);
    EXPECT_EQ(name, "flooded");
    ASSERT_TRUE(client.ask(MessageType::TARGETINFO_REQ, MessageType::TARGETINFO_ANS, answer));
    EXPECT_EQ(answer.flags(), flagYes);
    target.close();
    EXPECT_EQ(target.loopResult(), Target::loopFailed);
}
