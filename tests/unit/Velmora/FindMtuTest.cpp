#include <gtest/gtest.h>

#include "FindPeer.h"
#include "LogCapture.h"

namespace {

using VELMORA::Find;
using VELMORA::Receive;
namespace MessageType = VELMORA::MessageType;

constexpr std::uint32_t ipAndUdpHeaders = 48;

// Answers MTU probes that fit a path of `pathMtu`, as a target does: the
// size it got and the sum of the bytes after the header. `sumError` is
// added to the sum, so that every probe looks damaged.
FindPeer::Script mtuScript(std::uint32_t pathMtu, std::uint16_t sumError = 0) {
    return [pathMtu, sumError](FindPeer& self, const Receive& request) {
        if (request.type() != MessageType::MTUTEST_REQ) return self.echo(request);
        if (request.size + ipAndUdpHeaders > pathMtu) return;
        std::uint16_t sum = sumError;
        for (std::uint32_t i = VELMORA::headerSize; i < request.size; ++i) {
            sum = static_cast<std::uint16_t>(sum + request.frame[i]);
        }
        VELMORA::SendBuffer answer(MessageType::MTUTEST_ANS, VELMORA::flagYes, 0, request.param1(), 0, sum);
        answer.setBodySize(4);
        VELMORA::writeU16(answer.body(), static_cast<std::uint16_t>(request.size));
        VELMORA::writeU16(answer.body() + 2, static_cast<std::uint16_t>(request.size >> 16));
        self.reply(answer);
    };
}

class MtuMeasurement : public ::testing::Test {
  protected:
    Find find{loopbackSettings()};
    std::uint32_t activeMtu = 0;
    std::uint32_t interfaceMtu = 0;

    void SetUp() override { ASSERT_TRUE(find.open()); }
    bool measure(FindPeer& peer) {
        find.targetPort = peer.address.port();
        return find.measureMtu(peer.address, activeMtu, interfaceMtu);
    }
};

// The loopback interface is far wider than the path: the search narrows
// down on the path's odd limit, probe sizes not multiples of 8 included.
TEST_F(MtuMeasurement, FindsThePathLimitExactly) {
    for (std::uint32_t path : {1400u, 1283u}) {
        FindPeer peer(mtuScript(path));
        ASSERT_TRUE(measure(peer));
        EXPECT_EQ(activeMtu, path);
        EXPECT_GT(interfaceMtu, path);
    }
}

TEST_F(MtuMeasurement, ATargetWithoutTheTestLeaves1500) {
    FindPeer peer([](FindPeer& self, const Receive& request) { self.echo(request); });
    ASSERT_TRUE(measure(peer));
    EXPECT_EQ(activeMtu, 1500u);
    EXPECT_EQ(peer.requestsOf(MessageType::MTUTEST_REQ).size(), 1u);
}

TEST_F(MtuMeasurement, DamagedOrSilentAnswersEndAsNotSupported) {
    LogCapture log;
    FindPeer damaged(mtuScript(70000, 1));
    EXPECT_FALSE(measure(damaged));
    EXPECT_EQ(activeMtu, 1500u);
    EXPECT_TRUE(log.has("InterfaceMTU=nosupport ActiveMtu=nosupport"));
    // A damaged probe fails at once: each size went out once.
    auto probes = damaged.requestsOf(MessageType::MTUTEST_REQ);
    for (std::size_t i = 1; i < probes.size(); ++i) EXPECT_NE(probes[i].size, probes[i - 1].size);

    FindPeer silent([](FindPeer&, const Receive&) {});
    EXPECT_FALSE(measure(silent));
}

TEST_F(MtuMeasurement, AnUnknownInterfaceIsAFailureWithoutProbes) {
    FindPeer peer(mtuScript(1500));
    NORVA::IPAddress elsewhere = peer.address;
    elsewhere.setScope(60000);
    find.targetPort = peer.address.port();
    EXPECT_FALSE(find.measureMtu(elsewhere, activeMtu, interfaceMtu));
    EXPECT_TRUE(peer.requests().empty());
}

}  // namespace
