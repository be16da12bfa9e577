// Information, icons, settings, and refusals of a read-only target.
#include <gtest/gtest.h>

#include "TargetPeer.h"

using namespace VELMORA;

namespace {

// Stores settings and counts what reaches the program's hooks.
class WritableTarget : public Target {
  public:
    using Target::Target;
    std::uint16_t stored = 0;
    std::string storedText;
    int commits = 0, dataCalls = 0, checks = 0;

  protected:
    bool readSetting(std::uint16_t, std::string& text, std::uint16_t& value) override {
        text = storedText;
        value = stored;
        return true;
    }
    bool writeSetting(std::uint16_t, const std::string& text, std::uint16_t& value, bool reapply) override {
        if (!reapply) stored = value, storedText = text;
        return true;
    }
    bool commit(bool) override { return ++commits > 0; }
    void dataReceived(NORVA::BufferCS_const data, std::uint16_t slot, std::uint16_t packet,
                      std::uint16_t block) override {
        ++dataCalls;
        Target::dataReceived(data, slot, packet, block);
    }
    bool transferCheck(std::uint16_t slot, std::uint16_t& crc, std::uint16_t& state) override {
        ++checks;
        return Target::transferCheck(slot, crc, state);
    }
};

TargetConfig settingConfig() {
    TargetConfig config = testConfig();
    config.settings = {{1, "Volume", "", 0, 100, 40, {}},
                       {5, "Mode", "", 0, 0, 1, {"low", "high"}},
                       {4, "Label", "lab", 0, 0, 0, {}}};
    return config;
}

}  // namespace

// Information, icons and settings; the commit, last, ends the target's loop.
TEST(TargetControl, InformationIconsAndSettingsAreDescribedWrittenReadBackAndCommitted) {
    TargetConfig config = settingConfig();
    config.infoText = "first";
    config.infoList = {"a", "b"};
    config.identity = 0x0123456789ABCDEFull;
    config.icons[7].width = 3;
    for (std::uint32_t i = 0; i < 6; ++i) config.icons[7].pixels.push_back(0x11000000u * (i + 1) + i);
    config.icons[1].width = 4;
    config.icons[1].pixels.resize(5);
    OpenTarget<WritableTarget> open(config);
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    const std::uint16_t to = open.control();
    EXPECT_EQ(peer.body(peer.ask(MessageType::TARGETINFO_REQ, to, 0)), "first");
    Receive entry = peer.ask(MessageType::TARGETINFO_REQ, to, 1, 1);
    EXPECT_EQ(entry.flags(), flagYes);
    EXPECT_EQ(entry.param2(), 2);
    EXPECT_EQ(peer.body(entry), "b");
    EXPECT_EQ(peer.ask(MessageType::TARGETINFO_REQ, to, 1, 2).flags(), 0);
    // The identity shows as the CRC of its eight little-endian bytes.
    EXPECT_EQ(peer.body(peer.ask(MessageType::TARGETINFO_REQ, to, 6)), "65FF");
    EXPECT_EQ(peer.ask(MessageType::TARGETINFO_REQ, to, 9).flags(), 0);

    // Icon 8, the last, is 3 by 2; icon 2 isn't whole rows.
    Receive size = peer.ask(MessageType::ICON_REQ, to, 8);
    EXPECT_EQ(size.flags(), flagYes);
    EXPECT_EQ(size.param1(), 3);
    EXPECT_EQ(size.param2(), 2);
    // (x, y) and the count come one-based; a run crosses rows and is cut at the icon's end.
    const struct {
        std::uint16_t x, y, count, answered;
    } runs[] = {{2, 1, 0, 3}, {3, 1, 5, 5}, {3, 2, 50, 2}, {1, 3, 0, 0}};
    for (const auto& run : runs) {
        Receive pixels = peer.ask(MessageType::ICON_REQ, to, 8, run.x, run.y, run.count);
        EXPECT_EQ(pixels.param3(), run.answered) << run.x << "," << run.y;
        EXPECT_EQ(pixels.bodySize(), 4u * (run.answered - (run.answered != 0)));
    }
    EXPECT_EQ(peer.ask(MessageType::ICON_REQ, to, 8, 2, 1, 0).body()[3], 0x22);
    EXPECT_EQ(peer.ask(MessageType::ICON_REQ, to, 2).flags(), 0);
    EXPECT_EQ(peer.ask(MessageType::ICON_REQ, to, 9).flags(), 0);

    EXPECT_EQ(peer.ask(MessageType::SETTINGLIST_REQ, to, 0).param0(), 3);
    Receive mode = peer.ask(MessageType::SETTINGLIST_REQ, to, 2);
    EXPECT_EQ(mode.param1(), 5);
    EXPECT_EQ(mode.param3(), 1);  // limits from the choices
    EXPECT_EQ(peer.body(mode), "Mode");
    EXPECT_EQ(peer.ask(MessageType::SETTINGLIST_REQ, to, 4).flags(), 0);
    EXPECT_EQ(peer.body(peer.ask(MessageType::SETTINGVALUE_REQ, to, 2, 3, 1)), "high");

    Receive written = peer.ask(MessageType::SETTINGVALUE_REQ, to, 1, 1, 55);
    EXPECT_EQ(written.param1(), 55);
    EXPECT_EQ(written.param3(), 40);
    SendBuffer label(MessageType::SETTINGVALUE_REQ, 0, 3, 1, 0, 0);
    label.setBodyText("new label");
    EXPECT_EQ(peer.body(peer.ask(label, to)), "new label");
    // A choice written by index reaches the program as its text and reads back as its index.
    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, to, 2, 1, 1).flags(), flagYes);
    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, to, 2, 0).param1(), 1);

    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, to, 0, 1).flags(), flagYes) << "answered before ending";
    for (int i = 0; i < 200 && open.target.loopResult() == Target::loopRunning; ++i)
        NORVA::sleepMilliseconds(10);
    EXPECT_EQ(open.target.loopResult(), Target::loopEndedByMessage);
    EXPECT_EQ(open.target.exitCode(), 1);
}

// A read-only target refuses every change from the link, in the form a failed write takes, reaches
// no hook and keeps running; a writable one takes the same request.
TEST(TargetControl, ReadOnlyRefusesEveryChangeFromTheLinkAndKeepsRunning) {
    const struct {
        const char* name;
        std::uint16_t type, p0, p1, p2, p3;
        std::uint16_t answerType;
    } table[] = {
        {"setting write", MessageType::SETTINGVALUE_REQ, 1, 1, 55, 0, MessageType::SETTINGVALUE_ANS},
        {"commit", MessageType::SETTINGVALUE_REQ, 0, 1, 0, 0, MessageType::SETTINGVALUE_ANS},
        {"restart", MessageType::RESTART_REQ, 7, 0, 0, 0, MessageType::RESTART_ANS},
        {"restart asked", MessageType::RESTART_REQ, 0, 0, 0, 0, MessageType::RESTART_ANS},
        {"slot data", MessageType::TRANSFERDATA_SET, 0x8001, 0, 0, 0, MessageType::TRANSFERDATA_ANS},
        {"slot check", MessageType::TRANSFERCHECK_REQ, 1, 0, 0xFFFF, 0, MessageType::TRANSFERCHECK_ANS},
    };
    TargetConfig config = settingConfig();
    config.restartAllowed = true;
    config.slotCount = 1;
    config.slots[0] = 99;
    TargetPeer peer;
    for (const auto& row : table) {
        for (bool readOnly : {true, false}) {
            SCOPED_TRACE(std::string(row.name) + (readOnly ? ", read-only" : ", writable"));
            config.readOnly = readOnly;
            OpenTarget<WritableTarget> open(config);
            ASSERT_TRUE(open.opened);
            Receive answer = peer.ask(row.type, open.control(), row.p0, row.p1, row.p2, row.p3);
            EXPECT_EQ(answer.type(), row.answerType);
            EXPECT_EQ(answer.flags(), readOnly ? 0 : flagYes);
            if (!readOnly) continue;
            const WritableTarget& t = open.target;
            EXPECT_EQ(t.stored + t.commits + t.dataCalls + t.checks, 0) << "a hook was reached";
            EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 1, 0).flags(), flagYes);
            EXPECT_EQ(t.loopResult(), Target::loopRunning);
        }
    }
}
