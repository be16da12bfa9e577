#include <gtest/gtest.h>

#include "FindPeer.h"

namespace {

using namespace VELMORA;

// Answers MTU probes that fit a path of `pathMtu` (IP and UDP headers, 48 bytes, included) with the
// size and the sum of the bytes after the header, plus `sumError`.
FindPeer::Script mtuScript(std::uint32_t pathMtu, std::uint16_t sumError = 0) {
    return [pathMtu, sumError](FindPeer& self, const Receive& request) {
        if (request.type() != MessageType::MTUTEST_REQ) return self.echo(request);
        if (request.size + 48 > pathMtu) return;
        std::uint16_t sum = sumError;
        for (std::uint32_t i = headerSize; i < request.size; ++i)
            sum = static_cast<std::uint16_t>(sum + request.frame[i]);
        SendBuffer answer(MessageType::MTUTEST_ANS, flagYes, 0, request.param1(), 0, sum);
        answer.setBodySize(4);
        writeU16(answer.body(), static_cast<std::uint16_t>(request.size));
        writeU16(answer.body() + 2, static_cast<std::uint16_t>(request.size >> 16));
        self.reply(answer);
    };
}

// The loopback interface is far wider than the path: the search narrows down on its odd limit.
using MtuMeasurement = FindOnLoopback;

TEST_F(MtuMeasurement, FindsThePathLimitExactlyOr1500WithoutTheTest) {
    std::uint32_t activeMtu = 0, interfaceMtu = 0;
    for (std::uint32_t path : {1400u, 1283u, 0u}) {
        FindPeer peer(path != 0 ? mtuScript(path)
                                : [](FindPeer& self, const Receive& request) { self.echo(request); });
        find.targetPort = peer.address.port();
        ASSERT_TRUE(find.measureMtu(peer.address, activeMtu, interfaceMtu));
        EXPECT_EQ(activeMtu, path != 0 ? path : 1500u);
        EXPECT_GT(interfaceMtu, path != 0 ? path : 1500u);
    }
}

}  // namespace
