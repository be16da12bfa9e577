#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>

#include <cstring>

#include "FindPeer.h"
#include "LogCapture.h"

namespace {

using NORVA::IPAddress;
using VELMORA::Find;
using VELMORA::Receive;
namespace MessageType = VELMORA::MessageType;

constexpr std::uint64_t peerId = 0x1122334455667788ull;

class FindOnLoopback : public ::testing::Test {
  protected:
    Find find{loopbackSettings()};

    void SetUp() override { ASSERT_TRUE(find.open()); }
    void aimAt(const FindPeer& peer) { find.targetPort = peer.address.port(); }
};

// Answers discovery with `flags`, and the name announcement with a yes.
FindPeer::Script discoveryScript(std::uint16_t flags) {
    return [flags](FindPeer& peer, const Receive& request) {
        if (request.type() == MessageType::DISCOVER) {
            VELMORA::SendBuffer answer(MessageType::DISCOVER_ANS, flags, peerId);
            answer.setBodyText("studio target");
            peer.reply(answer);
        } else if (request.type() == MessageType::SYNCNAME_SET) {
            peer.yes(request);
        }
    };
}

TEST_F(FindOnLoopback, SearchFindsATargetOnThisMachineAndTellsItOurName) {
    FindPeer peer(discoveryScript(VELMORA::flagYes));
    aimAt(peer);
    VELMORA::TargetMap targets;
    ASSERT_TRUE(find.searchTargets(targets));
    ASSERT_EQ(targets.size(), 1u);
    EXPECT_EQ(targets.begin()->first, peer.address);
    EXPECT_EQ(targets.begin()->second.productId, peerId);
    EXPECT_EQ(targets.begin()->second.name, "studio target");
    // Three rounds, then the one announcement with our ProductID and name.
    EXPECT_EQ(peer.requestsOf(MessageType::DISCOVER).size(), 3u);
    auto names = peer.requestsOf(MessageType::SYNCNAME_SET);
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].params[0], 0xFFFF);
}

TEST_F(FindOnLoopback, ARefusedProductIsHeardButNotListed) {
    find.settings.filterId = 42;
    FindPeer peer(discoveryScript(VELMORA::flagYes));
    aimAt(peer);
    VELMORA::TargetMap targets;
    ASSERT_TRUE(find.searchTargets(targets));
    EXPECT_TRUE(targets.empty());
    EXPECT_EQ(peer.requestsOf(MessageType::SYNCNAME_SET).size(), 1u);
}

TEST_F(FindOnLoopback, AnAnswerWithoutYesIsNoTarget) {
    FindPeer peer(discoveryScript(0));
    aimAt(peer);
    VELMORA::TargetMap targets;
    ASSERT_TRUE(find.searchTargets(targets));
    EXPECT_TRUE(targets.empty());
}

TEST(FindFilter, AcceptsTheFilterFurtherIdsAndIdZeroOnly) {
    VELMORA::FindSettings settings;
    settings.filterId = 7;
    settings.furtherIds = {9};
    Find find(settings);
    EXPECT_EQ(find.acceptTarget(7), 7u);
    EXPECT_EQ(find.acceptTarget(9), 9u);
    EXPECT_EQ(find.acceptTarget(0), 0u);
    EXPECT_EQ(find.acceptTarget(8), VELMORA::noProductId);
    find.settings.filterId = VELMORA::anyProductId;
    EXPECT_EQ(find.acceptTarget(8), 8u);
}

// A target with sinks at indices 1 to 3 of which the map lists 1 and 3,
// sink 3 speaking a protocol version too new for us, and a target name that
// asks for its address.
class SinkTarget {
  public:
    FindPeer sink{sinkScript()};
    FindPeer otherSink{sinkScript()};
    // Set by the test while the control peer runs.
    std::atomic<std::uint16_t> portClass{0};
    FindPeer control{[this](FindPeer& peer, const Receive& request) { answer(peer, request); }};

  private:
    static FindPeer::Script sinkScript() {
        return [](FindPeer& peer, const Receive& request) {
            if (request.type() == MessageType::SYNCHRO_CHANNEL_REQ) peer.yes(request, 1, 2, 3, 4);
        };
    }
    void answer(FindPeer& peer, const Receive& request) {
        switch (request.type()) {
            case MessageType::SYNCNAME_SET:
                peer.yes(request);
                return;
            case MessageType::TARGETNAME_REQ:
                peer.replyText(MessageType::TARGETNAME_ANS, VELMORA::flagYes,
                               "at [myaddress] and [myaddress]");
                return;
            case MessageType::PORT_REQ:
                if (request.param0() == 0) {
                    answerList(peer, request);
                } else {
                    answerPort(peer, request);
                }
                return;
        }
        peer.echo(request);
    }
    void answerList(FindPeer& peer, const Receive& request) {
        // A target with classes first names its default class, then lists class 1.
        std::uint16_t answeredClass = request.param2() == 0 ? portClass.load() : request.param2();
        VELMORA::SendBuffer list(MessageType::PORT_ANS, VELMORA::flagYes, 3, 0, answeredClass, 1);
        list.setBodySize(1024);
        std::memset(list.body(), 0, 1024);
        list.body()[0] = 0b1010;
        peer.reply(list);
    }
    void answerPort(FindPeer& peer, const Receive& request) {
        std::uint16_t index = request.param0();
        std::uint16_t version = index == 3 ? 2 : 1;
        std::uint16_t port = index == 1 ? sink.address.port() : otherSink.address.port();
        peer.replyText(MessageType::PORT_ANS, VELMORA::flagYes, "out " + std::to_string(index), index, 0,
                       port, version);
    }
};

TEST_F(FindOnLoopback, RecordsListTheMappedSinksOfAcceptedVersions) {
    SinkTarget target;
    VELMORA::TargetMap targets{{target.control.address, {peerId, "studio"}}};
    VELMORA::TargetRecordMap records;
    find.settings.protocolVersion = 2;
    ASSERT_TRUE(find.readTargetRecords(targets, records));
    ASSERT_EQ(records.size(), 2u);
    const VELMORA::TargetRecord& first = records.at(target.sink.address);
    EXPECT_EQ(first.portIndex, 1);
    EXPECT_EQ(first.outputName, "out 1");
    EXPECT_EQ(first.name, "studio");
    EXPECT_EQ(first.productId, peerId);
    EXPECT_EQ(first.targetName, "at [::1] and [myaddress]");
    EXPECT_EQ(first.channelInfo[0], 1);
    EXPECT_EQ(first.channelInfo[3], 4);
    EXPECT_TRUE(first.severalSinks);
    EXPECT_EQ(records.at(target.otherSink.address).portIndex, 3);

    // Index 2 isn't in the map and is never asked for.
    for (const SeenRequest& request : target.control.requestsOf(MessageType::PORT_REQ)) {
        EXPECT_NE(request.params[0], 2);
    }

    find.settings.protocolVersion = 1;
    ASSERT_TRUE(find.readTargetRecords(targets, records));
    ASSERT_EQ(records.size(), 1u);
    EXPECT_FALSE(records.begin()->second.severalSinks);
}

TEST_F(FindOnLoopback, ATargetWithPortClassesIsAskedForClassOne) {
    SinkTarget target;
    target.portClass = 4;
    std::uint16_t count = 0;
    std::uint16_t second = 0;
    std::uint8_t map[512];
    ASSERT_TRUE(find.readPortList(target.control.address, count, second, map));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(map[0], 0b1010);
    auto lists = target.control.requestsOf(MessageType::PORT_REQ);
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_EQ(lists[1].params[2], 1);
}

// Silence and refusal give empty results: nothing hangs, nothing fails.
TEST_F(FindOnLoopback, ASilentTargetGivesEmptyResults) {
    FindPeer silent([](FindPeer&, const Receive&) {});
    VELMORA::TargetMap targets{{silent.address, {peerId, "gone"}}};
    VELMORA::TargetRecordMap records;
    EXPECT_TRUE(find.readTargetRecords(targets, records));
    EXPECT_TRUE(records.empty());
    EXPECT_FALSE(find.isAlive(silent.address));
    std::uint64_t id = 0;
    std::string name;
    EXPECT_TRUE(find.probeTarget(silent.address, id, name));
    EXPECT_EQ(id, VELMORA::noProductId);
}

// A target that lists every port there can be and then goes silent: each
// port costs a whole exchange's tries, so only the walk's own limit keeps
// init from waiting an hour. Both walks must end in seconds.
TEST_F(FindOnLoopback, AHugePortListFromATargetThatGoesSilentEndsInSeconds) {
    FindPeer lister([](FindPeer& peer, const Receive& request) {
        if (request.type() == MessageType::PORT_REQ && request.param0() == 0) peer.yes(request, 0xFFFF);
    });
    aimAt(lister);
    VELMORA::TargetMap targets{{lister.address, {peerId, "lister"}}};
    const struct {
        const char* name;
        std::function<void()> walk;
    } walks[] = {
        {"records",
         [&] {
             VELMORA::TargetRecordMap records;
             EXPECT_TRUE(find.readTargetRecords(targets, records));
         }},
        {"first target",
         [&] {
             IPAddress sink;
             VELMORA::TargetRecord record;
             EXPECT_TRUE(find.readFirstTarget(lister.address, sink, record));
             EXPECT_TRUE(sink.isAnyNoPort());
         }},
    };
    for (const auto& row : walks) {
        SCOPED_TRACE(row.name);
        const auto began = std::chrono::steady_clock::now();
        row.walk();
        EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(10));
    }
}

TEST_F(FindOnLoopback, ReadTargetAsksTheControlPortOfAKnownAddress) {
    SinkTarget target;
    aimAt(target.control);
    IPAddress sinkAddress;
    VELMORA::TargetRecord record;
    record.outputName = "kept";
    ASSERT_TRUE(find.readTarget(IPAddress::loopback(1), 1, sinkAddress, record));
    EXPECT_EQ(sinkAddress, target.sink.address);
    EXPECT_EQ(record.targetAddress, target.control.address);
    EXPECT_EQ(record.outputName, "kept");
    EXPECT_EQ(record.targetName, "at [::1] and [myaddress]");

    Find withoutLoopback{VELMORA::FindSettings()};
    ASSERT_TRUE(withoutLoopback.open());
    withoutLoopback.targetPort = target.control.address.port();
    ASSERT_TRUE(withoutLoopback.readTarget(IPAddress::loopback(1), 1, sinkAddress, record));
    EXPECT_TRUE(sinkAddress.isAnyNoPort());
}

TEST(FindOpen, AnUnknownInterfaceNameFailsTheOpen) {
    LogCapture log;
    Find find{VELMORA::FindSettings()};
    EXPECT_FALSE(find.open(std::vector<std::string>{"no-such-interface-here"}));
    EXPECT_TRUE(log.has("not much interface no-such-interface-here"));
}

TEST(FindOpen, AddressesWithoutScopeAreDroppedAndReopeningKeepsTheFirst) {
    Find find{VELMORA::FindSettings()};
    IPAddress scoped;
    ASSERT_TRUE(scoped.parseV6("fe80::1"));
    scoped.setScope(5);
    IPAddress unscoped = IPAddress::loopback(0);
    ASSERT_TRUE(find.open(std::vector<IPAddress>{scoped, unscoped}));
    ASSERT_EQ(find.localAddresses.size(), 1u);
    scoped.setScope(6);
    ASSERT_TRUE(find.open(scoped));
    ASSERT_EQ(find.localAddresses.size(), 2u);
    EXPECT_EQ(find.localAddresses[1].address.scope(), 6u);
    EXPECT_TRUE(find.socket->isOpen());
}

// Interface 0 is no restriction: nothing is enumerated. An interface with no
// address fails quietly, before anything is opened or logged.
TEST(FindOpen, InterfaceZeroIsEveryInterfaceAndOneWithoutAddressesFailsSilently) {
    Find find{VELMORA::FindSettings()};
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
