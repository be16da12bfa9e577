#include "Protocol/Send.h"

#include <algorithm>
#include <cstring>

namespace VELMORA {

void SendBuffer::useArray() {
    bytes = NORVA::BufferCS_const{array.data(), static_cast<std::uint32_t>(array.size())};
}

void SendBuffer::finish() {
    std::memcpy(array.data(), header.bytes, headerSize);
}

void SendBuffer::sizeBody(std::uint16_t size) {
    std::uint16_t length = lengthFieldFor(size);
    std::uint32_t frameSize = frameSizeOf(length);
    array.resize(frameSize);
    std::memset(array.data() + headerSize + size, 0, frameSize - headerSize - size);
    header.setLength(length);
    bodySize = size;
    useArray();
}

void SendBuffer::setBodySize(std::uint16_t size) {
    sizeBody(size);
}

void SendBuffer::setBodySize(std::uint16_t size, std::uint16_t reserve) {
    array.reserve(frameSizeOf(lengthFieldFor(reserve)));
    sizeBody(size);
}

void SendBuffer::setFrameSize(std::uint16_t size) {
    // Never less than the header, which finish() writes.
    std::uint16_t frameSize = static_cast<std::uint16_t>(std::max(frameSizeOf(size), headerSize));
    array.resize(frameSize);
    header.setLength(frameSize);
    bodySize = static_cast<std::uint16_t>(frameSize - headerSize);
    useArray();
}

void SendBuffer::setBodyText(std::string_view text) {
    sizeBody(static_cast<std::uint16_t>(text.size()));
    std::memcpy(body(), text.data(), text.size());
}

void SendBuffer::appendBodyText(std::string_view text) {
    std::uint16_t start = bodySize;
    sizeBody(static_cast<std::uint16_t>(start + 1 + text.size()));
    body()[start] = 0;
    std::memcpy(body() + start + 1, text.data(), text.size());
}

void SendBuffer::setAddressBody(const NORVA::IPAddress& address, std::string_view text) {
    sizeBody(static_cast<std::uint16_t>(18 + text.size()));
    address.copyBytes(body());
    std::memcpy(body() + 16, &address.portNetworkOrder, 2);
    std::memcpy(body() + 18, text.data(), text.size());
}

}  // namespace VELMORA
