#include <gtest/gtest.h>

#include <algorithm>

#include "FindPeer.h"
#include "LogCapture.h"

namespace {

using namespace VELMORA;

using FindControl = FindOnLoopback;

// A text, a signed number, a switch without texts, and a list kept as text whose value lies beyond it.
TEST_F(FindControl, SettingsAreReadWithTheirKindsLimitsAndChoices) {
    struct WireSetting {
        std::uint16_t wireKind;
        const char* name;
        std::uint16_t minimum, maximum, value;
        const char* text;
        std::vector<std::string> choices;
    };
    static const std::vector<WireSetting> rows{
        {4, "Name", 0, 0, 0, "Living room", {}},
        {2, "Trim", 0xFFF6, 10, 0xFFFE, "", {}},
        {3, "Dither", 0, 0, 1, "", {"", ""}},
        {6, "Filter", 0, 1, 5, "", {"sharp", "slow"}},
    };
    FindPeer peer([](FindPeer& self, const Receive& request) {
        std::uint16_t number = request.param0();
        if (request.type() == MessageType::SETTINGLIST_REQ) {
            if (number == 0) return self.yes(request, static_cast<std::uint16_t>(rows.size()));
            const WireSetting& row = rows.at(number - 1u);
            return self.reply(MessageType::SETTINGLIST_ANS, flagYes, number, row.wireKind, row.minimum,
                              row.maximum, row.name);
        }
        if (request.type() != MessageType::SETTINGVALUE_REQ || number == 0) return self.echo(request);
        const WireSetting& row = rows.at(number - 1u);
        self.reply(MessageType::SETTINGVALUE_ANS, flagYes, number, row.value, 0, row.value,
                   request.param1() == 3 ? row.choices.at(request.param2()) : row.text);
    });
    std::vector<TargetSetting> list;
    ASSERT_TRUE(find.readSettings(SettingTable::first, peer.address, list, false));
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
    EXPECT_FALSE(find.readSettings(SettingTable::second, peer.address, list, false)) << "not served";
    EXPECT_TRUE(list.empty());
}

// The size answer decides what is allocated: a target can't make us ask for gigabytes.
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
        TargetIcon icon;
        ASSERT_TRUE(find.readIcon(peer.address, 1, icon, 20));
        auto asked = peer.requestsOf(MessageType::ICON_REQ);
        EXPECT_EQ(
            std::any_of(asked.begin(), asked.end(), [](const SeenRequest& r) { return r.params[1] != 0; }),
            c.read);
        EXPECT_EQ(log.hasPrefix("Find icon 1 too large"), !c.read);
    }
}

}  // namespace
