// Waiting for a datagram up to a deadline: the wait ends with the datagram,
// or with its timeout passed, never before.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Network/Socket.h"

namespace {

using NORVA::IPAddress;
using NORVA::Socket;
using NORVA::TimeValue;
using NORVA::UDPV6;

struct Pair {
    UDPV6 receiver;
    UDPV6 sender;
    IPAddress target = IPAddress::loopback(0);

    Pair() {
        EXPECT_TRUE(receiver.open(Socket::udp6));
        EXPECT_TRUE(sender.openNonBlocking());
        EXPECT_TRUE(receiver.bind(target));
    }
};

// Spans below a millisecond, of a few, and longer than the margins the
// Windows waits keep before a deadline.
TEST(SocketWait, ATimedOutWaitLastsAtLeastItsTimeout) {
    Pair pair;
    for (std::int64_t us : {300, 1500, 2500, 4500, 12000}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(pair.receiver.waitReadable(TimeValue::fromUs(std::uint64_t(us))), 1) << us << " us";
        auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(std::chrono::duration_cast<std::chrono::microseconds>(waited).count(), us) << us << " us";
    }
}

TEST(SocketWait, ADatagramArrivingDuringTheWaitEndsIt) {
    Pair pair;
    for (int delayMs : {1, 5, 30}) {
        std::thread sender([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            EXPECT_TRUE(pair.sender.sendTo(pair.target, true, "x", 1));
        });
        EXPECT_EQ(pair.receiver.waitReadable(TimeValue::fromSeconds(10)), 2) << delayMs << " ms";
        sender.join();
        char byte = 0;
        std::size_t received = 0;
        IPAddress from;
        EXPECT_TRUE(pair.receiver.receiveFrom(&byte, 1, received, from));
        EXPECT_EQ(received, 1u);
    }
}

}  // namespace
