// How late transfer sends its frames after the deadline, per wait mode: each
// mode sends one frame per 1 ms cycle to a socket on [::1], with nothing to
// receive, and prints the lateness of the return from transfer.
//
//     transfer_accuracy [cycles]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "Network/Socket.h"

namespace {

using NORVA::EthernetBuffer;
using NORVA::IPAddress;
using NORVA::TimeValue;
using NORVA::UDPV6;

double percentile(std::vector<double>& values, double share) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

// Drains the peer's socket so that its receive buffer never fills.
void drain(UDPV6& socket) {
    char data[64];
    std::size_t received = 0;
    do {
        socket.receive(data, sizeof(data), received);
    } while (received != 0);
}

}  // namespace

int main(int argc, char** argv) {
    int cycles = argc > 1 ? std::atoi(argv[1]) : 1000;
    const TimeValue cycle = TimeValue::fromMs(1);

    UDPV6 sender;
    UDPV6 peer;
    IPAddress senderAddress = IPAddress::loopback(0);
    IPAddress peerAddress = IPAddress::loopback(0);
    if (!sender.openNonBlocking() || !sender.bind(senderAddress) || !peer.openNonBlocking() ||
        !peer.bind(peerAddress)) {
        std::fprintf(stderr, "no sockets on [::1]\n");
        return 1;
    }
    std::unique_ptr<EthernetBuffer> frame = sender.newBuffer(nullptr, 0);
    frame->resize(64, 0);
    frame->setPeer(peerAddress);
    EthernetBuffer* const sendList[] = {frame.get()};
    std::unique_ptr<EthernetBuffer> buffer = sender.newBuffer(nullptr, 0);
    EthernetBuffer* const receiveList[] = {buffer.get()};

    std::printf("mode  median_us   p99_us   max_us  (lateness after the deadline, %d cycles of 1 ms)\n",
                cycles);
    for (int mode = 0; mode <= 6; ++mode) {
        sender.waitMode = mode;
        std::vector<double> lateness;
        TimeValue deadline = TimeValue::now() + cycle;
        for (int i = 0; i < cycles; ++i) {
            buffer->length = 0;
            sender.transfer(sendList, deadline, receiveList, nullptr, nullptr);
            TimeValue sent = TimeValue::now();
            lateness.push_back(static_cast<double>((sent - deadline).raw()) / 1e6);
            drain(peer);
            deadline = deadline + cycle;
            // A cycle missed by far starts the schedule again.
            if (sent > deadline) deadline = sent + cycle;
        }
        double max = *std::max_element(lateness.begin(), lateness.end());
        double median = percentile(lateness, 0.5);
        double p99 = percentile(lateness, 0.99);
        std::printf("%4d %10.1f %8.1f %8.1f\n", mode, median, p99, max);
    }
    return 0;
}
