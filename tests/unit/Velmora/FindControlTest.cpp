#include <gtest/gtest.h>

#include <cstring>

#include "FindPeer.h"
#include "LogCapture.h"

namespace {

using NORVA::IPAddress;
using VELMORA::Find;
using VELMORA::Receive;
namespace SettingKind = VELMORA::SettingKind;
namespace MessageType = VELMORA::MessageType;

class FindControl : public ::testing::Test {
  protected:
    Find find{loopbackSettings()};
    void SetUp() override { ASSERT_TRUE(find.open()); }
};

// ---- status and chains ----------------------------------------------------------

IPAddress hostAddress(std::uint8_t last, std::uint32_t scope, std::uint16_t port) {
    IPAddress address;
    address.address[0] = 0xfe;
    address.address[1] = 0x80;
    address.address[15] = last;
    address.setScope(scope);
    address.setPort(port);
    return address;
}

VELMORA::TargetStatus statusOf(std::uint16_t index, std::uint16_t kind, const IPAddress& peer) {
    VELMORA::TargetStatus status;
    status.index = index;
    status.kind = kind;
    status.peer = peer;
    return status;
}

// Target 1 plays local port 500 through sink entry 1; entry 2 of target 2
// feeds it, and entries 3 and 4 of target 3 both feed target 2's entry.
TEST(TraceChain, FollowsFeedersBehindTheLinksTheyFeed) {
    IPAddress target1 = hostAddress(1, 3, 0);
    VELMORA::TargetStatusMap statuses;
    statuses[hostAddress(1, 3, 600)] = statusOf(1, 1, IPAddress::loopback(500));
    statuses[hostAddress(2, 3, 601)] = statusOf(2, 0, hostAddress(1, 3, 1));
    statuses[hostAddress(3, 3, 602)] = statusOf(3, 0, hostAddress(2, 3, 2));
    statuses[hostAddress(3, 3, 603)] = statusOf(4, 0, hostAddress(2, 3, 2));
    // On another link: never part of this chain.
    statuses[hostAddress(4, 9, 604)] = statusOf(5, 0, hostAddress(1, 3, 1));

    std::vector<VELMORA::StatusLink> chain;
    Find::traceChain(500, true, target1, statuses, chain);
    ASSERT_EQ(chain.size(), 4u);
    EXPECT_EQ(chain[0].index, 1);
    EXPECT_TRUE(chain[0].origin);
    EXPECT_FALSE(chain[0].last);
    EXPECT_EQ(chain[1].index, 2);
    EXPECT_FALSE(chain[1].last);
    // Both feeders of entry 2 follow it, each inserted right behind it.
    EXPECT_EQ(chain[2].index, 4);
    EXPECT_EQ(chain[3].index, 3);
    EXPECT_TRUE(chain[2].last);
    EXPECT_TRUE(chain[3].last);
    EXPECT_FALSE(chain[3].origin);

    Find::traceChain(501, true, target1, statuses, chain);
    EXPECT_TRUE(chain.empty());
    Find::traceChain(500, false, target1, statuses, chain);
    EXPECT_TRUE(chain.empty());
}

TEST_F(FindControl, StatusEntriesCarryTheirPeerAndText) {
    FindPeer peer([](FindPeer& self, const Receive& request) {
        if (request.type() == MessageType::SYNCNAME_SET) return self.yes(request);
        if (request.type() != MessageType::STATUS_REQ) return self.echo(request);
        if (request.param0() == 0) return self.yes(request, 2, 0, 0, 1);
        if (request.param0() == 2) return self.reply(MessageType::STATUS_ANS, 0, 2, 0, 0, 1);
        VELMORA::SendBuffer entry(MessageType::STATUS_ANS, VELMORA::flagYes, 1, 1, 4000, 1);
        entry.setAddressBody(IPAddress::loopback(77), "playing");
        self.reply(entry);
    });
    VELMORA::TargetMap targets{{peer.address, {5, "t"}}};
    VELMORA::TargetStatusMap statuses;
    ASSERT_TRUE(find.readStatus(targets, statuses));
    ASSERT_EQ(statuses.size(), 1u);
    IPAddress key = peer.address;
    key.setPort(4000);
    const VELMORA::TargetStatus& status = statuses.at(key);
    EXPECT_EQ(status.statusText, "playing");
    EXPECT_EQ(status.peer.port(), 77);
    EXPECT_TRUE(status.peer.isLoopback());
    EXPECT_EQ(status.kind, 1);
    EXPECT_EQ(status.productId, 5u);
}

// ---- texts and information ------------------------------------------------------

TEST_F(FindControl, TextsAndInformationListsOrNothingWhenRefused) {
    FindPeer peer([](FindPeer& self, const Receive& request) {
        if (request.type() == MessageType::TARGETTEXT1_REQ) {
            return self.replyText(MessageType::TARGETTEXT1_ANS, VELMORA::flagYes, "hello");
        }
        if (request.type() == MessageType::TARGETTEXT2_REQ) {
            return self.replyText(MessageType::TARGETTEXT2_ANS, 0, "not shown");
        }
        if (request.type() != MessageType::TARGETINFO_REQ || request.param0() != 1) return self.echo(request);
        std::uint16_t index = request.param1();
        if (index >= 3) return self.reply(MessageType::TARGETINFO_ANS, 0, 0, 0, 3);
        self.replyText(MessageType::TARGETINFO_ANS, VELMORA::flagYes, "line " + std::to_string(index), 0, 0,
                       3);
    });
    std::string text;
    ASSERT_TRUE(find.readText1(peer.address, text));
    EXPECT_EQ(text, "hello");
    ASSERT_TRUE(find.readText2(peer.address, text));
    EXPECT_EQ(text, "");
    std::vector<std::string> list;
    ASSERT_TRUE(find.readInfoList(peer.address, 1, list));
    EXPECT_EQ(list, (std::vector<std::string>{"line 0", "line 1", "line 2"}));
    ASSERT_TRUE(find.readInfoList(peer.address, 5, list));
    EXPECT_TRUE(list.empty());
    EXPECT_FALSE(find.restartTarget(peer.address, true, 3));
}

// ---- settings -------------------------------------------------------------------

struct WireSetting {
    std::uint16_t wireKind;
    const char* name;
    std::uint16_t limits[2];
    std::uint16_t value;
    const char* text;
    std::vector<std::string> choices;
};

// A text, a signed number, a switch without texts, and a list kept as text
// whose held value lies beyond its list.
const std::vector<WireSetting> wireSettings{
    {4, "Name", {0, 0}, 0, "Living room", {}},
    {2, "Trim", {0xFFF6, 10}, 0xFFFE, "", {}},
    {3, "Dither", {0, 0}, 1, "", {"", ""}},
    {6, "Filter", {0, 1}, 5, "", {"sharp", "slow"}},
};

FindPeer::Script settingsScript() {
    return [](FindPeer& self, const Receive& request) {
        std::uint16_t number = request.param0();
        if (request.type() == MessageType::SETTINGLIST_REQ) {
            if (number == 0) return self.yes(request, static_cast<std::uint16_t>(wireSettings.size()));
            const WireSetting& row = wireSettings.at(number - 1u);
            return self.replyText(MessageType::SETTINGLIST_ANS, VELMORA::flagYes, row.name, number,
                                  row.wireKind, row.limits[0], row.limits[1]);
        }
        if (request.type() != MessageType::SETTINGVALUE_REQ || number == 0) return self.echo(request);
        const WireSetting& row = wireSettings.at(number - 1u);
        std::string text = request.param1() == 3 ? row.choices.at(request.param2()) : row.text;
        self.replyText(MessageType::SETTINGVALUE_ANS, VELMORA::flagYes, text, number, row.value, 0,
                       row.value);
    };
}

TEST_F(FindControl, SettingsAreReadWithTheirKindsLimitsAndChoices) {
    FindPeer peer(settingsScript());
    std::vector<VELMORA::TargetSetting> list;
    ASSERT_TRUE(find.readSettings(VELMORA::SettingTable::first, peer.address, list, false));
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0].kind, SettingKind::text);
    EXPECT_EQ(list[0].text, "Living room");
    EXPECT_EQ(list[1].kind, SettingKind::number);
    EXPECT_EQ(list[1].minimum, -10);
    EXPECT_EQ(list[1].value, -2);
    EXPECT_EQ(list[2].kind, SettingKind::onOff);
    EXPECT_EQ(list[2].choices, (std::vector<std::string>{"disable", "enable"}));
    EXPECT_EQ(list[3].kind, SettingKind::textChoice);
    EXPECT_EQ(list[3].choices, (std::vector<std::string>{"sharp", "slow"}));
    EXPECT_EQ(list[3].text, "unknown");

    // The second table isn't served: refused at once.
    EXPECT_FALSE(find.readSettings(VELMORA::SettingTable::second, peer.address, list, false));
    EXPECT_TRUE(list.empty());
}

TEST_F(FindControl, AnAnswerForAnotherSettingEndsTheRead) {
    FindPeer peer([](FindPeer& self, const Receive& request) {
        if (request.param0() == 0) return self.yes(request, 2);
        self.replyText(MessageType::SETTINGLIST_ANS, VELMORA::flagYes, "x", 9, 4);
    });
    std::vector<VELMORA::TargetSetting> list;
    EXPECT_FALSE(find.readSettings(VELMORA::SettingTable::first, peer.address, list, false));
}

// ---- icons ----------------------------------------------------------------------

// Icon 1 is 20 by 20 32-bit pixels, each its own index; icon 2 doesn't exist.
FindPeer::Script iconScript() {
    return [](FindPeer& self, const Receive& request) {
        if (request.type() != MessageType::ICON_REQ) return self.echo(request);
        if (request.param0() != 1) return self.reply(MessageType::ICON_ANS, 0);
        if (request.param1() == 0) return self.yes(request, 1, 20, 20, 1);
        std::uint32_t at = (request.param2() - 1u) * 20 + request.param1() - 1u;
        std::uint32_t count = std::min<std::uint32_t>(request.param3() - 1u, 400 - at);
        VELMORA::SendBuffer pixels(MessageType::ICON_ANS, VELMORA::flagYes, 1, 0, 0,
                                   static_cast<std::uint16_t>(count + 1));
        pixels.setBodySize(static_cast<std::uint16_t>(4 * count));
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t value = at + i;
            std::memcpy(pixels.body() + 4 * i, &value, 4);
        }
        self.reply(pixels);
    };
}

TEST_F(FindControl, AMissingIconFallsBackAndNarrowRowsComeSeveralAtOnce) {
    FindPeer peer(iconScript());
    VELMORA::TargetIcon icon;
    ASSERT_TRUE(find.readIcon(peer.address, 2, icon, 20));
    ASSERT_EQ(icon.width, 20);
    ASSERT_EQ(icon.pixels.size(), 400u);
    for (std::uint32_t i = 0; i < 400; ++i) ASSERT_EQ(icon.pixels[i], i);
    // 80-byte rows: 15 rows in the first request, the last 5 in the second.
    std::vector<std::uint16_t> asked;
    for (const SeenRequest& request : peer.requestsOf(MessageType::ICON_REQ)) {
        if (request.params[1] != 0) asked.push_back(request.params[3]);
    }
    EXPECT_EQ(asked, (std::vector<std::uint16_t>{301, 101}));

    ASSERT_TRUE(find.readIcon(peer.address, 1u << 16 | 1, icon, 20));
    EXPECT_TRUE(icon.pixels.empty());
}

// The size answer decides what is allocated: a target can't make us ask for
// gigabytes. Pixel requests are refused here, so that only the size counts.
TEST_F(FindControl, AnIconBeyondAMegapixelIsRefusedBeforeItsPixels) {
    struct Case {
        std::uint16_t width, height;
        bool read;
    };
    for (Case c : {Case{1024, 1024, true}, Case{1025, 1024, false}, Case{65535, 65535, false}}) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        LogCapture log;
        FindPeer peer([c](FindPeer& self, const Receive& request) {
            if (request.param1() == 0) return self.yes(request, 1, c.width, c.height, 1);
            self.reply(MessageType::ICON_ANS, 0);
        });
        VELMORA::TargetIcon icon;
        ASSERT_TRUE(find.readIcon(peer.address, 1, icon, 20));
        EXPECT_TRUE(icon.pixels.empty());
        std::size_t pixelRequests = 0;
        for (const SeenRequest& request : peer.requestsOf(MessageType::ICON_REQ)) {
            if (request.params[1] != 0) ++pixelRequests;
        }
        EXPECT_EQ(pixelRequests != 0, c.read);
        EXPECT_EQ(log.hasPrefix("Find icon 1 too large"), !c.read);
    }
}

}  // namespace
