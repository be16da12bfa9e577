// Information, settings, slots, clocks and the ends of the loop.
#include <gtest/gtest.h>

#include <cstring>

#include "Protocol/Crc16.h"
#include "TargetPeer.h"

using namespace VELMORA;

TEST(TargetControl, InformationSelectors) {
    TargetConfig config = testConfig();
    config.infoText = "first";
    config.infoList = {"a", "b"};
    config.identity = 0x0123456789ABCDEFull;
    OpenTarget<> open(config);
    ASSERT_TRUE(open.opened);
    TargetPeer peer;

    EXPECT_EQ(peer.body(peer.ask(MessageType::TARGETINFO_REQ, open.control(), 0)), "first");
    Receive entry = peer.ask(MessageType::TARGETINFO_REQ, open.control(), 1, 1);
    EXPECT_EQ(entry.flags(), flagYes);
    EXPECT_EQ(entry.param2(), 2);
    EXPECT_EQ(peer.body(entry), "b");
    Receive beyond = peer.ask(MessageType::TARGETINFO_REQ, open.control(), 1, 2);
    EXPECT_EQ(beyond.flags(), 0);
    EXPECT_EQ(beyond.param2(), 2);

    std::uint8_t identity[8];
    for (int i = 0; i < 8; ++i) identity[i] = static_cast<std::uint8_t>(config.identity >> (8 * i));
    char expected[8];
    std::snprintf(expected, sizeof expected, "%04X", unsigned(crc16(identity, 8)));
    EXPECT_EQ(peer.body(peer.ask(MessageType::TARGETINFO_REQ, open.control(), 6)), expected);

    Receive clock = peer.ask(MessageType::TARGETINFO_REQ, open.control(), 2);
    ASSERT_EQ(clock.bodySize(), 8u);
    EXPECT_EQ(readU16(clock.body()), 0);
    Receive unknown = peer.ask(MessageType::TARGETINFO_REQ, open.control(), 9);
    EXPECT_EQ(unknown.flags(), 0);
    EXPECT_EQ(unknown.param0(), 9);
}

TEST(TargetControl, IdentityZeroIsInvalidAndOnlyLocalProgramsReadIt) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    EXPECT_EQ(peer.body(peer.ask(MessageType::TARGETINFO_REQ, open.control(), 6)), "Invalid");
    Receive id = peer.ask(MessageType::TARGETID_REQ, open.control());
    EXPECT_EQ(id.type(), MessageType::TARGETID_ANS);
}

TEST(TargetControl, StatusEntriesFromRegistration) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    NORVA::IPAddress far;
    far.parseV6("fe80::7");
    far.setPort(3);
    SendBuffer registration(MessageType::STATUS_REGIST, 0x0002, 2, 1, 0, 5);
    registration.setAddressBody(far, "playing");
    peer.send(registration, open.registration());

    Receive count;
    for (int i = 0; i < 100 && count.param0() != 2; ++i)
        count = peer.ask(MessageType::STATUS_REQ, open.control(), 0, 0, 0, 1);
    ASSERT_EQ(count.param0(), 2);
    Receive entry = peer.ask(MessageType::STATUS_REQ, open.control(), 2, 0, 0, 1);
    EXPECT_EQ(entry.flags(), flagYes);
    EXPECT_EQ(entry.param1(), 1);
    EXPECT_EQ(entry.param2(), peer.port);
    EXPECT_EQ(entry.param3(), 5);
    NORVA::IPAddress reported;
    std::string text;
    entry.bodyAddressAndText(reported, text);
    EXPECT_EQ(reported, far);
    EXPECT_EQ(text, "playing");
    Receive none = peer.ask(MessageType::STATUS_REQ, open.control(), 1, 0, 0, 1);
    EXPECT_EQ(none.flags(), 0);
    EXPECT_EQ(none.param3(), 1);
}

TEST(TargetControl, IconSizeAndPixels) {
    TargetConfig config = testConfig();
    config.icons[0].width = 3;
    for (std::uint32_t i = 0; i < 6; ++i) config.icons[0].pixels.push_back(0x11000000u * (i + 1) + i);
    config.icons[1].width = 4;
    config.icons[1].pixels.resize(5);  // not whole rows
    OpenTarget<> open(config);
    ASSERT_TRUE(open.opened);
    TargetPeer peer;

    Receive size = peer.ask(MessageType::ICON_REQ, open.control(), 1);
    EXPECT_EQ(size.flags(), flagYes);
    EXPECT_EQ(size.param1(), 3);
    EXPECT_EQ(size.param2(), 2);
    EXPECT_EQ(size.param3(), 1);

    // From (1, 0) to the end of the row.
    Receive row = peer.ask(MessageType::ICON_REQ, open.control(), 1, 2, 1, 0);
    ASSERT_EQ(row.param3(), 3);
    ASSERT_EQ(row.bodySize(), 8u);
    EXPECT_EQ(row.body()[0], 1);
    EXPECT_EQ(row.body()[3], 0x22);
    // Four pixels wanted from (2, 0): across the row's end, cut at the icon's end.
    Receive run = peer.ask(MessageType::ICON_REQ, open.control(), 1, 3, 1, 5);
    EXPECT_EQ(run.param3(), 5);
    EXPECT_EQ(run.bodySize(), 16u);
    Receive cut = peer.ask(MessageType::ICON_REQ, open.control(), 1, 3, 2, 50);
    EXPECT_EQ(cut.param3(), 2);
    Receive outside = peer.ask(MessageType::ICON_REQ, open.control(), 1, 1, 3, 0);
    EXPECT_EQ(outside.flags(), flagYes);
    EXPECT_EQ(outside.param3(), 0);

    EXPECT_EQ(peer.ask(MessageType::ICON_REQ, open.control(), 2).flags(), 0);
    EXPECT_EQ(peer.ask(MessageType::ICON_REQ, open.control(), 9).flags(), 0);
    EXPECT_EQ(peer.ask(MessageType::ICON1_REQ, open.control(), 1).type(), MessageType::ICON1_REQ);
}

TEST(TargetControl, MtuTestReportsSizeAndSumOfWhatArrived) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    // 1403 bytes: not a multiple of 8, the length field rounded down.
    std::vector<std::uint8_t> probe(1403);
    for (std::size_t i = 0; i < probe.size(); ++i) probe[i] = static_cast<std::uint8_t>(i * 7);
    FrameHeader header;
    header.set(MessageType::MTUTEST_REQ, 0, 0, 9, 0, 0);
    header.setLength(static_cast<std::uint16_t>(probe.size() & 0xFFF8));
    std::memcpy(probe.data(), header.bytes, headerSize);
    std::uint16_t sum = 0;
    for (std::size_t i = headerSize; i < probe.size(); ++i) sum = static_cast<std::uint16_t>(sum + probe[i]);
    peer.sendBytes(probe.data(), probe.size(), open.control());
    Receive answer;
    ASSERT_TRUE(peer.receive(answer));
    EXPECT_EQ(answer.type(), MessageType::MTUTEST_ANS);
    EXPECT_EQ(answer.param1(), 9);
    EXPECT_EQ(answer.param3(), sum);
    ASSERT_EQ(answer.bodySize(), 4u);
    EXPECT_EQ(readU16(answer.body()), 1403);

    // The other form sends the datagram back whole.
    writeU16(probe.data() + FrameHeader::paramsAt, 1);
    peer.sendBytes(probe.data(), probe.size(), open.control());
    ASSERT_TRUE(peer.receive(answer));
    EXPECT_EQ(answer.type(), MessageType::MTUTEST_ANS);
    ASSERT_EQ(answer.size, 1403u);
    EXPECT_EQ(0,
              std::memcmp(answer.frame + headerSize, probe.data() + headerSize, probe.size() - headerSize));
}

namespace {

class SettingTarget : public Target {
  public:
    using Target::Target;
    std::uint16_t stored = 0;
    std::string storedText;
    int commits = 0;

  protected:
    bool readSetting(std::uint16_t, std::string& text, std::uint16_t& value) override {
        text = storedText;
        value = stored;
        return true;
    }
    bool writeSetting(std::uint16_t, const std::string& text, std::uint16_t& value, bool reapply) override {
        if (!reapply) {
            stored = value;
            storedText = text;
        }
        return true;
    }
    bool commit(bool) override { return ++commits > 0; }
};

TargetConfig settingConfig() {
    TargetConfig config = testConfig();
    config.settings.push_back(TargetSettingRow{1, "Volume", "", 0, 100, 40, {}});
    config.settings.push_back(TargetSettingRow{5, "Mode", "", 0, 0, 1, {"low", "high"}});
    config.settings.push_back(TargetSettingRow{4, "Label", "lab", 0, 0, 0, {}});
    return config;
}

}  // namespace

TEST(TargetControl, SettingDescriptionsAndChoices) {
    OpenTarget<> open(settingConfig());
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    EXPECT_EQ(peer.ask(MessageType::SETTINGLIST_REQ, open.control(), 0).param0(), 3);
    Receive mode = peer.ask(MessageType::SETTINGLIST_REQ, open.control(), 2);
    EXPECT_EQ(mode.param1(), 5);
    EXPECT_EQ(mode.param3(), 1);  // limits from the choices
    EXPECT_EQ(peer.body(mode), "Mode");
    EXPECT_EQ(peer.ask(MessageType::SETTINGLIST_REQ, open.control(), 4).flags(), 0);

    EXPECT_EQ(peer.body(peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 2, 3, 1)), "high");
    EXPECT_EQ(peer.body(peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 2, 3, 5)), "unknown");
    // The plain target reads the row, and can't write.
    Receive read = peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 1, 0);
    EXPECT_EQ(read.flags(), flagYes);
    EXPECT_EQ(read.param1(), 40);
    EXPECT_EQ(read.param3(), 40);
    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 1, 1, 50).flags(), 0);
    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE2_REQ, open.control(), 1).type(),
              MessageType::SETTINGVALUE2_REQ);
    // A commit that the plain target refuses leaves the loop running.
    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 0, 1).flags(), 0);
    EXPECT_EQ(open.target.loopResult(), Target::loopRunning);
}

TEST(TargetControl, WrittenSettingsReadBackAndCommitEndsTheLoopAfterAnswering) {
    OpenTarget<SettingTarget> open(settingConfig());
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    Receive written = peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 1, 1, 55);
    EXPECT_EQ(written.flags(), flagYes);
    EXPECT_EQ(written.param1(), 55);
    EXPECT_EQ(written.param3(), 40);

    SendBuffer label(MessageType::SETTINGVALUE_REQ, 0, 3, 1, 0, 0);
    label.setBodyText("new label");
    Receive text = peer.ask(label, open.control());
    EXPECT_EQ(text.flags(), flagYes);
    EXPECT_EQ(peer.body(text), "new label");

    // A choice written by index reaches the program as its text, and reads
    // back as its index.
    EXPECT_EQ(peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 2, 1, 1).flags(), flagYes);
    Receive mode = peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 2, 0);
    EXPECT_EQ(mode.param1(), 1);
    EXPECT_EQ(peer.body(mode), "");

    Receive commit = peer.ask(MessageType::SETTINGVALUE_REQ, open.control(), 0, 1);
    EXPECT_EQ(commit.type(), MessageType::SETTINGVALUE_ANS);
    EXPECT_EQ(commit.flags(), flagYes);
    for (int i = 0; i < 200 && open.target.loopResult() == Target::loopRunning; ++i)
        NORVA::sleepMilliseconds(10);
    EXPECT_EQ(open.target.loopResult(), Target::loopEndedByMessage);
    EXPECT_EQ(open.target.exitCode(), 1);
}

TEST(TargetControl, RestartOnlyWhenAllowedAndOnlyWithACode) {
    OpenTarget<> refusing;
    ASSERT_TRUE(refusing.opened);
    TargetPeer peer;
    EXPECT_EQ(peer.ask(MessageType::RESTART_REQ, refusing.control(), 7).flags(), 0);

    TargetConfig config = testConfig();
    config.restartAllowed = true;
    OpenTarget<> open(config);
    ASSERT_TRUE(open.opened);
    Receive asked = peer.ask(MessageType::RESTART_REQ, open.control(), 0);
    EXPECT_EQ(asked.flags(), flagYes);
    EXPECT_EQ(peer.ask(MessageType::DISCOVER, open.control()).type(), MessageType::DISCOVER_ANS);
    Receive done = peer.ask(MessageType::RESTART_REQ, open.control(), 7);
    EXPECT_EQ(done.param0(), 7);
    for (int i = 0; i < 200 && open.target.loopResult() == Target::loopRunning; ++i)
        NORVA::sleepMilliseconds(10);
    EXPECT_EQ(open.target.loopResult(), Target::loopEndedByMessage);
    EXPECT_EQ(open.target.exitCode(), 7);
}

namespace {

// Counts what reaches the program's hooks for slots, on top of the setting
// table's.
class WritableTarget : public SettingTarget {
  public:
    using SettingTarget::SettingTarget;
    int dataCalls = 0;
    int checks = 0;

  protected:
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

}  // namespace

// Each request that changes the target is refused by a read-only one, in the
// form a failed write takes, reaches no hook and ends nothing; the same
// request to a writable target succeeds, so the refusal is the switch's.
TEST(TargetControl, ReadOnlyRefusesEveryChangeFromTheLinkAndKeepsRunning) {
    const struct {
        const char* name;
        std::uint16_t type, p0, p1, p2, p3;
        std::uint16_t answerType;
    } table[] = {
        {"setting write", MessageType::SETTINGVALUE_REQ, 1, 1, 55, 0, MessageType::SETTINGVALUE_ANS},
        {"setting reapply", MessageType::SETTINGVALUE_REQ, 1, 2, 0, 0, MessageType::SETTINGVALUE_ANS},
        {"commit", MessageType::SETTINGVALUE_REQ, 0, 1, 0, 0, MessageType::SETTINGVALUE_ANS},
        {"restart", MessageType::RESTART_REQ, 7, 0, 0, 0, MessageType::RESTART_ANS},
        {"restart asked", MessageType::RESTART_REQ, 0, 0, 0, 0, MessageType::RESTART_ANS},
        {"slot data", MessageType::TRANSFERDATA_SET, 0x8001, 0, 0, 0, MessageType::TRANSFERDATA_ANS},
        // The CRC of no data.
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

TEST(TargetControl, SyncNameIsKeptPerHost) {
    OpenTarget<> open;
    ASSERT_TRUE(open.opened);
    TargetPeer peer;
    SendBuffer name(MessageType::SYNCNAME_SET, 1, 0x1122334455667788ull);
    name.setBodyText("studio");
    EXPECT_EQ(peer.ask(name, open.control()).type(), MessageType::SYNCNAME_ANS);
    auto names = open.target.syncNames();
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names.begin()->first, NORVA::IPAddress::loopback(0));
    EXPECT_EQ(names.begin()->second.name, "studio");
    EXPECT_EQ(names.begin()->second.productId, 0x1122334455667788ull);
}

TEST(TargetControl, LogLinesGoToTheSystemLogAndTheDebugHost) {
    TargetPeer systemLog;
    TargetConfig config = testConfig();
    config.forwardLog = true;
    config.ports.systemLog = systemLog.port;
    OpenTarget<> open(config);
    ASSERT_TRUE(open.opened);
    TargetPeer host;
    EXPECT_EQ(host.ask(MessageType::HOSTDEBUG_REQ, open.control(), 1).param0(), 1);

    const std::string line = "<134>Jan 01 00 00 00 localhost sink started";
    TargetPeer program;
    program.sendBytes(line.data(), line.size(), open.log());
    Receive forwarded;
    ASSERT_TRUE(systemLog.receive(forwarded));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(forwarded.frame), forwarded.size), line);
    Receive debug;
    ASSERT_TRUE(host.receive(debug));
    EXPECT_EQ(debug.type(), MessageType::HOSTDEBUG_ANS);
    EXPECT_EQ(debug.param0(), 2);
    EXPECT_EQ(host.body(debug), "sink started");

    // Shorter than a syslog head: passed whole.
    program.sendBytes("short", 5, open.log());
    ASSERT_TRUE(host.receive(debug));
    EXPECT_EQ(host.body(debug), "short");
}

TEST(TargetControl, CloseEndsTheLoopAndTheTargetOpensAgain) {
    Target target(testConfig());
    ASSERT_TRUE(target.open(NORVA::IPAddress::loopback(0), false));
    EXPECT_EQ(target.loopResult(), Target::loopRunning);
    target.close();
    EXPECT_EQ(target.loopResult(), Target::loopFailed);
    ASSERT_TRUE(target.open(NORVA::IPAddress::loopback(0), false));
    TargetPeer peer;
    EXPECT_EQ(peer.ask(MessageType::DISCOVER, target.boundPorts().control).type(), MessageType::DISCOVER_ANS);
    target.close();
}
