// Raw frames across a veth pair: the sender pushes finished Ethernet frames
// through the packet library on its link, the receiver takes them from a
// packet socket on the other end and compares them byte for byte.
//
//     netns_raw_frames send IFINDEX DEST_MAC
//     netns_raw_frames receive IFNAME READY_FILE
//
// Exits 77 where the packet library is missing.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "Network/Socket.h"
#include "Platform/PacketLibrary.h"

namespace {

// IEEE's ether type for local experiments: nothing else on the link uses it.
constexpr std::uint16_t etherType = 0x88B5;

// The frames in the order they are sent; a short one among them, below the
// Ethernet minimum, that the link must carry at its true size.
const std::uint32_t frameLengths[] = {1514, 60, 42, 1000, 1514};
constexpr std::size_t frameCount = sizeof frameLengths / sizeof frameLengths[0];

// Frame `index` past its 14-byte link header: the index, then a pattern of it.
void fillBody(std::uint8_t* body, std::size_t length, std::size_t index) {
    for (std::size_t i = 0; i < length; ++i)
        body[i] = static_cast<std::uint8_t>(i == 0 ? index : index * 31 + i * 7);
}

bool parseMac(const char* text, std::uint8_t mac[6]) {
    unsigned values[6];
    if (std::sscanf(text, "%x:%x:%x:%x:%x:%x", &values[0], &values[1], &values[2], &values[3], &values[4],
                    &values[5]) != 6) {
        return false;
    }
    for (int i = 0; i < 6; ++i) mac[i] = static_cast<std::uint8_t>(values[i]);
    return true;
}

int send(std::uint16_t ifIndex, const char* destination) {
    if (NORVA::Platform::packetLibrarySymbol("pcap_open_live") == nullptr) {
        std::puts("skipped: no packet library");
        return 77;
    }
    std::uint8_t header[14];
    if (!parseMac(destination, header)) return 2;
    auto socket = NORVA::UDPV6::create(true);

    if (socket->openRaw(0xFFF0)) {
        std::puts("an interface that doesn't exist was opened");
        return 1;
    }
    NORVA::InterfaceMap addresses;
    socket->getMyLocalAddresV6(addresses, false);
    bool found = false;
    for (const auto& [address, info] : addresses) {
        if (address.scope() != ifIndex) continue;
        std::memcpy(header + 6, info.mac, 6);
        found = true;
        break;
    }
    if (!found || !socket->openRaw(ifIndex)) {
        std::printf("interface %u didn't open\n", ifIndex);
        return 1;
    }
    header[12] = etherType >> 8;
    header[13] = etherType & 0xFF;

    // Each frame a few bytes into its storage, as the framing layer leaves them.
    constexpr std::uint32_t head = 6;
    std::vector<std::vector<std::uint8_t>> storage;
    std::vector<NORVA::UDPV6EBuffer*> frames;
    std::vector<std::unique_ptr<NORVA::UDPV6EBuffer>> owners;
    for (std::size_t i = 0; i < frameCount; ++i) {
        std::vector<std::uint8_t>& bytes = storage.emplace_back(head + frameLengths[i], 0xEE);
        std::memcpy(bytes.data() + head, header, sizeof header);
        fillBody(bytes.data() + head + sizeof header, frameLengths[i] - sizeof header, i);
        auto buffer = std::make_unique<NORVA::UDPV6EBuffer>(bytes.data(), head + frameLengths[i]);
        buffer->head = head;
        buffer->length = frameLengths[i];
        frames.push_back(buffer.get());
        owners.push_back(std::move(buffer));
    }

    // One frame on its own, then the rest as one list held to a deadline.
    NORVA::EthernetBuffer* const first[] = {frames[0]};
    if (!socket->sendNow(first)) {
        std::puts("the single frame was refused");
        return 1;
    }
    std::vector<NORVA::EthernetBuffer*> rest(frames.begin() + 1, frames.end());
    NORVA::TimeValue deadline = NORVA::TimeValue::now() + NORVA::TimeValue::fromUs(20000);
    if (!socket->transfer(rest, deadline, {}, nullptr, nullptr)) {
        std::puts("the list was refused");
        return 1;
    }
    std::printf("sent %zu frames\n", frameCount);
    return 0;
}

int receive(const char* name, const char* readyFile) {
    unsigned ifIndex = if_nametoindex(name);
    int fd = ::socket(AF_PACKET, SOCK_RAW, htons(etherType));
    if (ifIndex == 0 || fd < 0) {
        std::perror("packet socket");
        return 1;
    }
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(etherType);
    link.sll_ifindex = static_cast<int>(ifIndex);
    if (bind(fd, reinterpret_cast<sockaddr*>(&link), sizeof link) != 0) {
        std::perror("bind");
        return 1;
    }
    std::ofstream(readyFile) << "ready\n";

    int failures = 0;
    std::uint8_t frame[2048];
    for (std::size_t i = 0; i < frameCount; ++i) {
        pollfd wait{fd, POLLIN, 0};
        if (poll(&wait, 1, 5000) != 1) {
            std::printf("frame %zu didn't arrive\n", i);
            return 1;
        }
        ssize_t got = recv(fd, frame, sizeof frame, 0);
        std::vector<std::uint8_t> expected(frameLengths[i] - 14);
        fillBody(expected.data(), expected.size(), i);
        // A link may pad a short frame up to 60 bytes; the sent bytes come first.
        bool lengthFits = got == static_cast<ssize_t>(frameLengths[i]) || (frameLengths[i] < 60 && got == 60);
        bool typeFits = got >= 14 && frame[12] == (etherType >> 8) && frame[13] == (etherType & 0xFF);
        bool bodyFits = lengthFits && std::memcmp(frame + 14, expected.data(), expected.size()) == 0;
        std::printf("frame %zu: %zd bytes%s\n", i, got,
                    lengthFits && typeFits && bodyFits ? "" : " MISMATCH");
        if (!(lengthFits && typeFits && bodyFits)) ++failures;
    }
    close(fd);
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "send") == 0) {
        return send(static_cast<std::uint16_t>(std::atoi(argv[2])), argv[3]);
    }
    if (argc == 4 && std::strcmp(argv[1], "receive") == 0) return receive(argv[2], argv[3]);
    std::fputs("usage: netns_raw_frames send IFINDEX DEST_MAC | receive IFNAME READY_FILE\n", stderr);
    return 2;
}
