// Messages built without a socket, for the peer's side: a bare header, or a
// header with a body in an array of its own. The pad of a body is zero.
#pragma once

#include <cstdint>
#include <string_view>

#include "Network/BufferCS_const.h"
#include "Network/ByteArray.h"
#include "Network/IPAddress.h"
#include "Protocol/Frame.h"

namespace VELMORA {

// A message that is only a header.
class Send : public Message {
  public:
    // What to send: the header here, the array in a SendBuffer.
    NORVA::BufferCS_const bytes{header.bytes, headerSize};

    Send() = default;
    Send(std::uint16_t type, std::uint16_t flags) { setHeader(type, flags); }
    Send(std::uint16_t type, std::uint16_t flags, std::uint16_t param0, std::uint16_t param1,
         std::uint16_t param2, std::uint16_t param3) {
        setHeader(type, flags, param0, param1, param2, param3);
    }
    Send(std::uint16_t type, std::uint16_t flags, std::uint64_t value) { setHeader(type, flags, value); }

    // The header is the frame: nothing to write.
    void finish() override {}
};

// A message with a body. Each body operation leaves the length field right
// and the array exactly the frame; finish() copies the header to its start.
class SendBuffer : public Send {
  public:
    NORVA::ByteArray array{headerSize};
    std::uint16_t bodySize = 0;

    SendBuffer() { useArray(); }
    SendBuffer(std::uint16_t type, std::uint16_t flags) : Send(type, flags) { useArray(); }
    SendBuffer(std::uint16_t type, std::uint16_t flags, std::uint16_t param0, std::uint16_t param1,
               std::uint16_t param2, std::uint16_t param3)
        : Send(type, flags, param0, param1, param2, param3) {
        useArray();
    }
    SendBuffer(std::uint16_t type, std::uint16_t flags, std::uint64_t value) : Send(type, flags, value) {
        useArray();
    }

    void finish() override;

    std::uint8_t* body() { return array.data() + headerSize; }

    void setBodySize(std::uint16_t size);
    // The same, with room for the body to grow to `reserve` bytes without
    // moving.
    void setBodySize(std::uint16_t size, std::uint16_t reserve);
    // A frame of size & 0xFFF8 bytes and a length field to match.
    void setFrameSize(std::uint16_t size);
    void setBodyText(std::string_view text);
    // Adds a zero byte and the text to the body: the next string of a list
    // whose first was written by setBodyText.
    void appendBodyText(std::string_view text);
    // The 16 address bytes, the port as the address holds it, then the text.
    // The scope isn't sent.
    void setAddressBody(const NORVA::IPAddress& address, std::string_view text);

  private:
    void useArray();
    // Resizes the frame for a body of `size` bytes, keeping the body's bytes
    // up to the smaller size and zeroing the pad.
    void sizeBody(std::uint16_t size);
};

}  // namespace VELMORA
