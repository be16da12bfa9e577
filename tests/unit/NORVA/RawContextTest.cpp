#include "Network/RawContext.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "../Velmora/LogCapture.h"
#include "AllocationCounter.h"
#include "Network/Socket.h"
#include "Platform/PacketLibrary.h"

namespace {

using NORVA::EthernetBuffer;
using NORVA::PacketAdapter;
using NORVA::PacketDevice;
using NORVA::PacketHeader;
using NORVA::PacketSendQueue;
using NORVA::RawContext;
using NORVA::UDPV6;

// The fake packet library's state. Sent frames land in storage reserved up
// front, so that a send can be checked for allocations.
struct FakeLibrary {
    bool withQueue = true, listFails = false, openRefused = false;
    std::string missing;  // a function the library doesn't offer; "all": no library
    std::vector<std::string> deviceNames{"\\Device\\NPF_{eth0}", "\\Device\\NPF_{vfh}",
                                         "\\Device\\NPF_{vfh2}"};
    std::array<PacketDevice, 4> devices{};  // the list handed out, over deviceNames
    int refuseSendNumber = -1;              // the sendPacket call (from 0) that fails
    int listsMade = 0, listsFreed = 0, adaptersOpen = 0, queuesLive = 0, sendPacketCalls = 0,
        transmitCalls = 0;
    std::string openedName;
    // Every frame that went out, in order.
    std::vector<std::vector<std::uint8_t>> sent = std::vector(16, std::vector<std::uint8_t>(2048));
    std::size_t frameCount = 0;

    void put(const unsigned char* frame, std::size_t length) {
        if (frameCount < sent.size()) sent[frameCount++].assign(frame, frame + length);
    }
};

FakeLibrary fake;
char adapterToken;  // the fake adapter is this byte's address
PacketAdapter* const theAdapter = reinterpret_cast<PacketAdapter*>(&adapterToken);

void* fakeLookup(const char* name) {
    if (fake.missing == "all" || fake.missing == name) return nullptr;
    const std::pair<const char*, void*> entries[] = {
        {"pcap_findalldevs", reinterpret_cast<void*>(+[](PacketDevice** devices, char* errorText) {
             *devices = nullptr;
             if (fake.listFails) return std::strcpy(errorText, "no permission"), -1;
             ++fake.listsMade;
             for (std::size_t i = fake.deviceNames.size(); i-- > 0;)
                 *devices = &(fake.devices[i] = {*devices, fake.deviceNames[i].data()});
             return 0;
         })},
        {"pcap_freealldevs", reinterpret_cast<void*>(+[](PacketDevice* devices) {
             EXPECT_EQ(devices, &fake.devices[0]);
             ++fake.listsFreed;
         })},
        {"pcap_open_live",
         reinterpret_cast<void*>(+[](const char* device, int length, int promiscuous, int ms, char*) {
             fake.openedName = device;
             EXPECT_TRUE(length == 0 && promiscuous == 1 && ms == 1000) << length << promiscuous << ms;
             return fake.openRefused ? nullptr : (++fake.adaptersOpen, theAdapter);
         })},
        {"pcap_close", reinterpret_cast<void*>(+[](PacketAdapter* adapter) {
             EXPECT_EQ(adapter, theAdapter);
             --fake.adaptersOpen;
         })},
        {"pcap_sendpacket",
         reinterpret_cast<void*>(+[](PacketAdapter*, const unsigned char* frame, int length) {
             if (fake.sendPacketCalls++ == fake.refuseSendNumber) return -1;
             fake.put(frame, std::size_t(length));
             return 0;
         })},
        {"pcap_geterr", reinterpret_cast<void*>(+[](PacketAdapter* adapter) {
             static char text[] = "the link is down";
             EXPECT_EQ(adapter, theAdapter);
             return text;
         })},
        // The queue as WinPcap keeps it: headers and frames back to back.
        {"pcap_sendqueue_alloc", reinterpret_cast<void*>(+[](unsigned size) {
             ++fake.queuesLive;
             return new PacketSendQueue{size, 0, new char[size]};
         })},
        {"pcap_sendqueue_destroy", reinterpret_cast<void*>(+[](PacketSendQueue* queue) {
             --fake.queuesLive;
             delete[] queue->buffer;
             delete queue;
         })},
        {"pcap_sendqueue_queue",
         reinterpret_cast<void*>(+[](PacketSendQueue* queue, const PacketHeader* header,
                                     const unsigned char* frame) {
             if (queue->length + sizeof(PacketHeader) + header->capturedLength > queue->maxLength) return -1;
             std::memcpy(queue->buffer + queue->length, header, sizeof(PacketHeader));
             std::memcpy(queue->buffer + queue->length + sizeof(PacketHeader), frame, header->capturedLength);
             queue->length += std::uint32_t(sizeof(PacketHeader) + header->capturedLength);
             return 0;
         })},
        {"pcap_sendqueue_transmit",
         reinterpret_cast<void*>(+[](PacketAdapter*, PacketSendQueue* queue, int sync) {
             ++fake.transmitCalls;
             EXPECT_EQ(sync, 1);
             std::uint32_t at = 0;
             for (PacketHeader header; at < queue->length;
                  at += std::uint32_t(sizeof header + header.capturedLength)) {
                 std::memcpy(&header, queue->buffer + at, sizeof header);
                 EXPECT_EQ(header.length, header.capturedLength);
                 fake.put(reinterpret_cast<const unsigned char*>(queue->buffer + at + sizeof header),
                          header.capturedLength);
             }
             return unsigned(at);
         })},
    };
    for (const auto& [entry, function] : entries) {
        if (std::strcmp(entry, name) == 0)
            return std::strncmp(name, "pcap_sendqueue", 14) == 0 && !fake.withQueue ? nullptr : function;
    }
    return nullptr;
}

// A raw socket whose local interfaces are the test's: index 5 is "vfh".
class RawSocket : public UDPV6 {
  public:
    RawSocket() { open(raw); }
    bool getMyLocalAddresV6(NORVA::InterfaceMap& map, bool) override {
        NORVA::IPAddress address;
        address.setScope(5);
        map[address].adapterName = "vfh";
        return true;
    }
};

// The fake library in place, and every line logged collected.
class RawPath : public ::testing::Test {
  protected:
    LogCapture log;
    void SetUp() override {
        fake = FakeLibrary{};
        NORVA::setPacketSymbolLookup(fakeLookup);
    }
    void TearDown() override {
        NORVA::setPacketSymbolLookup(nullptr);
        // Whatever the path, nothing of the library is left behind.
        EXPECT_TRUE(fake.adaptersOpen == 0 && fake.queuesLive == 0 && fake.listsFreed == fake.listsMade);
    }
};

// A frame buffer on the test's storage, with its frame `head` bytes in.
struct Frame {
    std::vector<std::uint8_t> storage;
    NORVA::UDPV6EBuffer buffer;
    Frame(std::uint32_t length, std::uint32_t head, std::uint8_t seed)
        : storage(head + length, 0xEE), buffer(storage.data(), head + length) {
        buffer.head = head;
        buffer.length = length;
        for (std::uint32_t i = 0; i < length; ++i) storage[head + i] = std::uint8_t(seed + i);
    }
    std::vector<std::uint8_t> bytes() const { return {storage.begin() + buffer.head, storage.end()}; }
};

// The library got these frames, in this order, from its `from`th frame on.
void expectSent(std::size_t from, std::initializer_list<const Frame*> frames) {
    ASSERT_EQ(fake.frameCount, from + frames.size());
    for (const Frame* frame : frames) EXPECT_EQ(fake.sent[from++], frame->bytes()) << "frame " << from - 1;
}

// Without the library the mode is silently not offered; other failures are logged.
TEST_F(RawPath, EachFailureToOpenLeavesNothingOpen) {
    // A library without one of the functions the path needs counts as none.
    const bool queueRequired = NORVA::Platform::packetSendQueueRequired();
    for (const char* name :
         {"all", "pcap_findalldevs", "pcap_freealldevs", "pcap_open_live", "pcap_close", "pcap_sendpacket",
          "pcap_geterr", "pcap_sendqueue_alloc", "pcap_sendqueue_transmit"}) {
        fake.missing = name;
        bool queueFunction = std::strncmp(name, "pcap_sendqueue", 14) == 0;
        EXPECT_EQ(RawSocket().openRaw(5), queueFunction && !queueRequired) << name;
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(fake.adaptersOpen == 0 && fake.listsFreed == fake.listsMade);
    fake = FakeLibrary{};

    auto udp = UDPV6::create(false);
    NORVA::Platform::SocketHandle before = udp->handle;
    EXPECT_FALSE(udp->openRaw(5)) << "only the raw kind opens";
    EXPECT_TRUE(udp->handle == before && fake.listsMade == 0);

    EXPECT_TRUE(!RawSocket().openRaw(7) && log.has("not foud intrface: 7"));

    fake.deviceNames = {"\\Device\\NPF_{eth0}", "\\Device\\NPF_{wlan}"};
    EXPECT_TRUE(!RawSocket().openRaw(5) && log.has("not foud pcap interface: vfh"));
    // Each device the library knows, on a line of its own.
    EXPECT_TRUE(log.has("\\Device\\NPF_{eth0}") && log.has("\\Device\\NPF_{wlan}"));

    fake.deviceNames = {"vfh"};
    fake.openRefused = true;
    {
        RawSocket socket;
        EXPECT_FALSE(socket.openRaw(5));
        EXPECT_TRUE(log.has("Unable to open the adapter. vfh is not supported by WinPcap"));
        // A context without an adapter has nothing to send through.
        Frame one(60, 0, 1);
        EthernetBuffer* const list[] = {&one.buffer};
        EXPECT_TRUE(!socket.sendNow(list) && fake.sendPacketCalls == 0);
    }
    // The device list is asked before the interface, so its failure is the one reported.
    fake.listFails = true;
    EXPECT_FALSE(RawSocket().openRaw(7));
    EXPECT_EQ(log.lines().back(), "Error in pcap_findalldevs: no permission");
}

TEST_F(RawPath, OpensTheNamedDeviceAndFramesGoOutAsTheyAreWithoutAllocating) {
    RawSocket socket;
    ASSERT_TRUE(socket.openRaw(5));
    EXPECT_EQ(fake.openedName, "\\Device\\NPF_{vfh}") << "the first whose name holds the interface's";
    ASSERT_TRUE(socket.openRaw(5));
    EXPECT_EQ(fake.adaptersOpen, 1) << "opening again ends the first adapter";
    Frame first(1514, 8, 0x10), second(60, 0, 0x80), third(24 + 43, 3, 0xC0);
    EthernetBuffer* const one[] = {&first.buffer};
    EthernetBuffer* const three[] = {&first.buffer, &second.buffer, &third.buffer};
    {
        AllocationCounter allocations;
        EXPECT_TRUE(socket.sendNow({}));
        EXPECT_TRUE(socket.sendNow(one));
        EXPECT_TRUE(socket.sendNow(three));
        EXPECT_EQ(allocations.count(), 0u);
    }
    expectSent(0, {&first, &first, &second, &third});
    // A single frame never takes the queue; a list takes it once, frames in order.
    EXPECT_TRUE(fake.sendPacketCalls == 1 && fake.transmitCalls == 1);
    // The queue is reused: the next list carries only its own frames.
    EXPECT_TRUE(socket.sendNow(three));
    expectSent(4, {&first, &second, &third});
    EXPECT_TRUE(log.lines().empty());

    Frame big(RawContext::queueSize / 2, 0, 0);
    EthernetBuffer* const beyond[] = {&big.buffer, &big.buffer};
    EXPECT_FALSE(socket.sendNow(beyond)) << "a list beyond the queue is a failed send";
    EXPECT_TRUE(log.has("Error sending the packet wue: the link is down"));
    socket.close();
    EXPECT_TRUE(fake.adaptersOpen == 0 && !socket.isOpen() && socket.kind == NORVA::Socket::raw);
}

TEST_F(RawPath, WithoutAQueueFramesGoOneByOneUntilOneIsRefused) {
    if (NORVA::Platform::packetSendQueueRequired())
        GTEST_SKIP() << "this system's library always has the queue";
    fake.withQueue = false;
    fake.refuseSendNumber = 2;
    RawSocket socket;
    ASSERT_TRUE(socket.openRaw(5));
    Frame a(100, 2, 1), b(200, 0, 2), c(300, 5, 3);
    EthernetBuffer* const list[] = {&a.buffer, &b.buffer, &c.buffer, &a.buffer};
    EXPECT_FALSE(socket.sendNow(list));
    expectSent(0, {&a, &b});
    EXPECT_TRUE(log.has("Error sending the packet: the link is down"));
}

}  // namespace
