// One message as built for a socket or as received from it, in one of the
// four framing modes, and a pool of prepared stream buffers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Network/EthernetBuffer.h"
#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Protocol/Frame.h"
#include "Protocol/Receive.h"

namespace VELMORA {

// Where the header fields go. Control messages are always `header`; the
// others carry stream data with only a one-byte tag from param0 and flags.
enum class FramingMode : std::int32_t {
    header = 0,    // 16-byte header, body, pad
    tagLast = 1,   // body, then the tag as the last byte
    tagFirst = 2,  // the tag as a little-endian u16, then the body
    ethernet = 3,  // raw Ethernet frame: MACs, ether type, link byte, tag, body
};

// Where the fields of an ethernet frame lie, for its builder and its reader.
namespace EthernetFrame {
inline constexpr std::uint32_t destinationMacAt = 0;
inline constexpr std::uint32_t sourceMacAt = 6;
inline constexpr std::uint32_t etherTypeAt = 12;
inline constexpr std::uint32_t linkByteAt = 14;
inline constexpr std::uint32_t tagAt = 15;
inline constexpr std::uint32_t shortSizeAt = 16;
inline constexpr std::uint8_t shortFrameBit = 0x80;  // in the link byte
}  // namespace EthernetFrame

class ConnectionBuffer : public Message {
  public:
    // The frame; it starts on `header`'s bytes, so a bare message is sent
    // straight from there.
    std::unique_ptr<NORVA::EthernetBuffer> frame;
    FramingMode mode = FramingMode::header;
    std::uint8_t sourceMac[6] = {};       // ethernet only
    std::uint8_t destinationMac[6] = {};  // ethernet only
    std::uint16_t etherType = 0;          // ethernet only
    std::uint8_t linkByte = 0;            // ethernet only
    bool shortFrame = false;              // ethernet only: size carried in the frame

    // Ethernet frames shorter than this may be padded by the link.
    static constexpr std::uint32_t ethernetMinimum = 60;
    static constexpr std::uint32_t ethernetHeaderSize = 16;
    static constexpr std::uint32_t shortFrameHeaderSize = 24;

    // For receiving.
    explicit ConnectionBuffer(NORVA::EthernetSocket& socket);
    // For a message whose body is added afterwards.
    ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer);
    // Bare requests, finished and ready to send.
    ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer, std::uint16_t type);
    ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer, std::uint16_t type,
                     std::uint16_t param0, std::uint16_t param1, std::uint16_t param2, std::uint16_t param3);
    ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer, std::uint16_t type,
                     std::uint64_t value);
    // A stream buffer in mode header, tagLast or tagFirst.
    ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer, FramingMode framing);
    // A stream buffer for the raw path, out of the interface `interfaceIndex`.
    ConnectionBuffer(NORVA::EthernetSocket& socket, std::uint32_t interfaceIndex,
                     const std::uint8_t source[6], const std::uint8_t destination[6], std::uint16_t etherType,
                     std::uint8_t linkByte);

    // Writes the header (or the tag) into the frame, then commits it.
    void finish() override;

    // Sizes the frame for a body of `size` bytes as the mode lays it out;
    // the old body is gone.
    void setBodySize(std::uint16_t size);
    // Sizes the frame to exactly `size` bytes, with a length field of
    // size & 0xFFF8.
    void setFrameSize(std::uint16_t size);
    void setBodyText(std::string_view text);
    void fill(std::uint8_t value);

    std::uint8_t* body();
    const std::uint8_t* body() const;
    // From the length field in mode header; 0 in mode ethernet, where the
    // stream knows the size.
    std::uint32_t bodySize() const;

    // The frame as received, read as a header-framed message.
    Receive received() const { return Receive(frame->frame(), frame->length); }
    std::uint16_t type() const { return received().type(); }
    std::uint16_t flags() const { return received().flags(); }
    std::uint16_t param0() const { return received().param0(); }
    std::uint16_t param1() const { return received().param1(); }
    std::uint16_t param2() const { return received().param2(); }
    std::uint16_t param3() const { return received().param3(); }
    std::uint64_t paramU64() const { return received().paramU64(); }
    bool isValid() const { return received().isValid(); }

    // Nothing received, or a refusal.
    bool isEmpty() const { return frame->length == 0; }
    void clear() { frame->length = 0; }

    void bodyText(std::string& out) const;
    void bodyTextList(std::vector<std::string>& out) const;
    void bodyAddressAndText(NORVA::IPAddress& address, std::string& text) const;

  private:
    std::uint32_t bodyOffset() const;
    // The space the frame leaves for the body in the compact modes.
    std::uint32_t bodyRoom() const;
    void writeHeader();
    void writeLinkFields(std::uint16_t size);
};

// Buffers prepared once for one destination, so that sending a stream
// packet only writes its tag or header.
class ConnectionBufferPool {
  public:
    ConnectionBufferPool(NORVA::EthernetSocket& socket, const NORVA::IPAddress& destination,
                         const std::uint8_t sourceMac[6], const std::uint8_t destinationMac[6],
                         std::uint16_t etherType, std::uint8_t linkByte, FramingMode mode);

    // Replaces the buffers with `count` new ones.
    void resize(std::size_t count);
    std::size_t size() const { return buffers.size(); }
    ConnectionBuffer& operator[](std::size_t index) { return *buffers[index]; }

  private:
    NORVA::EthernetSocket& socket;
    NORVA::IPAddress destination;
    std::uint8_t sourceMac[6];
    std::uint8_t destinationMac[6];
    std::uint16_t etherType;
    std::uint8_t linkByte;
    FramingMode mode;
    std::vector<std::unique_ptr<ConnectionBuffer>> buffers;
};

}  // namespace VELMORA
