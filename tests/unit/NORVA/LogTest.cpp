#include "System/Log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCounter.h"
#include "Network/Socket.h"

namespace {

using NORVA::Hex64;
using NORVA::IPAddress;
using NORVA::LogLine;
using NORVA::LogPri;
using NORVA::Syslog;
using NORVA::SyslogRing;
using NORVA::TimeValue;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isTwoDigits(const std::string& text, std::size_t at, int low, int high) {
    if (!isDigit(text[at]) || !isDigit(text[at + 1])) return false;
    int value = (text[at] - '0') * 10 + (text[at + 1] - '0');
    return value >= low && value <= high;
}

// "Mmm DD hh:mm:ss localhost " starting at `at`: month names, two-digit
// fields with leading zeros.
void expectStamp(const std::string& line, std::size_t at) {
    ASSERT_GE(line.size(), at + 26);
    static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    bool monthFound = false;
    for (const char* month : months) monthFound = monthFound || line.compare(at, 3, month) == 0;
    EXPECT_TRUE(monthFound) << line;
    EXPECT_EQ(line[at + 3], ' ');
    EXPECT_TRUE(isTwoDigits(line, at + 4, 1, 31)) << line;
    EXPECT_EQ(line[at + 6], ' ');
    EXPECT_TRUE(isTwoDigits(line, at + 7, 0, 23)) << line;
    EXPECT_EQ(line[at + 9], ':');
    EXPECT_TRUE(isTwoDigits(line, at + 10, 0, 59)) << line;
    EXPECT_EQ(line[at + 12], ':');
    EXPECT_TRUE(isTwoDigits(line, at + 13, 0, 60)) << line;
    EXPECT_EQ(line.compare(at + 15, 11, " localhost "), 0) << line;
}

// A log installed and opened towards a listener on [::1] at an ephemeral
// port, so that each test sees the real datagrams.
class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(listener.open(NORVA::Socket::udp6));
        IPAddress local = IPAddress::loopback(0);
        ASSERT_TRUE(listener.bind(local));
        port = local.port();
        ASSERT_NE(port, 0);
        previous = Syslog::install(&log);
        ASSERT_TRUE(log.configure(16, nullptr, port));
        NORVA::logThreshold = 6;
    }

    void TearDown() override {
        NORVA::logThreshold = -1;
        Syslog::install(previous);
    }

    // The next datagram; fails the test if none comes.
    std::string receive() {
        if (listener.waitReadable(TimeValue::fromSeconds(10)) != 2) {
            ADD_FAILURE() << "no datagram";
            return {};
        }
        char data[4096];
        std::size_t received = 0;
        IPAddress peer;
        EXPECT_TRUE(listener.receiveFrom(data, sizeof(data), received, peer));
        return std::string(data, received);
    }

    // Sends a marker line and expects it to be the next datagram, which
    // proves that nothing was sent in between.
    void expectNothingBeforeMarker() {
        NORVA::logThreshold = 6;
        LogLine(6) << "marker";
        std::string line = receive();
        ASSERT_GE(line.size(), 6u);
        EXPECT_EQ(line.substr(line.size() - 6), "marker");
    }

    NORVA::UDPV6 listener;
    std::uint16_t port = 0;
    Syslog log;
    Syslog* previous = nullptr;
};

TEST_F(LogTest, SendsTheLineAsOneStampedSyslogDatagram) {
    LogLine(6) << "start done";
    std::string line = receive();
    ASSERT_EQ(line.size(), 31u + 10u);
    EXPECT_EQ(line.substr(0, 5), "<134>");
    expectStamp(line, 5);
    EXPECT_EQ(line.substr(31), "start done");
    EXPECT_EQ(line.find('\0'), std::string::npos);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(line.find('\r'), std::string::npos);
}

TEST_F(LogTest, ShorterPriMovesTheStartAndShortensTheDatagram) {
    log.setFacility(0);
    LogLine(6) << "x";
    std::string one = receive();
    EXPECT_EQ(one.size(), 31u + 1u - 2u);
    EXPECT_EQ(one.substr(0, 3), "<6>");
    expectStamp(one, 3);
    EXPECT_EQ(one.back(), 'x');

    LogLine(1, 3) << "y";
    std::string two = receive();
    EXPECT_EQ(two.size(), 31u + 1u - 1u);
    EXPECT_EQ(two.substr(0, 4), "<11>");
    expectStamp(two, 4);

    LogLine(LogPri{190}) << "z";
    std::string three = receive();
    EXPECT_EQ(three.size(), 32u);
    EXPECT_EQ(three.substr(0, 5), "<190>");
}

TEST_F(LogTest, ALineWithoutTextKeepsTheBlankAfterTheHost) {
    { LogLine line(6); }
    std::string line = receive();
    ASSERT_EQ(line.size(), 31u);
    EXPECT_EQ(line.substr(20), " localhost ");
}

TEST_F(LogTest, ThresholdDecidesWhichLinesAreBuilt) {
    NORVA::logThreshold = -1;
    {
        LogLine urgent(3);
        urgent << "rejected";
        EXPECT_EQ(urgent.data(), nullptr);
    }
    expectNothingBeforeMarker();

    NORVA::logThreshold = 6;
    EXPECT_NE(LogLine(6).data(), nullptr);
    receive();
    EXPECT_EQ(LogLine(7).data(), nullptr);
    // The threshold looks at the low three bits of PRI only.
    EXPECT_EQ(LogLine(LogPri{16 << 3 | 7}).data(), nullptr);
    EXPECT_EQ(LogLine(16, 7).data(), nullptr);
    expectNothingBeforeMarker();

    NORVA::logThreshold = 7;
    LogLine(7) << "detail";
    std::string line = receive();
    EXPECT_EQ(line.substr(0, 5), "<135>");
    EXPECT_EQ(line.substr(31), "detail");
}

TEST_F(LogTest, ARejectedLineAllocatesNothing) {
    NORVA::logThreshold = -1;
    const std::string text(100, 's');
    IPAddress address = IPAddress::loopback(19640);
    {
        AllocationCounter counter;
        LogLine(3) << "text" << text << std::string_view("counted") << 42 << -7LL << 7ULL << 1.5
                   << Hex64{0x1234} << address;
        LogLine(3, "text");
        LogLine(3, text);
        EXPECT_EQ(counter.count(), 0u);
    }
    // The counter does see the block of an accepted line.
    NORVA::logThreshold = 6;
    {
        AllocationCounter counter;
        { LogLine(6) << "accepted"; }
        EXPECT_GE(counter.count(), 1u);
    }
    receive();
}

TEST_F(LogTest, StreamsEveryArgumentKind) {
    IPAddress address;
    address.address[0] = 0xfe;
    address.address[1] = 0x80;
    address.address[15] = 0x01;
    address.setPort(19640);
    address.setScope(12);
    std::uint16_t u16 = 65535;
    std::int32_t i32 = -2147483647 - 1;
    std::uint32_t u32 = 4294967295u;
    std::int64_t i64 = -9223372036854775807LL - 1;
    std::uint64_t u64 = 18446744073709551615ULL;
    const char* pointer = "p";
    const char* counted = "cut-here";

    LogLine(6) << u16 << " " << i32 << " " << u32 << " " << i64 << " " << u64 << " " << 1.5 << " " << 0.25f
               << " " << pointer << std::string("s") << std::string_view(counted, 3) << " " << address;
    EXPECT_EQ(receive().substr(31),
              "65535 -2147483648 4294967295 -9223372036854775808 18446744073709551615 1.500000 0.250000 "
              "pscut fe80::1%12,19640");
}

TEST_F(LogTest, HexFormIsSixteenUpperCaseDigits) {
    LogLine(6) << Hex64{0x0123456789ABCDEFull} << "|" << Hex64{0} << "|" << Hex64{~0ull} << "|" << Hex64{0xa};
    EXPECT_EQ(receive().substr(31), "0123456789ABCDEF|0000000000000000|FFFFFFFFFFFFFFFF|000000000000000A");
}

TEST_F(LogTest, TextThatWouldOverflowIsDroppedWholeWhileNumbersAreCut) {
    LogLine line(6);
    ASSERT_NE(line.data(), nullptr);
    // 31 + 2014 = 2045 characters; a string needs length + 1 + size < 2048.
    line << std::string(2014, 'a');
    ASSERT_EQ(line.data()->length, 2045u);
    line << std::string("xy");
    EXPECT_EQ(line.data()->length, 2045u);
    line << std::string_view("x");
    EXPECT_EQ(line.data()->length, 2046u);
    // The hexadecimal form needs length + 17 < 2048.
    line << Hex64{1};
    EXPECT_EQ(line.data()->length, 2046u);
    // A number is printed up to the last free character and cut there.
    line << 987654u;
    EXPECT_EQ(line.data()->length, 2047u);
    line << "more" << 5;
    EXPECT_EQ(line.data()->length, 2047u);
    EXPECT_EQ(line.data()->text[2047], '\0');
    EXPECT_EQ(std::strlen(line.data()->text), 2047u);

    { LogLine sent(std::move(line)); }
    std::string datagram = receive();
    ASSERT_EQ(datagram.size(), 2047u);
    EXPECT_EQ(datagram.substr(2044), "ax9");
}

TEST_F(LogTest, CharacterPointersArePrintedAndCutAtTheEnd) {
    {
        LogLine line(6);
        line << std::string(2010, 'a');
        ASSERT_EQ(line.data()->length, 2041u);
        line << "0123456789";
        EXPECT_EQ(line.data()->length, 2047u);
    }
    std::string datagram = receive();
    ASSERT_EQ(datagram.size(), 2047u);
    EXPECT_EQ(datagram.substr(2040), "a012345");
}

TEST_F(LogTest, AMovedLineIsSentOnceByItsNewOwner) {
    {
        LogLine first(6);
        first << "one";
        {
            LogLine second(std::move(first));
            first << "lost";
            second << "two";
        }
        first << "lost";
    }
    EXPECT_EQ(receive().substr(31), "onetwo");
    expectNothingBeforeMarker();
}

TEST_F(LogTest, OpenTwiceChangesNothing) {
    IPAddress destination = log.destination;
    NORVA::Platform::SocketHandle handle = log.socket.handle;
    EXPECT_TRUE(log.open(port == 1 ? 2 : 1));
    EXPECT_EQ(log.socket.handle, handle);
    EXPECT_TRUE(log.destination == destination);
    EXPECT_EQ(log.destination.port(), port);
    // setLogLevel opens the default port, which here is already done.
    EXPECT_TRUE(NORVA::setLogLevel(6));
    EXPECT_EQ(log.destination.port(), port);
    LogLine(6) << "still here";
    EXPECT_EQ(receive().substr(31), "still here");
}

TEST_F(LogTest, WithoutAnInstalledLogLinesUseFacilityZeroAndGoNowhere) {
    Syslog::install(nullptr);
    EXPECT_FALSE(NORVA::setLogLevel(6));
    EXPECT_EQ(NORVA::logThreshold.load(), 6);
    {
        LogLine line(6);
        ASSERT_NE(line.data(), nullptr);
        EXPECT_EQ(line.data()->pri, 6);
    }
    Syslog::install(&log);
    expectNothingBeforeMarker();
}

std::vector<std::string> sinkLines;
void collectingSink(const char* line) {
    sinkLines.emplace_back(line);
}

TEST_F(LogTest, SinkSeesTheSameLineAsTheSocket) {
    sinkLines.clear();
    log.configure(16, collectingSink, 0);
    EXPECT_EQ(log.getSink(), collectingSink);
    EXPECT_EQ(log.getFacility(), 16);
    LogLine(6) << "both";
    std::string datagram = receive();
    ASSERT_EQ(sinkLines.size(), 1u);
    EXPECT_EQ(sinkLines[0], datagram);
}

TEST(SyslogOpen, ARawFrameLogCountsAsOpen) {
    Syslog log;
    EXPECT_FALSE(log.socket.isOpen());
    log.socket.kind = NORVA::Socket::raw;
    // A raw-frame log counts as open and makes no socket.
    EXPECT_TRUE(log.open(1));
    EXPECT_FALSE(log.socket.isOpen());
}

// ---- Ring ---------------------------------------------------------------------

std::string finishedLine(const std::string& text) {
    return "<134>Jan 01 00:00:00 localhost " + text;
}

TEST(SyslogRing, StartsEmptyAndIsFullAfter119Lines) {
    SyslogRing ring(false);
    EXPECT_EQ(ring.readIndex.load(), 119u);
    EXPECT_EQ(ring.writeIndex.load(), 0u);
    EXPECT_TRUE(ring.isEmpty());
    EXPECT_FALSE(ring.isFull());

    for (int i = 0; i < 119; ++i) {
        EXPECT_FALSE(ring.isFull()) << i;
        ring.push(finishedLine("line " + std::to_string(i)).c_str());
    }
    EXPECT_TRUE(ring.isFull());
    EXPECT_EQ(ring.writeIndex.load(), 119u);
    EXPECT_STREQ(ring.slots[0], "line 0");
    EXPECT_STREQ(ring.slots[118], "line 118");

    testing::internal::CaptureStdout();
    ring.push(finishedLine("lost").c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "wait debug out\ntimeout debug out\n");
    EXPECT_EQ(ring.writeIndex.load(), 119u);
    EXPECT_STREQ(ring.slots[118], "line 118");
}

TEST(SyslogRing, StoresOnlyTheCallersTextCutToASlot) {
    SyslogRing ring(false);
    ring.push(finishedLine("").c_str());
    ring.push("<6>Mar 05 07:09:03 localhost ");
    EXPECT_EQ(ring.writeIndex.load(), 0u);

    ring.push("<6>Mar 05 07:09:03 localhost short pri");
    ring.push("<13>Mar 05 07:09:03 localhost two digits");
    ring.push(finishedLine(std::string(2000, 'L')).c_str());
    ASSERT_EQ(ring.writeIndex.load(), 3u);
    EXPECT_STREQ(ring.slots[0], "short pri");
    EXPECT_STREQ(ring.slots[1], "two digits");
    EXPECT_EQ(std::strlen(ring.slots[2]), SyslogRing::slotSize - 1);
}

// Polls (without timing assertions) until the drain has emptied the ring.
bool waitUntilDrained(const SyslogRing& ring) {
    for (int i = 0; i < 1000 && !ring.isEmpty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return ring.isEmpty();
}

TEST(SyslogRing, DrainThreadPrintsLinesInOrder) {
    testing::internal::CaptureStdout();
    {
        SyslogRing ring;
        ring.push(finishedLine("first").c_str());
        ring.push(finishedLine("second").c_str());
        ring.push(finishedLine("third").c_str());
        EXPECT_TRUE(waitUntilDrained(ring));
        EXPECT_EQ(ring.readIndex.load(), 2u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "first\nsecond\nthird\n");
}

TEST(SyslogRing, ConfigureWithTheRingSinkFeedsTheConsole) {
    Syslog log;
    Syslog* previous = Syslog::install(&log);
    NORVA::logThreshold = 6;
    testing::internal::CaptureStdout();
    {
        EXPECT_TRUE(log.configure(16, &Syslog::toRing, 0));
        SyslogRing* first = SyslogRing::installed();
        ASSERT_NE(first, nullptr);
        // A second configure replaces the ring.
        EXPECT_TRUE(log.configure(16, &Syslog::toRing, 0));
        SyslogRing* ring = SyslogRing::installed();
        ASSERT_NE(ring, nullptr);
        LogLine(6) << "to console " << 1;
        EXPECT_TRUE(waitUntilDrained(*ring));
    }
    std::string printed = testing::internal::GetCapturedStdout();
    NORVA::logThreshold = -1;
    Syslog::install(previous);
    EXPECT_EQ(printed, "to console 1\n");
}

// ---- Err and dump --------------------------------------------------------------

TEST(Err, PrintsItselfWhenMadeAndCarriesItsFields) {
    testing::internal::CaptureStdout();
    try {
        throw NORVA::Err("Socket", 84, 7);
    } catch (const NORVA::Err& err) {
        EXPECT_STREQ(err.file, "Socket");
        EXPECT_EQ(err.line, 84);
        EXPECT_EQ(err.code, 0);
        EXPECT_EQ(err.data, 7u);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\nNORVA ASSERT[Socket]Line:84[code:0 Data:7]\n");
}

TEST(Dump, WritesTheBytesToTheFile) {
    std::filesystem::path path = std::filesystem::temp_directory_path() / "norva_log_dump_test.bin";
    const unsigned char bytes[] = {0, 1, 2, 0xff, '\n', 'x'};
    ASSERT_TRUE(NORVA::dump(path.string(), bytes, sizeof(bytes)));
    std::ifstream file(path, std::ios::binary);
    std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    file.close();
    std::filesystem::remove(path);
    EXPECT_EQ(content, std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes)));
}

}  // namespace
