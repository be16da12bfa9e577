// Reading a received frame: header fields, validation, and the text forms
// that bodies carry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Network/IPAddress.h"
#include "Protocol/Frame.h"

namespace VELMORA {

// A body's text: its bytes, no terminator.
void bodyTextOf(const std::uint8_t* body, std::uint32_t size, std::string& out);
// A list of strings joined by one zero byte each. Always at least one
// string: an empty body gives one empty string, a trailing zero byte a last
// empty one.
void bodyTextListOf(const std::uint8_t* body, std::uint32_t size, std::vector<std::string>& out);
// The 16 address bytes and the port of a body of at least 18 bytes, and the
// text after them. A shorter body gives empty text and leaves the address.
void bodyAddressAndTextOf(const std::uint8_t* body, std::uint32_t size, NORVA::IPAddress& address,
                          std::string& text);

// A view of a received header-framed message; it owns nothing.
class Receive {
  public:
    const std::uint8_t* frame = nullptr;
    std::uint32_t size = 0;  // bytes received

    Receive() = default;
    Receive(const std::uint8_t* data, std::uint32_t received) : frame(data), size(received) {}

    // At least a header, version 100, and no longer by its length field than
    // what arrived. Bytes beyond the length field are ignored.
    bool isValid() const;

    std::uint16_t version() const { return field(FrameHeader::versionAt); }
    std::uint16_t length() const { return field(FrameHeader::lengthAt); }
    std::uint16_t type() const { return field(FrameHeader::typeAt); }
    std::uint16_t flags() const { return field(FrameHeader::flagsAt); }
    std::uint16_t param(int index) const { return field(FrameHeader::paramsAt + 2 * index); }
    std::uint16_t param0() const { return param(0); }
    std::uint16_t param1() const { return param(1); }
    std::uint16_t param2() const { return param(2); }
    std::uint16_t param3() const { return param(3); }
    std::uint64_t paramU64() const;

    const std::uint8_t* body() const { return frame + headerSize; }
    // By the length field, and never past what arrived.
    std::uint32_t bodySize() const;

    void bodyText(std::string& out) const { bodyTextOf(body(), bodySize(), out); }
    void bodyTextList(std::vector<std::string>& out) const { bodyTextListOf(body(), bodySize(), out); }
    void bodyAddressAndText(NORVA::IPAddress& address, std::string& text) const {
        bodyAddressAndTextOf(body(), bodySize(), address, text);
    }

  private:
    // 0 for a field beyond what arrived.
    std::uint16_t field(std::uint32_t offset) const {
        return offset + 2 <= size ? readU16(frame + offset) : 0;
    }
};

}  // namespace VELMORA
