#include "Network/RawContext.h"

#include <atomic>
#include <cstring>
#include <string>

#include "Network/Socket.h"
#include "Platform/PacketLibrary.h"
#include "System/Log.h"

namespace NORVA {

namespace {

std::atomic<PacketSymbolLookup> symbolLookup{nullptr};

// The library's error buffer size (PCAP_ERRBUF_SIZE).
constexpr std::size_t errorTextSize = 256;

template <typename Function>
void take(Function& entry, PacketSymbolLookup lookup, const char* name) {
    entry = reinterpret_cast<Function>(lookup(name));
}

// Frees the device list on every way out of openAdapter.
struct DeviceList {
    PacketDevice* first = nullptr;
    void (*release)(PacketDevice*) = nullptr;
    ~DeviceList() {
        if (first != nullptr) release(first);
    }
};

}  // namespace

void setPacketSymbolLookup(PacketSymbolLookup lookup) {
    symbolLookup.store(lookup, std::memory_order_release);
}

void PacketFunctions::lookUp(PacketSymbolLookup lookup) {
    take(findAllDevs, lookup, "pcap_findalldevs");
    take(openLive, lookup, "pcap_open_live");
    take(closeAdapter, lookup, "pcap_close");
    take(queueAlloc, lookup, "pcap_sendqueue_alloc");
    take(queueDestroy, lookup, "pcap_sendqueue_destroy");
    take(sendPacket, lookup, "pcap_sendpacket");
    take(queueAdd, lookup, "pcap_sendqueue_queue");
    take(queueTransmit, lookup, "pcap_sendqueue_transmit");
    take(lastErrorText, lookup, "pcap_geterr");
    take(freeAllDevs, lookup, "pcap_freealldevs");
}

bool PacketFunctions::hasQueue() const {
    return queueAlloc != nullptr && queueDestroy != nullptr && queueAdd != nullptr &&
           queueTransmit != nullptr;
}

bool PacketFunctions::complete(bool queueRequired) const {
    bool base = findAllDevs != nullptr && openLive != nullptr && closeAdapter != nullptr &&
                sendPacket != nullptr && lastErrorText != nullptr && freeAllDevs != nullptr;
    return base && (!queueRequired || hasQueue());
}

RawContext::~RawContext() {
    if (queue != nullptr) library.queueDestroy(queue);
    if (adapter != nullptr) library.closeAdapter(adapter);
}

bool RawContext::loadLibrary() {
    PacketSymbolLookup lookup = symbolLookup.load(std::memory_order_acquire);
    library.lookUp(lookup != nullptr ? lookup : Platform::packetLibrarySymbol);
    return library.complete(Platform::packetSendQueueRequired());
}

bool RawContext::openAdapter(std::uint16_t ifIndex, const char* adapterName) {
    DeviceList devices{nullptr, library.freeAllDevs};
    char errorText[errorTextSize] = {};
    if (library.findAllDevs(&devices.first, errorText) == -1) {
        // No adapter yet to ask pcap_geterr; the list call wrote its reason here.
        LogLine(3) << "Error in pcap_findalldevs: " << static_cast<const char*>(errorText);
        return false;
    }
    if (adapterName == nullptr) {
        LogLine(3) << "not foud intrface: " << static_cast<unsigned>(ifIndex);
        return false;
    }
    for (PacketDevice* device = devices.first; device != nullptr; device = device->next) {
        if (device->name == nullptr || std::strstr(device->name, adapterName) == nullptr) continue;
        adapter = library.openLive(device->name, captureLength, promiscuous, readTimeoutMs, errorText);
        if (adapter == nullptr) {
            LogLine(3) << "Unable to open the adapter. " << static_cast<const char*>(device->name)
                       << " is not supported by WinPcap";
            return false;
        }
        // A failed allocation leaves the context without a queue; sending a
        // list then fails, as it would with a failed allocation per send.
        if (library.hasQueue()) queue = library.queueAlloc(queueSize);
        return true;
    }
    LogLine(3) << "not foud pcap interface: " << adapterName;
    for (PacketDevice* device = devices.first; device != nullptr; device = device->next) {
        LogLine(3) << static_cast<const char*>(device->name != nullptr ? device->name : "");
    }
    return false;
}

void RawContext::logSendError(const char* what) {
    LogLine line(3);
    if (line.data() == nullptr) return;  // below the threshold: not even ask the library
    line << what << static_cast<const char*>(library.lastErrorText(adapter));
}

bool RawContext::sendFrame(const std::uint8_t* data, std::uint32_t length) {
    if (library.sendPacket(adapter, data, static_cast<int>(length)) == 0) return true;
    logSendError("Error sending the packet: ");
    return false;
}

bool RawContext::sendQueued(BufferList frames) {
    if (queue == nullptr) return false;
    queue->length = 0;  // reused: what the last transmit held is gone
    std::uint64_t sum = 0;
    for (EthernetBuffer* frame : frames) {
        PacketHeader header{0, 0, frame->length, frame->length};
        // A frame that doesn't fit is lost; the sum check below reports it.
        library.queueAdd(queue, &header, frame->frame());
        sum += frame->length;
    }
    unsigned sent = library.queueTransmit(adapter, queue, 1);
    if (sent < sum) {
        logSendError("Error sending the packet wue: ");
        return false;
    }
    return true;
}

bool RawContext::sendFrames(BufferList frames) {
    if (frames.empty()) return true;
    if (adapter == nullptr) return false;  // openRaw failed
    if (frames.size() == 1) return sendFrame(frames.front()->frame(), frames.front()->length);
    if (library.hasQueue()) return sendQueued(frames);
    for (EthernetBuffer* frame : frames) {
        if (!sendFrame(frame->frame(), frame->length)) return false;
    }
    return true;
}

// ---- UDPV6 of kind raw ---------------------------------------------------------

bool UDPV6::openRaw(std::uint16_t ifIndex) {
    if (kind != raw) return false;
    close();
    rawContext = std::make_unique<RawContext>();
    handle = reinterpret_cast<Platform::SocketHandle>(rawContext.get());

    // Without the library the raw path simply isn't offered: no log line.
    if (!rawContext->loadLibrary()) return false;

    InterfaceMap addresses;
    getMyLocalAddresV6(addresses, false);
    const InterfaceInfo* found = nullptr;
    for (const auto& [address, info] : addresses) {
        if (address.scope() == ifIndex) {
            found = &info;
            break;
        }
    }
    // An index without a link-local address counts as no such interface.
    return rawContext->openAdapter(ifIndex, found != nullptr ? found->adapterName.c_str() : nullptr);
}

void UDPV6::close() {
    Socket::close();
    rawContext.reset();
}

}  // namespace NORVA
