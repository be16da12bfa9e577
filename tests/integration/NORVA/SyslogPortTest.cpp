#include <gtest/gtest.h>

#include <string>

#include "Network/Socket.h"
#include "System/Log.h"

namespace {

// The driver's log goes to [::1]:19640 once the settings raise the level.
TEST(SyslogPort, DefaultDestinationReceivesTheLine) {
    NORVA::UDPV6 listener;
    ASSERT_TRUE(listener.open(NORVA::Socket::udp6));
    NORVA::IPAddress local = NORVA::IPAddress::loopback(NORVA::Syslog::defaultPort);
    ASSERT_TRUE(listener.bind(local));

    NORVA::Syslog log;
    NORVA::Syslog* previous = NORVA::Syslog::install(&log);
    ASSERT_TRUE(log.configure(16, nullptr, NORVA::Syslog::defaultPort));
    ASSERT_TRUE(NORVA::setLogLevel(6));
    NORVA::LogLine(6) << "init ProductID=" << NORVA::Hex64{0x454E415254534B45ull};
    NORVA::setLogLevel(-1);
    NORVA::Syslog::install(previous);

    ASSERT_EQ(listener.waitReadable(NORVA::TimeValue::fromSeconds(10)), 2);
    char data[4096];
    std::size_t received = 0;
    NORVA::IPAddress peer;
    ASSERT_TRUE(listener.receiveFrom(data, sizeof(data), received, peer));
    std::string line(data, received);
    EXPECT_EQ(line.substr(0, 5), "<134>");
    EXPECT_EQ(line.substr(20), " localhost init ProductID=454E415254534B45");
}

}  // namespace
