#include "Network/RawContext.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "Network/Socket.h"
#include "Platform/PacketLibrary.h"
#include "System/Log.h"

namespace {

using NORVA::BufferList;
using NORVA::EthernetBuffer;
using NORVA::PacketAdapter;
using NORVA::PacketDevice;
using NORVA::PacketHeader;
using NORVA::PacketSendQueue;
using NORVA::RawContext;
using NORVA::UDPV6;

// ---- A packet library in the test binary ----------------------------------------

// What the fake library was asked and what it answers. Sent frames land in
// fixed storage, so that a send can be checked for allocations.
struct FakeLibrary {
    bool present = true;
    std::string missing;  // a function the library doesn't offer
    bool withQueue = true;
    std::vector<std::string> deviceNames;
    bool listFails = false;
    bool openRefused = false;
    int refuseSendNumber = -1;  // the sendPacket call (from 0) that fails

    int listsMade = 0;
    int listsFreed = 0;
    std::string openedName;
    int openArguments[3] = {};
    int adaptersOpen = 0;
    int queuesLive = 0;
    int sendPacketCalls = 0;
    int transmitCalls = 0;
    int transmitSync = -1;
    std::vector<PacketHeader> queuedHeaders;

    // Every frame that went out, back to back, and where each ends.
    std::array<std::uint8_t, 1 << 16> wire{};
    std::size_t wireLength = 0;
    std::array<std::size_t, 16> frameEnds{};
    std::size_t frameCount = 0;

    void put(const unsigned char* frame, std::size_t length) {
        if (wireLength + length <= wire.size() && frameCount < frameEnds.size()) {
            std::memcpy(wire.data() + wireLength, frame, length);
            wireLength += length;
            frameEnds[frameCount++] = wireLength;
        }
    }
    std::vector<std::uint8_t> frame(std::size_t index) const {
        std::size_t from = index == 0 ? 0 : frameEnds[index - 1];
        return {wire.begin() + static_cast<std::ptrdiff_t>(from),
                wire.begin() + static_cast<std::ptrdiff_t>(frameEnds[index])};
    }
};

FakeLibrary fake;
char adapterToken;  // the fake adapter is this byte's address
char errorTextOfAdapter[] = "the link is down";

int fakeFindAllDevs(PacketDevice** devices, char* errorText) {
    *devices = nullptr;
    if (fake.listFails) {
        std::strcpy(errorText, "no permission");
        return -1;
    }
    ++fake.listsMade;
    PacketDevice** tail = devices;
    for (const std::string& name : fake.deviceNames) {
        auto* device = new PacketDevice{nullptr, new char[name.size() + 1]};
        std::memcpy(device->name, name.c_str(), name.size() + 1);
        *tail = device;
        tail = &device->next;
    }
    return 0;
}

void fakeFreeAllDevs(PacketDevice* devices) {
    ++fake.listsFreed;
    while (devices != nullptr) {
        PacketDevice* next = devices->next;
        delete[] devices->name;
        delete devices;
        devices = next;
    }
}

PacketAdapter* fakeOpenLive(const char* device, int captureLength, int promiscuous, int timeoutMs, char*) {
    fake.openedName = device;
    fake.openArguments[0] = captureLength;
    fake.openArguments[1] = promiscuous;
    fake.openArguments[2] = timeoutMs;
    if (fake.openRefused) return nullptr;
    ++fake.adaptersOpen;
    return reinterpret_cast<PacketAdapter*>(&adapterToken);
}

void fakeClose(PacketAdapter* adapter) {
    EXPECT_EQ(adapter, reinterpret_cast<PacketAdapter*>(&adapterToken));
    --fake.adaptersOpen;
}

int fakeSendPacket(PacketAdapter*, const unsigned char* frame, int length) {
    if (fake.sendPacketCalls++ == fake.refuseSendNumber) return -1;
    fake.put(frame, static_cast<std::size_t>(length));
    return 0;
}

char* fakeGetErr(PacketAdapter* adapter) {
    EXPECT_EQ(adapter, reinterpret_cast<PacketAdapter*>(&adapterToken));
    return errorTextOfAdapter;
}

// The queue as WinPcap keeps it: headers and frames back to back.
PacketSendQueue* fakeQueueAlloc(unsigned size) {
    ++fake.queuesLive;
    return new PacketSendQueue{size, 0, new char[size]};
}

void fakeQueueDestroy(PacketSendQueue* queue) {
    --fake.queuesLive;
    delete[] queue->buffer;
    delete queue;
}

int fakeQueueAdd(PacketSendQueue* queue, const PacketHeader* header, const unsigned char* frame) {
    if (queue->length + sizeof(PacketHeader) + header->capturedLength > queue->maxLength) return -1;
    std::memcpy(queue->buffer + queue->length, header, sizeof(PacketHeader));
    std::memcpy(queue->buffer + queue->length + sizeof(PacketHeader), frame, header->capturedLength);
    queue->length += static_cast<std::uint32_t>(sizeof(PacketHeader) + header->capturedLength);
    return 0;
}

unsigned fakeQueueTransmit(PacketAdapter*, PacketSendQueue* queue, int sync) {
    ++fake.transmitCalls;
    fake.transmitSync = sync;
    std::uint32_t at = 0;
    while (at < queue->length) {
        PacketHeader header;
        std::memcpy(&header, queue->buffer + at, sizeof header);
        if (fake.queuedHeaders.size() < fake.queuedHeaders.capacity()) fake.queuedHeaders.push_back(header);
        fake.put(reinterpret_cast<const unsigned char*>(queue->buffer + at + sizeof header),
                 header.capturedLength);
        at += static_cast<std::uint32_t>(sizeof header + header.capturedLength);
    }
    return at;
}

template <typename Function>
void* address(Function function) {
    return reinterpret_cast<void*>(function);
}

void* fakeLookup(const char* name) {
    if (!fake.present || fake.missing == name) return nullptr;
    struct Entry {
        const char* name;
        void* function;
        bool queue;
    };
    const Entry entries[] = {
        {"pcap_findalldevs", address(fakeFindAllDevs), false},
        {"pcap_freealldevs", address(fakeFreeAllDevs), false},
        {"pcap_open_live", address(fakeOpenLive), false},
        {"pcap_close", address(fakeClose), false},
        {"pcap_sendpacket", address(fakeSendPacket), false},
        {"pcap_geterr", address(fakeGetErr), false},
        {"pcap_sendqueue_alloc", address(fakeQueueAlloc), true},
        {"pcap_sendqueue_destroy", address(fakeQueueDestroy), true},
        {"pcap_sendqueue_queue", address(fakeQueueAdd), true},
        {"pcap_sendqueue_transmit", address(fakeQueueTransmit), true},
    };
    for (const Entry& entry : entries) {
        if (std::strcmp(entry.name, name) == 0)
            return entry.queue && !fake.withQueue ? nullptr : entry.function;
    }
    return nullptr;
}

std::vector<std::string> logLines;
void collectLine(const char* line) {
    logLines.emplace_back(line);
}

bool logged(const std::string& text) {
    for (const std::string& line : logLines) {
        if (line.find(text) != std::string::npos) return true;
    }
    return false;
}

// A raw socket whose local interfaces are the test's: index 5 is "vfh".
class RawSocket : public UDPV6 {
  public:
    RawSocket() { open(raw); }
    bool getMyLocalAddresV6(NORVA::InterfaceMap& map, bool) override {
        NORVA::IPAddress address;
        EXPECT_TRUE(address.parseV6("fe80::5"));
        address.setScope(5);
        map[address].adapterName = "vfh";
        return true;
    }
    RawContext* context() const { return reinterpret_cast<RawContext*>(handle); }
};

class RawPath : public ::testing::Test {
  protected:
    NORVA::Syslog log;
    NORVA::Syslog* previousLog = nullptr;
    std::int32_t previousThreshold = 0;

    void SetUp() override {
        fake = FakeLibrary{};
        fake.deviceNames = {"\\Device\\NPF_{eth0}", "\\Device\\NPF_{vfh}", "\\Device\\NPF_{vfh2}"};
        fake.queuedHeaders.reserve(8);
        NORVA::setPacketSymbolLookup(fakeLookup);
        logLines.clear();
        log.configure(16, collectLine, 0);
        previousLog = NORVA::Syslog::install(&log);
        previousThreshold = NORVA::logThreshold.exchange(7);
    }
    void TearDown() override {
        NORVA::logThreshold.store(previousThreshold);
        NORVA::Syslog::install(previousLog);
        NORVA::setPacketSymbolLookup(nullptr);
        // Whatever the path, nothing of the library is left behind.
        EXPECT_EQ(fake.adaptersOpen, 0);
        EXPECT_EQ(fake.queuesLive, 0);
        EXPECT_EQ(fake.listsFreed, fake.listsMade);
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
        for (std::uint32_t i = 0; i < length; ++i) storage[head + i] = static_cast<std::uint8_t>(seed + i);
    }
    std::vector<std::uint8_t> bytes() const { return {storage.begin() + buffer.head, storage.end()}; }
};

// The library got these frames, in this order, from its `from`th frame on.
void expectSent(std::size_t from, std::initializer_list<const Frame*> frames) {
    ASSERT_EQ(fake.frameCount, from + frames.size());
    for (const Frame* frame : frames) EXPECT_EQ(fake.frame(from++), frame->bytes()) << "frame " << from - 1;
}

// ---- Opening -------------------------------------------------------------------------

TEST_F(RawPath, OpensTheFirstDeviceWhoseNameHoldsTheInterfaceName) {
    RawSocket socket;
    ASSERT_TRUE(socket.openRaw(5));
    EXPECT_EQ(fake.openedName, "\\Device\\NPF_{vfh}");
    EXPECT_EQ(fake.openArguments[0], 0);
    EXPECT_EQ(fake.openArguments[1], 1);
    EXPECT_EQ(fake.openArguments[2], 1000);
    ASSERT_NE(socket.context(), nullptr);
    EXPECT_EQ(socket.context()->adapter, reinterpret_cast<PacketAdapter*>(&adapterToken));
    EXPECT_TRUE(logLines.empty());

    // Opening again ends the first adapter; closing ends the second.
    ASSERT_TRUE(socket.openRaw(5));
    EXPECT_EQ(fake.adaptersOpen, 1);
    socket.close();
    EXPECT_EQ(fake.adaptersOpen, 0);
    EXPECT_EQ(fake.queuesLive, 0);
    EXPECT_FALSE(socket.isOpen());
    EXPECT_EQ(socket.kind, NORVA::Socket::raw);
}

TEST_F(RawPath, OnlyTheRawKindOpens) {
    auto socket = UDPV6::create(false);
    ASSERT_TRUE(socket->isOpen());
    NORVA::Platform::SocketHandle before = socket->handle;
    EXPECT_FALSE(socket->openRaw(5));
    EXPECT_EQ(socket->handle, before);
    EXPECT_EQ(fake.listsMade, 0);
    EXPECT_EQ(fake.adaptersOpen, 0);
}

TEST_F(RawPath, WithoutTheLibraryTheModeIsNotOfferedAndNothingIsLogged) {
    {
        fake.present = false;
        RawSocket socket;
        EXPECT_FALSE(socket.openRaw(5));
    }
    // A library without one of the functions the path needs counts as none.
    const bool queueRequired = NORVA::Platform::packetSendQueueRequired();
    for (const char* name :
         {"pcap_findalldevs", "pcap_freealldevs", "pcap_open_live", "pcap_close", "pcap_sendpacket",
          "pcap_geterr", "pcap_sendqueue_alloc", "pcap_sendqueue_transmit"}) {
        fake.present = true;
        fake.missing = name;
        RawSocket socket;
        bool queueFunction = std::strncmp(name, "pcap_sendqueue", 14) == 0;
        EXPECT_EQ(socket.openRaw(5), queueFunction && !queueRequired) << name;
    }
    EXPECT_TRUE(logLines.empty());
}

TEST_F(RawPath, EachFailureToOpenIsLoggedAndLeavesNothingOpen) {
    {
        RawSocket socket;
        EXPECT_FALSE(socket.openRaw(7));
        EXPECT_TRUE(logged("not foud intrface: 7"));
        EXPECT_EQ(fake.adaptersOpen, 0);
    }
    {
        fake.deviceNames = {"\\Device\\NPF_{eth0}", "\\Device\\NPF_{wlan}"};
        RawSocket socket;
        EXPECT_FALSE(socket.openRaw(5));
        EXPECT_TRUE(logged("not foud pcap interface: vfh"));
        // Each device the library knows, on a line of its own.
        EXPECT_TRUE(logged("localhost \\Device\\NPF_{eth0}"));
        EXPECT_TRUE(logged("localhost \\Device\\NPF_{wlan}"));
    }
    {
        fake.deviceNames = {"vfh"};
        fake.openRefused = true;
        RawSocket socket;
        EXPECT_FALSE(socket.openRaw(5));
        EXPECT_TRUE(logged("Unable to open the adapter. vfh is not supported by WinPcap"));
        // A context without an adapter has nothing to send through.
        Frame one(60, 0, 1);
        EthernetBuffer* const list[] = {&one.buffer};
        EXPECT_FALSE(socket.sendNow(list));
        EXPECT_EQ(fake.sendPacketCalls, 0);
    }
    {
        logLines.clear();
        fake.listFails = true;
        RawSocket socket;
        EXPECT_FALSE(socket.openRaw(7));
        // The device list is asked before the interface, so its failure is the one reported.
        EXPECT_TRUE(logged("Error in pcap_findalldevs: no permission"));
        EXPECT_FALSE(logged("not foud intrface: 7"));
    }
}

// ---- Sending ---------------------------------------------------------------------------

TEST_F(RawPath, FramesGoOutAsTheyAreWithoutAllocating) {
    RawSocket socket;
    ASSERT_TRUE(socket.openRaw(5));
    Frame first(1514, 8, 0x10);
    Frame second(60, 0, 0x80);
    Frame third(24 + 43, 3, 0xC0);  // short, as the link might pad it
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
    EXPECT_EQ(fake.sendPacketCalls, 1);
    EXPECT_EQ(fake.transmitCalls, 1);
    EXPECT_EQ(fake.transmitSync, 1);
    ASSERT_EQ(fake.queuedHeaders.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        const PacketHeader& header = fake.queuedHeaders[i];
        EXPECT_EQ(header.seconds, 0);
        EXPECT_EQ(header.microseconds, 0);
        EXPECT_EQ(header.capturedLength, three[i]->length);
        EXPECT_EQ(header.length, three[i]->length);
    }

    // The queue is reused: the next list carries only its own frames.
    EXPECT_TRUE(socket.sendNow(three));
    expectSent(4, {&first, &second, &third});
    EXPECT_TRUE(logLines.empty());
}

TEST_F(RawPath, AListBeyondTheQueueIsReportedAsAFailedSend) {
    RawSocket socket;
    ASSERT_TRUE(socket.openRaw(5));
    fake.wireLength = fake.wire.size();  // the fake records nothing of this
    Frame big(RawContext::queueSize / 2, 0, 0);
    EthernetBuffer* const list[] = {&big.buffer, &big.buffer};
    EXPECT_FALSE(socket.sendNow(list));
    EXPECT_TRUE(logged("Error sending the packet wue: the link is down"));
}

TEST_F(RawPath, WithoutAQueueFramesGoOneByOneUntilOneIsRefused) {
    if (NORVA::Platform::packetSendQueueRequired())
        GTEST_SKIP() << "this system's library always has the queue";
    fake.withQueue = false;
    RawSocket socket;
    ASSERT_TRUE(socket.openRaw(5));
    Frame a(100, 2, 1), b(200, 0, 2), c(300, 5, 3);
    EthernetBuffer* const list[] = {&a.buffer, &b.buffer, &c.buffer};
    {
        AllocationCounter allocations;
        EXPECT_TRUE(socket.sendNow(list));
        EXPECT_EQ(allocations.count(), 0u);
    }
    expectSent(0, {&a, &b, &c});
    EXPECT_TRUE(logLines.empty());

    fake.refuseSendNumber = fake.sendPacketCalls + 1;
    EXPECT_FALSE(socket.sendNow(list));
    expectSent(3, {&a});  // the one before the refused frame, none after
    EXPECT_TRUE(logged("Error sending the packet: the link is down"));
}

TEST_F(RawPath, ARawSocketThatWasNeverOpenedSendsNothing) {
    auto socket = UDPV6::create(true);
    Frame one(60, 0, 1);
    EthernetBuffer* const list[] = {&one.buffer};
    EXPECT_FALSE(socket->sendNow(list));
    EXPECT_EQ(fake.sendPacketCalls, 0);
}

// ---- The system's own library ----------------------------------------------------------

TEST_F(RawPath, TheSystemsLibraryIsLoadedOrSilentlyMissing) {
    NORVA::setPacketSymbolLookup(nullptr);
    bool present = NORVA::Platform::packetLibrarySymbol("pcap_open_live") != nullptr;
    RawSocket socket;
    EXPECT_FALSE(socket.openRaw(0xFFF1));
    // With the library there, the index is looked for and not found, unless
    // the device list itself is refused here.
    EXPECT_EQ(logged("not foud intrface: 65521") || logged("Error in pcap_findalldevs: "), present);
    if (!present) {
        EXPECT_TRUE(logLines.empty());
    }
}

}  // namespace
