// Find against the real target on the fixed ports of the loopback address:
// discovery to [::1]:19642, sinks registered through [::1]:19638, their
// expiry, and the hold-off that NOPBREAK_REQ lifts.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "Discovery/Find.h"
#include "Discovery/Target.h"
#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"

namespace {

using NORVA::IPAddress;
using VELMORA::Find;
namespace MessageType = VELMORA::MessageType;

constexpr std::uint16_t registrationPort = 19638;
constexpr std::uint16_t sinkIndex = 1;
constexpr std::uint16_t sinkList = 1;  // PORT_REGIST and NOPTA_SET: the sink list of the first pair

VELMORA::TargetConfig loopbackTarget() {
    VELMORA::TargetConfig config;
    config.name = "loopback target";
    config.productId = 0x454E415254534B45ull;
    config.allowLoopback = true;
    config.idleWithoutSynchro = false;
    config.ports.systemLog = 0;
    // Long enough for every case here to read its sink, short enough to see one expire.
    config.registrationLifetime = NORVA::TimeValue::fromSeconds(3);
    return config;
}

class FindLoopback : public ::testing::Test {
  protected:
    VELMORA::Target target{loopbackTarget()};
    NORVA::UDPV6 sinkSocket;  // a sink program's: the port it registers
    IPAddress sinkAddress = IPAddress::loopback(0);
    VELMORA::FindSettings settings;

    void SetUp() override {
        ASSERT_TRUE(target.open(-1, false)) << "the fixed ports 19638 and 19642 are taken";
        ASSERT_TRUE(sinkSocket.openNonBlocking() && sinkSocket.bind(sinkAddress));
        settings.withLoopback = true;
        settings.filterId = VELMORA::anyProductId;
    }
    void TearDown() override { target.close(); }

    void send(VELMORA::SendBuffer& message, std::uint16_t port) {
        message.finish();
        sinkSocket.sendTo(IPAddress::loopback(port), true, message.bytes.data, message.bytes.size);
        std::this_thread::sleep_for(std::chrono::milliseconds(200));  // taken on the target's thread
    }
    void registerSink(const std::string& name) {
        VELMORA::SendBuffer registration(MessageType::PORT_REGIST, 0, sinkIndex, 0, sinkAddress.port(),
                                         sinkList);
        registration.setBodyText(name);
        send(registration, registrationPort);
    }
    // Holds the host ::1 off the sink's port for a minute.
    void holdOff() {
        VELMORA::SendBuffer request(MessageType::NOPTA_SET, 0, sinkIndex, 0, 60, sinkList);
        IPAddress host = IPAddress::loopback(0);
        request.setBodySize(sizeof host);
        std::memcpy(request.body(), &host, sizeof host);
        send(request, Find::controlPort);
    }
    // The targets Find discovers.
    VELMORA::TargetMap targets(Find& find) {
        VELMORA::TargetMap found;
        EXPECT_TRUE(find.open() && find.searchTargets(found));
        return found;
    }
    // The sinks Find reads through ::1 (the target answers the links' multicast too).
    VELMORA::TargetRecordMap records() {
        Find find(settings);
        VELMORA::TargetRecordMap found;
        EXPECT_TRUE(find.readTargetRecords(targets(find), found));
        std::erase_if(found, [](const auto& entry) { return !entry.first.isLoopback(); });
        return found;
    }
};

TEST_F(FindLoopback, DiscoveryFindsTheTargetAndItsRegisteredSinkOnlyWithLoopback) {
    registerSink("Line out");
    const IPAddress control = IPAddress::loopback(Find::controlPort);
    Find find(settings);
    VELMORA::TargetMap found = targets(find);
    ASSERT_EQ(found.count(control), 1u);
    EXPECT_EQ(found.at(control).name, "loopback target");
    VELMORA::TargetRecordMap sinks = records();
    ASSERT_EQ(sinks.count(sinkAddress), 1u);
    EXPECT_EQ(sinks.at(sinkAddress).outputName, "Line out");
    EXPECT_EQ(sinks.at(sinkAddress).portIndex, sinkIndex);

    settings.withLoopback = false;
    Find without(settings);
    EXPECT_EQ(targets(without).count(control), 0u);
}

// The hold-off, once broken, no longer hides the sink; a sink not registered again disappears.
TEST_F(FindLoopback, AHeldOffHostSeesTheSinkOnlyAfterBreakingTheHoldOffUntilItExpires) {
    registerSink("Line out");
    holdOff();
    EXPECT_TRUE(records().empty());
    settings.nopBreak = true;
    ASSERT_EQ(records().size(), 1u);
    settings.nopBreak = false;
    EXPECT_EQ(records().size(), 1u);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    EXPECT_TRUE(records().empty());
}

}  // namespace
