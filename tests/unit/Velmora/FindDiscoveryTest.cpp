#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "FindPeer.h"
#include "LogCapture.h"

namespace {

using NORVA::IPAddress;
using namespace VELMORA;

constexpr std::uint64_t peerId = 0x1122334455667788ull;

// A target answering discovery with `flags`; a refused product is heard and told our name, but not listed.
TEST_F(FindOnLoopback, SearchListsAcceptedTargetsThatSayYesAndTellsThemOurName) {
    const struct {
        std::uint16_t flags;
        std::uint64_t filter;
        bool listed;
    } rows[] = {{flagYes, anyProductId, true}, {flagYes, 42, false}, {0, anyProductId, false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.filter);
        FindPeer peer([&row](FindPeer& self, const Receive& request) {
            if (request.type() == MessageType::SYNCNAME_SET) self.yes(request);
            if (request.type() != MessageType::DISCOVER) return;
            SendBuffer answer(MessageType::DISCOVER_ANS, row.flags, peerId);
            answer.setBodyText("studio target");
            self.reply(answer);
        });
        find.targetPort = peer.address.port();
        find.settings.filterId = row.filter;
        TargetMap targets;
        ASSERT_TRUE(find.searchTargets(targets));
        ASSERT_EQ(targets.size(), row.listed ? 1u : 0u);
        if (row.listed) {
            EXPECT_EQ(targets.begin()->first, peer.address);
            EXPECT_EQ(targets.begin()->second.productId, peerId);
            EXPECT_EQ(targets.begin()->second.name, "studio target");
            EXPECT_EQ(peer.requestsOf(MessageType::DISCOVER).size(), 3u) << "three rounds";
        }
        auto names = peer.requestsOf(MessageType::SYNCNAME_SET);
        ASSERT_EQ(names.size(), row.flags != 0 ? 1u : 0u);
        for (const SeenRequest& name : names) EXPECT_EQ(name.params[0], 0xFFFF);
    }
}

// Sinks at indices 1 and 3 of a map of 4095, the most the map holds; sink 3 speaks a protocol version
// too new for us, and the target name asks for its address.
TEST_F(FindOnLoopback, RecordsListOnlyTheMappedSinksOfAcceptedVersions) {
    auto sinkScript = [](FindPeer& peer, const Receive& request) {
        if (request.type() == MessageType::SYNCHRO_CHANNEL_REQ) peer.yes(request, 1, 2, 3, 4);
    };
    FindPeer sink(sinkScript), otherSink(sinkScript);
    FindPeer control([&](FindPeer& peer, const Receive& request) {
        if (request.type() == MessageType::SYNCNAME_SET) return peer.yes(request);
        if (request.type() == MessageType::TARGETNAME_REQ)
            return peer.reply(MessageType::TARGETNAME_ANS, flagYes, 0, 0, 0, 0,
                              "at [myaddress] and [myaddress]");
        if (request.type() != MessageType::PORT_REQ) return peer.echo(request);
        std::uint16_t index = request.param0();
        if (index != 0) {
            std::uint16_t port = index == 1 ? sink.address.port() : otherSink.address.port();
            return peer.reply(MessageType::PORT_ANS, flagYes, index, 0, port, index == 3 ? 2 : 1,
                              "out " + std::to_string(index));
        }
        SendBuffer list(MessageType::PORT_ANS, flagYes, 4095, 0, request.param2(), 1);
        list.setBodySize(1024);
        std::memset(list.body(), 0, 1024);
        list.body()[0] = 0b1010;
        peer.reply(list);
    });
    TargetMap targets{{control.address, {peerId, "studio"}}};
    TargetRecordMap records;
    find.settings.protocolVersion = 2;
    ASSERT_TRUE(find.readTargetRecords(targets, records));
    ASSERT_EQ(records.size(), 2u);
    const TargetRecord& first = records.at(sink.address);
    EXPECT_EQ(first.portIndex, 1);
    EXPECT_EQ(first.outputName, "out 1");
    EXPECT_EQ(first.productId, peerId);
    EXPECT_EQ(first.targetName, "at [::1] and [myaddress]");
    EXPECT_EQ(first.channelInfo[3], 4);
    EXPECT_TRUE(first.severalSinks);
    EXPECT_EQ(records.at(otherSink.address).portIndex, 3);
    for (const SeenRequest& request : control.requestsOf(MessageType::PORT_REQ))
        EXPECT_TRUE(request.params[0] == 0 || request.params[0] == 1 || request.params[0] == 3)
            << request.params[0];

    find.settings.protocolVersion = 1;
    ASSERT_TRUE(find.readTargetRecords(targets, records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_FALSE(records.begin()->second.severalSinks);
}

// A target listing every port there can be and then going silent costs a whole exchange per port:
// only the walk's own limit keeps both walks to seconds.
TEST_F(FindOnLoopback, AHugePortListFromATargetThatGoesSilentEndsInSeconds) {
    FindPeer lister([](FindPeer& peer, const Receive& request) {
        if (request.type() == MessageType::PORT_REQ && request.param0() == 0) peer.yes(request, 0xFFFF);
    });
    find.targetPort = lister.address.port();
    const auto began = std::chrono::steady_clock::now();
    TargetRecordMap records;
    EXPECT_TRUE(find.readTargetRecords({{lister.address, {peerId, "lister"}}}, records));
    EXPECT_TRUE(records.empty());
    IPAddress sink;
    TargetRecord record;
    EXPECT_TRUE(find.readFirstTarget(lister.address, sink, record));
    EXPECT_TRUE(sink.isAnyNoPort());
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(15));
}

TEST(FindOpen, InterfaceZeroIsEveryInterfaceAndOneWithoutAddressesFailsSilently) {
    Find find{FindSettings()};
    ASSERT_TRUE(find.open(std::uint16_t{0}));
    EXPECT_TRUE(find.localAddresses.empty());
    EXPECT_TRUE(find.socket->isOpen());
    find.close();
    LogCapture log;
    EXPECT_FALSE(find.open(std::uint16_t{65535}));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(find.socket->isOpen());
}

}  // namespace
