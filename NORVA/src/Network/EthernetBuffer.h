// Frame buffers: what the protocol hands to a socket to send, and what a
// socket receives into.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "Network/ByteArray.h"
#include "Network/IPAddress.h"
#include "Platform/Platform.h"

namespace NORVA {

// One frame: `length` bytes at `data + head`. The storage given at
// construction isn't owned; a derived class may replace it with its own on
// resize.
class EthernetBuffer {
  public:
    std::uint8_t* data;
    std::uint32_t capacity;  // bytes of storage in use
    std::uint32_t head = 0;  // where the frame starts in the storage
    std::uint32_t length;    // bytes of frame; after a receive 0 if nothing arrived

    EthernetBuffer(std::uint8_t* storage, std::uint32_t size) : data(storage), capacity(size), length(size) {}
    virtual ~EthernetBuffer() = default;
    EthernetBuffer(const EthernetBuffer&) = delete;
    EthernetBuffer& operator=(const EthernetBuffer&) = delete;

    std::uint8_t* frame() { return data + head; }
    const std::uint8_t* frame() const { return data + head; }

    // Makes room for a frame of `length` bytes with `head` bytes ahead of
    // it. True if the storage may have moved.
    virtual bool resize(std::uint32_t length, std::uint32_t head) = 0;
    virtual void setPeer(const IPAddress& address) = 0;
    // The interface a frame of the raw path goes out of.
    virtual void setPeerScope(std::uint16_t scope) = 0;
    // The destination of the frame; null until set.
    virtual const Platform::SocketAddress6* peerRecord() const = 0;
    // Called when the frame is complete and about to be sent.
    virtual void commit() = 0;
};

// A list of frames for one transfer; the caller keeps the buffers alive.
using BufferList = std::span<EthernetBuffer* const>;

// The frame buffer of the UDP socket: its own storage grows on demand and is
// kept, and the destination is kept as a ready socket address.
class UDPV6EBuffer : public EthernetBuffer {
  public:
    std::unique_ptr<ByteArray> storage;              // made on the first resize
    std::unique_ptr<Platform::SocketAddress6> peer;  // made on the first setPeer

    using EthernetBuffer::EthernetBuffer;

    bool resize(std::uint32_t length, std::uint32_t head) override;
    void setPeer(const IPAddress& address) override;
    void setPeerScope(std::uint16_t scope) override;
    const Platform::SocketAddress6* peerRecord() const override { return peer.get(); }
    void commit() override {}

  private:
    Platform::SocketAddress6& peerRecordToFill();
};

}  // namespace NORVA
