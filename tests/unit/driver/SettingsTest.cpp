// Reading the settings, and the choice of which settings file is in force.
#include "Settings.h"

#include <gtest/gtest.h>

#include <sstream>

#include "DriverEnvironment.h"

namespace {

using NORVA::TimeValue;

constexpr std::uint16_t manyProcessors = 64;  // the CPULOW cases count on it

// Every field as " name=value ", times in signed microseconds: a case names only the fields it is about.
std::string describe(const DriverSettings& s) {
    std::ostringstream out;
    auto us = [](TimeValue t) { return std::int64_t(t.raw()) / 1'000'000; };
    out << " dsdMsb=" << s.dsdMsb << " pcm=" << s.pcmRequest << " covert=" << s.covertS32
        << " delay=" << s.startDelay << " target=" << s.targetAddress.toStringPort() << " po=" << s.targetPort
        << " find=";
    for (const auto& address : s.findAddresses) out << address.toStringPort() << ";";
    out << " buffer=" << s.asioBufferSize << "/" << s.asioBufferSizeMin << "/" << s.asioBufferSizeMax << "/"
        << s.asioBufferSizePre << " syncBuffers=" << s.syncBufferCount << " cycle=" << us(s.cycleTime)
        << " cycleMin=" << us(s.cycleMinTime) << " profileLimit=" << us(s.targetProfileLimitTime)
        << " fragment=" << s.fragment << " optimize=" << s.fragmentOptimize << " thred=" << s.thredMode
        << " info=" << us(s.infoCycle) << " flex=" << s.flexCycle << s.flexFixAsio << s.flexRandom
        << s.flexMax << " multi=" << s.asioBufferMulti << " interface=" << s.interfaceNumber
        << " loopback=" << s.interLoopback << " latency=" << us(s.latencyBuffer)
        << " invert=" << s.phaseInvert << " nopBreak=" << s.nopBreak << " cpuSend=" << s.cpuSend
        << " cpuOther=" << s.cpuOther << "/" << s.cpuOtherCount << " ack=" << s.ackProcessCtl
        << " resetOnLoss=" << s.resetOnLoss << " ";
    return out.str();
}

DriverSettings load(const std::string& text) {
    TempFolder folder;
    DriverSettings settings;
    EXPECT_TRUE(settings.load(folder.write("setting.inf", text), manyProcessors)) << text;
    return settings;
}

const std::string defaults = describe(DriverSettings());

// A missing file, or one with a control character, which makes the whole file unreadable.
TEST(Settings, UnreadableFileResetsEarlierValues) {
    TempFolder folder;
    for (const std::string& path :
         {folder.file("missing.inf"), folder.write("bad.inf", "CycleTime=250\n\x01\n")}) {
        DriverSettings s = load("CycleTime=250\nFindIP=fe80::1\n");
        EXPECT_FALSE(s.load(path, manyProcessors)) << path;
        EXPECT_EQ(describe(s), defaults);
    }
}

TEST(Settings, EveryKeyTaken) {
    DriverSettings s = load(
        "DSDMSB=enable\nPCMRequest=24\nStartDelay=5000\nTargetAddress=fe80::12,19642\nTargetPO=3\n"
        "FindIP=fe80::1;;nonsense;2001:db8::5\nASIOBufferSize=256\nASIOBufferSizeMin=64\n"
        "ASIOBufferSizeMax=4096\nASIOBufferSizePre=128\nSyncBufferCount=2\nCycleTime=2000\n"
        "CycleMinTime=500\nTargetProfileLimitTime=101\nFragment=7\nThredMode=8208\nInfoCycle=0\n"
        "FlexCycle=fixAsio\nASIOBufferMulti=enable\nInterface=12\nInterLoopback=enable\n"
        "LatencyBuffer=30000\nPhase=Invert\nNopBreak=enable\nCpuSend=0\nCpuOther=2-5\nAckProcessctl="
        "enable\nResetOnLoss=enable\n");
    EXPECT_EQ(describe(s),
              " dsdMsb=1 pcm=24 covert=0 delay=5000 target=fe80::12,19642 po=3 find=fe80::1,0;2001:db8::5,0; "
              "buffer=256/64/4096/128 syncBuffers=2 cycle=2000 cycleMin=500 profileLimit=101 fragment=7 "
              "optimize=0 thred=8208 info=0 flex=0100 multi=1 interface=12 loopback=1 latency=30000 invert=1 "
              "nopBreak=1 cpuSend=0 cpuOther=2/4 ack=1 resetOnLoss=1 ");
}

TEST(Settings, RefusedValuesKeepDefaults) {
    EXPECT_EQ(
        describe(load(
            "DSDMSB=Enable\nPCMRequest=-1\nStartDelay=-5\nTargetAddress=fe80::1\nTargetPO=-2\nFindIP=;x;\n"
            "ASIOBufferSize=0\nASIOBufferSizeMin=0\nASIOBufferSizeMax=-1\nASIOBufferSizePre=0\n"
            "SyncBufferCount=1\nCPULOW=abc\nCycleTime=0\nTargetProfileLimitTime=100\n"
            "Fragment=-1\nThredMode=-1\nFlexCycle=on\nASIOBufferMulti=yes\nInterface=-1\n"
            "InterLoopback=1\nLatencyBuffer=-1\nPhase=invert\nNopBreak=true\nCpuSend=00\nCpuOther=x\n"
            "AckProcessctl=ENABLE\nResetOnLoss=on\n")),
        defaults);
    EXPECT_EQ(describe(load("")), defaults);
}

// Text without a leading number reads as 0 and then meets its key's test; the sides of a CPU range are read
// on their own; keywords are exact. A machine of no more processors than CPULOW reads the keys behind it from
// "LOW" alone.
TEST(Settings, ValuesAsTheKeysReadThem) {
    const struct {
        const char* text;
        const char *field, *also = "";  // " name=value " as describe() writes it
    } cases[] = {
        {"PCMRequest=abc\nInfoCycle=x", " pcm=0 ", " info=0 "},
        {"InfoCycle=-5\nCycleTime=-250", " info=-5 ", " cycle=-250 "},
        {"CycleTime=zero\nCycleMinTime=-1", " cycle=1000 ", " cycleMin=-1 "},
        {"CycleTime=1500us\nStartDelay=+20", " cycle=1500 ", " delay=20 "},
        // The port is cut to 16 bits.
        {"ASIOBufferSize=99999999999\nTargetPO=65537", " buffer=2147483647/", " po=1 "},
        {"CpuOther=0\nCpuSend=-1", " cpuOther=0/1 ", " cpuSend=-1 "},
        {"CpuOther=3-x", " cpuOther=3/-1 "},
        {"CpuOther=x-5", " cpuOther=-1/7 "},
        {"CpuOther=5-2", " cpuOther=5/-2 "},
        {"PCMRequest=CovertS32", " pcm=32 covert=1 "},
        {"PCMRequest=covertS32", " pcm=0 covert=0 "},
        {"Fragment=disable\nTargetAddress=zz::1,19642", " fragment=1 optimize=0 ", " target=::,0 "},
        {"Fragment=Optimize", " fragment=0 optimize=1 "},
        {"Fragment=optimize", " fragment=0 optimize=0 "},
        // FlexCycle comes after Fragment: only "enable" keeps the optimisation.
        {"Fragment=Optimize\nFlexCycle=random", " optimize=0 ", " flex=1010 "},
        {"Fragment=Optimize\nFlexCycle=max", " optimize=0 ", " flex=1001 "},
        {"Fragment=Optimize\nFlexCycle=enable", " optimize=1 ", " flex=1000 "},
        {"SyncBufferCount=3\nCPULOW=64\nCycleTime=2000\nThredMode=3\n[LOW]\nCycleTime=4000",
         " syncBuffers=3 cycle=4000 ", " thred=1 "},
        {"CPULOW=63\nCycleTime=2000\n[LOW]\nCycleTime=4000", " cycle=2000 "},
    };
    for (const auto& c : cases) {
        std::string seen = describe(load(std::string(c.text) + "\n"));
        EXPECT_NE(seen.find(c.field), std::string::npos) << c.text << " gave" << seen;
        EXPECT_NE(seen.find(c.also), std::string::npos) << c.text << " gave" << seen;
    }
}

// A user's folder and a library folder, each in its own temporary folder.
class SettingsFiles : public DriverEnvironment {
  protected:
    std::string userFile() const { return (user.path / "KESTRANE Velmora" / "setting.inf").string(); }
    ::SettingsFiles choose() const {
        return chooseSettingsFile(user.path.string(), (library.path / "").string());
    }

    TempFolder library;
};

// "debug.inf" beside the settings file lies over it, but alone is no settings file; its Debug key turns
// logging on, "enable" at 6 and "debug" at 7.
TEST_F(SettingsFiles, DebugFileBesideTheSettingsWins) {
    const std::string path = user.write("setting.inf", "CycleTime=2000\nStartDelay=10\nDebug=debug\n");
    user.write("debug.inf", "CycleTime=500\nDebug=enable\n");
    DriverSettings s;
    ASSERT_TRUE(s.load(path, manyProcessors));
    EXPECT_EQ(s.cycleTime, TimeValue::fromUs(500));
    EXPECT_EQ(s.startDelay, 10);
    EXPECT_EQ(NORVA::logThreshold.load(), 6);
    user.write("debug.inf", "Debug=debug\n");
    ASSERT_TRUE(s.load(path, manyProcessors));
    EXPECT_EQ(NORVA::logThreshold.load(), 7);
    EXPECT_FALSE(s.load(user.file("other.inf"), manyProcessors));
}

// A pointer file names a settings file elsewhere, which a new version replaces as it does the user's; a
// pointer to no file leaves the reference copy in force, and nothing is written in the user's folder.
TEST_F(SettingsFiles, PointerFileOrElseTheReferenceCopy) {
    TempFolder elsewhere;
    std::string target = elsewhere.write("mine.inf", "Version=1\nCycleTime=2000\n");
    library.write("setting_path.inf", "SettingPath=" + target + "\n");
    library.write("setting_org.inf", "Version=1\nCycleTime=900\n");
    ::SettingsFiles files = choose();
    EXPECT_EQ(files.settingPath, target);
    EXPECT_FALSE(files.referenceInUse);
    library.write("setting_org.inf", "Version=2\n");
    choose();
    EXPECT_EQ(elsewhere.read("mine.inf"), "[global]\r\nVersion=2\r\n\r\n");

    library.write("setting_path.inf", "SettingPath=" + library.file("gone.inf") + "\n");
    files = choose();
    EXPECT_EQ(files.settingPath, library.file("setting_org.inf"));
    EXPECT_TRUE(files.referenceInUse);
    EXPECT_FALSE(std::filesystem::exists(userFile()));
}

// The user's file comes first. A reference copy of another version, older too, replaces it whole, sections
// first; an equal version leaves it untouched.
TEST_F(SettingsFiles, AnotherVersionReplacesTheUsersFileWhole) {
    const struct {
        const char *mine, *reference, *after;
    } rows[] = {
        {"Version=1\nCycleTime=2000\nStartDelay=7\n", "Version=2\nCycleTime=900\n[LOW]\nCycleTime=1800\n",
         "[LOW]\r\nCycleTime=1800\r\n\r\n[global]\r\nCycleTime=900\r\nVersion=2\r\n\r\n"},
        {"Version=5\nCycleTime=2000\n", "Version=4\n", "[global]\r\nVersion=4\r\n\r\n"},
        {"CycleTime=2000\n", "Version=1\n", "[global]\r\nVersion=1\r\n\r\n"},
        {"Version=3\n; my notes\nCycleTime=2000\n", "Version=3\nCycleTime=900\n", nullptr},
    };
    for (const auto& row : rows) {
        user.write("KESTRANE Velmora/setting.inf", row.mine);
        library.write("setting_org.inf", row.reference);
        const ::SettingsFiles files = choose();
        EXPECT_EQ(files.settingPath, userFile());
        EXPECT_EQ(files.referencePath, library.file("setting_org.inf"));
        EXPECT_FALSE(files.referenceInUse);
        EXPECT_EQ(user.read("KESTRANE Velmora/setting.inf"), row.after ? row.after : row.mine) << row.mine;
    }
}

}  // namespace
