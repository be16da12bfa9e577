#include "Protocol/ConnectionBuffer.h"

#include <algorithm>
#include <cstring>

namespace VELMORA {

namespace {

// Room ahead of a tagFirst frame, so that its body lies at offset 8 of the
// allocation, as a header-framed body lies at 16.
constexpr std::uint32_t tagFirstRoom = 6;

}  // namespace

using namespace EthernetFrame;

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket)
    : frame(socket.newBuffer(header.bytes, headerSize)) {}

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer)
    : ConnectionBuffer(socket) {
    frame->setPeer(peer);
}

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer,
                                   std::uint16_t type)
    : ConnectionBuffer(socket, peer, type, 0, 0, 0, 0) {}

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer,
                                   std::uint16_t type, std::uint16_t param0, std::uint16_t param1,
                                   std::uint16_t param2, std::uint16_t param3)
    : ConnectionBuffer(socket, peer) {
    setHeader(type, 0, param0, param1, param2, param3);
    finish();
}

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer,
                                   std::uint16_t type, std::uint64_t value)
    : ConnectionBuffer(socket, peer) {
    setHeader(type, 0, value);
    finish();
}

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket, const NORVA::IPAddress& peer,
                                   FramingMode framing)
    : ConnectionBuffer(socket, peer) {
    mode = framing;
}

ConnectionBuffer::ConnectionBuffer(NORVA::EthernetSocket& socket, std::uint32_t interfaceIndex,
                                   const std::uint8_t source[6], const std::uint8_t destination[6],
                                   std::uint16_t type, std::uint8_t link)
    : ConnectionBuffer(socket) {
    mode = FramingMode::ethernet;
    std::memcpy(sourceMac, source, 6);
    std::memcpy(destinationMac, destination, 6);
    etherType = type;
    linkByte = link;
    frame->setPeerScope(static_cast<std::uint16_t>(interfaceIndex));
}

std::uint32_t ConnectionBuffer::bodyOffset() const {
    switch (mode) {
        case FramingMode::header:
            return headerSize;
        case FramingMode::tagLast:
            return 0;
        case FramingMode::tagFirst:
            return 2;
        case FramingMode::ethernet:
            return shortFrame ? shortFrameHeaderSize : ethernetHeaderSize;
    }
    return 0;
}

std::uint32_t ConnectionBuffer::bodyRoom() const {
    std::uint32_t overhead = mode == FramingMode::tagLast ? 1 : bodyOffset();
    return frame->length > overhead ? frame->length - overhead : 0;
}

std::uint8_t* ConnectionBuffer::body() {
    return frame->frame() + bodyOffset();
}

const std::uint8_t* ConnectionBuffer::body() const {
    return frame->frame() + bodyOffset();
}

std::uint32_t ConnectionBuffer::bodySize() const {
    switch (mode) {
        case FramingMode::header:
            return received().bodySize();
        case FramingMode::tagLast:
        case FramingMode::tagFirst:
            return bodyRoom();
        case FramingMode::ethernet:
            return 0;
    }
    return 0;
}

void ConnectionBuffer::setBodySize(std::uint16_t size) {
    switch (mode) {
        case FramingMode::header:
            frame->resize(frameSizeOf(lengthFieldFor(size)), 0);
            header.setLength(lengthFieldFor(size));
            writeHeader();
            return;
        case FramingMode::tagLast:
            frame->resize(size + 1u, 0);
            return;
        case FramingMode::tagFirst:
            frame->resize(size + 2u, tagFirstRoom);
            return;
        case FramingMode::ethernet:
            shortFrame = size + ethernetHeaderSize < ethernetMinimum;
            frame->resize(size + bodyOffset(), 0);
            writeLinkFields(size);
            return;
    }
}

void ConnectionBuffer::writeLinkFields(std::uint16_t size) {
    std::uint8_t* bytes = frame->frame();
    std::memcpy(bytes + destinationMacAt, destinationMac, 6);
    std::memcpy(bytes + sourceMacAt, sourceMac, 6);
    bytes[etherTypeAt] = static_cast<std::uint8_t>(etherType >> 8);
    bytes[etherTypeAt + 1] = static_cast<std::uint8_t>(etherType);
    bytes[linkByteAt] = linkByte;
    if (shortFrame) {
        std::memset(bytes + shortSizeAt, 0, shortFrameHeaderSize - shortSizeAt);
        bytes[shortSizeAt] = static_cast<std::uint8_t>(size);
    }
}

void ConnectionBuffer::setFrameSize(std::uint16_t size) {
    frame->resize(size, mode == FramingMode::tagFirst ? tagFirstRoom : 0);
    header.setLength(static_cast<std::uint16_t>(frameSizeOf(size)));
    if (mode == FramingMode::header) writeHeader();
}

void ConnectionBuffer::setBodyText(std::string_view text) {
    setBodySize(static_cast<std::uint16_t>(text.size()));
    std::memcpy(body(), text.data(), text.size());
}

void ConnectionBuffer::fill(std::uint8_t value) {
    std::uint32_t size = mode == FramingMode::header ? bodySize() : bodyRoom();
    std::memset(body(), value, size);
}

void ConnectionBuffer::writeHeader() {
    std::uint8_t* bytes = frame->frame();
    std::uint32_t size = frame->length;
    switch (mode) {
        case FramingMode::header:
            // A bare message's frame is the header itself.
            if (size >= headerSize && bytes != header.bytes) std::memcpy(bytes, header.bytes, headerSize);
            return;
        case FramingMode::tagLast:
            if (size >= 1) bytes[size - 1] = header.tag();
            return;
        case FramingMode::tagFirst:
            if (size >= 2) writeU16(bytes, header.tag());
            return;
        case FramingMode::ethernet:
            if (size < ethernetHeaderSize) return;
            bytes[tagAt] = header.tag();
            if (shortFrame) bytes[linkByteAt] |= shortFrameBit;
            return;
    }
}

void ConnectionBuffer::finish() {
    writeHeader();
    frame->commit();
}

void ConnectionBuffer::bodyText(std::string& out) const {
    bodyTextOf(body(), bodySize(), out);
}

void ConnectionBuffer::bodyTextList(std::vector<std::string>& out) const {
    bodyTextListOf(body(), bodySize(), out);
}

void ConnectionBuffer::bodyAddressAndText(NORVA::IPAddress& address, std::string& text) const {
    bodyAddressAndTextOf(body(), bodySize(), address, text);
}

// ---- ConnectionBufferPool ---------------------------------------------------

ConnectionBufferPool::ConnectionBufferPool(NORVA::EthernetSocket& owner, const NORVA::IPAddress& to,
                                           const std::uint8_t source[6],
                                           const std::uint8_t destinationLink[6], std::uint16_t type,
                                           std::uint8_t link, FramingMode framing)
    : socket(owner), destination(to), etherType(type), linkByte(link), mode(framing) {
    std::memcpy(sourceMac, source, 6);
    std::memcpy(destinationMac, destinationLink, 6);
}

void ConnectionBufferPool::resize(std::size_t count) {
    buffers.clear();
    buffers.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        if (mode == FramingMode::ethernet) {
            buffers.push_back(std::make_unique<ConnectionBuffer>(socket, destination.scope(), sourceMac,
                                                                 destinationMac, etherType, linkByte));
        } else {
            buffers.push_back(std::make_unique<ConnectionBuffer>(socket, destination, mode));
        }
    }
}

}  // namespace VELMORA
