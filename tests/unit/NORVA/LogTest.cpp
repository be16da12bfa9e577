#include "System/Log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>

#include "AllocationCounter.h"
#include "Network/Socket.h"

namespace {

using NORVA::Hex64;
using NORVA::IPAddress;
using NORVA::LogLine;
using NORVA::Syslog;

// A log installed and opened towards a listener on [::1] at an ephemeral port, so that each test sees the
// real datagrams. The log uninstalls itself when it goes.
class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        IPAddress local = IPAddress::loopback(0);
        ASSERT_TRUE(listener.open(NORVA::Socket::udp6) && listener.bind(local));
        port = local.port();
        Syslog::install(&log);
        ASSERT_TRUE(log.configure(16, nullptr, port));
        NORVA::logThreshold = 6;
    }
    void TearDown() override { NORVA::logThreshold = -1; }
    // The next datagram; fails the test if none comes.
    std::string receive() {
        char data[4096];
        std::size_t received = 0;
        if (listener.waitReadable(NORVA::TimeValue::fromSeconds(10)) != 2) ADD_FAILURE() << "no datagram";
        return listener.receive(data, sizeof(data), received) ? std::string(data, received) : "";
    }
    // A marker line is the next datagram: nothing was sent in between.
    void expectNothingBeforeMarker() {
        NORVA::logThreshold = 6;
        LogLine(6) << "marker";
        std::string line = receive();
        EXPECT_EQ(line.substr(std::max<std::size_t>(line.size(), 6) - 6), "marker");
    }

    NORVA::UDPV6 listener;
    std::uint16_t port = 0;
    Syslog log;
};

TEST_F(LogTest, ThresholdDecidesWhichLinesAreBuiltAndARejectedOneAllocatesNothing) {
    const std::string text(100, 's');
    const IPAddress address = IPAddress::loopback(19640);
    for (int threshold : {-1, 6}) {
        NORVA::logThreshold = threshold;
        AllocationCounter counter;
        LogLine(3) << "text" << text << std::string_view("counted") << 42 << -7LL << 7ULL << 1.5
                   << Hex64{0x1234} << address;
        // The counter does see the block of an accepted line.
        EXPECT_EQ(counter.count() == 0, threshold < 3) << threshold;
    }
    receive();
    NORVA::logThreshold = -1;
    EXPECT_EQ(LogLine(3, "text").data(), nullptr);
    expectNothingBeforeMarker();
    // The threshold looks at the low three bits of PRI only.
    EXPECT_TRUE(LogLine(7).data() == nullptr && LogLine(NORVA::LogPri{16 << 3 | 7}).data() == nullptr &&
                LogLine(16, 7).data() == nullptr);
    expectNothingBeforeMarker();
    NORVA::logThreshold = 7;
    LogLine(7) << "detail";
    EXPECT_EQ(receive().substr(0, 5), "<135>");
}

// A facility given to the line wins; the shorter PRI moves the stamp and text up.
TEST_F(LogTest, StreamsEveryArgumentKindBehindTheStamp) {
    IPAddress address;
    ASSERT_TRUE(address.parseV6("fe80::1"));
    address.setPort(19640);
    address.setScope(12);
    LogLine(1, 3) << std::uint16_t(65535) << " " << std::int32_t(-2147483647 - 1) << " " << 4294967295u << " "
                  << -9223372036854775807LL - 1 << " " << 18446744073709551615ULL << " " << 1.5 << " "
                  << 0.25f << " "
                  << "p" << std::string("s") << std::string_view("cut-here", 3) << " " << address << " "
                  << Hex64{0x0123456789ABCDEFull} << "|" << Hex64{0} << "|" << Hex64{0xa};
    const std::string line = receive();
    const std::regex stamp(
        "<11>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
        "localhost .*");
    EXPECT_TRUE(std::regex_match(line, stamp)) << line;
    EXPECT_EQ(line.substr(30),
              "65535 -2147483648 4294967295 -9223372036854775808 18446744073709551615 1.500000 0.250000 "
              "pscut fe80::1%12,19640 0123456789ABCDEF|0000000000000000|000000000000000A");
}

TEST_F(LogTest, TextThatWouldOverflowIsDroppedWholeWhileNumbersAndPointersAreCut) {
    {
        LogLine line(6);
        // 31 + 2014 = 2045 characters; a string needs length + 1 + size < 2048.
        line << std::string(2014, 'a');
        ASSERT_EQ(line.data()->length, 2045u);
        line << std::string("xy");
        EXPECT_EQ(line.data()->length, 2045u);
        line << std::string_view("x") << Hex64{1};  // a Hex64 needs length + 17 < 2048
        EXPECT_EQ(line.data()->length, 2046u);
        // A number is printed up to the last free character and cut there.
        line << 987654u << "more" << 5;
        EXPECT_TRUE(line.data()->length == 2047u && std::strlen(line.data()->text) == 2047u);
        LogLine sent(std::move(line));
        line << "lost";  // the moved-from line has nothing to write to, nor to send
    }
    std::string datagram = receive();
    ASSERT_EQ(datagram.size(), 2047u);
    EXPECT_EQ(datagram.substr(2044), "ax9");

    LogLine(6) << std::string(2010, 'a') << "0123456789";
    datagram = receive();
    ASSERT_EQ(datagram.size(), 2047u);
    EXPECT_EQ(datagram.substr(2040), "a012345");
    expectNothingBeforeMarker();
}

// The sink is the RawPath tests' window on the log; here the socket side.
TEST_F(LogTest, OpeningAgainKeepsTheSocketAndWithoutALogLinesGoNowhere) {
    NORVA::Platform::SocketHandle handle = log.socket.handle;
    EXPECT_TRUE(log.open(port == 1 ? 2 : 1) && log.socket.handle == handle);
    EXPECT_TRUE(NORVA::setLogLevel(6));  // opens the default port, here done already
    EXPECT_EQ(log.destination.port(), port);

    Syslog::install(nullptr);
    EXPECT_FALSE(NORVA::setLogLevel(6));
    {
        LogLine line(6);
        ASSERT_NE(line.data(), nullptr);
        EXPECT_EQ(line.data()->pri, 6) << "facility 0";
    }
    Syslog::install(&log);
    expectNothingBeforeMarker();

    // A raw-frame log counts as open and makes no socket.
    Syslog raw;
    raw.socket.kind = NORVA::Socket::raw;
    EXPECT_TRUE(raw.open(1) && !raw.socket.isOpen());
}

}  // namespace
