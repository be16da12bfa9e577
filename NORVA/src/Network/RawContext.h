// The raw frame path: finished Ethernet frames handed to the packet capture
// library, with no network stack in between. A UDPV6 of kind raw owns one
// RawContext once openRaw has run; the context only sends.
#pragma once

#include <cstdint>

#include "Network/EthernetBuffer.h"

namespace NORVA {

// The library's types as far as this path touches them. The library is
// loaded at run time, so its header isn't used; these follow its published
// layouts.
struct PacketAdapter;  // pcap_t, opaque

struct PacketDevice {  // pcap_if_t; only the leading fields are read
    PacketDevice* next;
    char* name;
};

// WinPcap's 16-byte packet header (a timeval of two 32-bit fields); only the
// send queue, which exists on Windows alone, takes it.
struct PacketHeader {
    std::int32_t seconds;
    std::int32_t microseconds;
    std::uint32_t capturedLength;
    std::uint32_t length;
};

struct PacketSendQueue {  // pcap_send_queue
    std::uint32_t maxLength;
    std::uint32_t length;  // bytes queued, headers included
    char* buffer;
};

// The library's functions, looked up by name; a missing one stays null.
struct PacketFunctions {
    int (*findAllDevs)(PacketDevice** devices, char* errorText) = nullptr;
    PacketAdapter* (*openLive)(const char* device, int captureLength, int promiscuous, int timeoutMs,
                               char* errorText) = nullptr;
    void (*closeAdapter)(PacketAdapter* adapter) = nullptr;
    PacketSendQueue* (*queueAlloc)(unsigned size) = nullptr;
    void (*queueDestroy)(PacketSendQueue* queue) = nullptr;
    int (*sendPacket)(PacketAdapter* adapter, const unsigned char* frame, int length) = nullptr;
    int (*queueAdd)(PacketSendQueue* queue, const PacketHeader* header, const unsigned char* frame) = nullptr;
    unsigned (*queueTransmit)(PacketAdapter* adapter, PacketSendQueue* queue, int sync) = nullptr;
    char* (*lastErrorText)(PacketAdapter* adapter) = nullptr;
    void (*freeAllDevs)(PacketDevice* devices) = nullptr;

    // Fills every entry through `lookup`.
    void lookUp(void* (*lookup)(const char* name));
    // The ones that every send path needs, and the send queue where the
    // system's library has it.
    bool complete(bool queueRequired) const;
    bool hasQueue() const;
};

// Where the functions come from: the platform's loader, or a test's fake
// library. Null restores the platform's.
using PacketSymbolLookup = void* (*)(const char* name);
void setPacketSymbolLookup(PacketSymbolLookup lookup);

class RawContext {
  public:
    static constexpr unsigned queueSize = 0x100000;
    static constexpr int captureLength = 0;
    static constexpr int promiscuous = 1;
    static constexpr int readTimeoutMs = 1000;

    PacketAdapter* adapter = nullptr;
    PacketFunctions library;
    // Made once with the adapter and reused by each send of several frames,
    // so that sending doesn't allocate. Null without a queue.
    PacketSendQueue* queue = nullptr;

    RawContext() = default;
    // Closes the adapter and frees the queue.
    ~RawContext();
    RawContext(const RawContext&) = delete;
    RawContext& operator=(const RawContext&) = delete;

    // Looks up the library's functions; false, silently, if it or one of
    // the needed functions is missing.
    bool loadLibrary();
    // Opens the first device whose name contains `adapterName`, the name of
    // the local interface `ifIndex` (null: there is none). Logs why it fails.
    bool openAdapter(std::uint16_t ifIndex, const char* adapterName);

    // One frame, at once.
    bool sendFrame(const std::uint8_t* data, std::uint32_t length);
    // The frames of the list in order, each `length` bytes at `data + head`:
    // one transmit of the send queue where there is one, else one by one.
    bool sendFrames(BufferList frames);

  private:
    bool sendQueued(BufferList frames);
    void logSendError(const char* what);
};

}  // namespace NORVA
