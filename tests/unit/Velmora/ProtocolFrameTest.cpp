#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Network/Socket.h"
#include "Protocol/ConnectionBuffer.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

namespace {

using NORVA::IPAddress;
using namespace VELMORA;

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(const ConnectionBuffer& buffer) {
    return Bytes(buffer.frame->frame(), buffer.frame->frame() + buffer.frame->length);
}
Bytes bytesOf(const SendBuffer& buffer) {
    return Bytes(buffer.bytes.data, buffer.bytes.data + buffer.bytes.size);
}

TEST(FrameLength, RoundsUpToEightAndCountsThePad) {
    const std::pair<std::uint32_t, std::uint16_t> cases[] = {
        {0, 0x0010}, {1, 0x001F}, {5, 0x001B}, {8, 0x0018}, {9, 0x0027}};
    for (const auto& [body, length] : cases) {
        EXPECT_EQ(lengthFieldFor(body), length) << body;
        EXPECT_EQ(bodySizeOf(length), body) << body;
    }
    EXPECT_EQ(bodySizeOf(0x0017), 0u) << "a pad larger than the body";
}

TEST(FrameValidation, RefusesShortFramesOtherVersionsAndLengthsBeyondTheDatagram) {
    struct Case {
        std::uint16_t version, length;
        std::size_t size;
        bool valid;
        std::uint32_t body;
    } cases[] = {
        {100, 0x0018, 16, false, 0}, {100, 0x0018, 40, true, 8},  {100, 0x0010, 16, true, 0},
        {99, 0x0010, 16, false, 0},  {101, 0x0010, 16, false, 0}, {100, 0x0010, 15, false, 0},
        {100, 0x0010, 4, false, 0},  // fields beyond what arrived read as 0
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.version << " " << c.length << " " << c.size);
        Bytes frame(c.size, 0);
        writeU16(frame.data(), c.version);
        writeU16(frame.data() + 2, c.length);
        Receive view(frame.data(), static_cast<std::uint32_t>(frame.size()));
        EXPECT_EQ(view.isValid(), c.valid);
        EXPECT_EQ(view.bodySize(), c.body);
    }
}

// Ethernet frames: a body under 44 bytes is short, flagged in the type byte and carrying its size.
TEST(ConnectionBuffer, FieldsAreLittleEndianAndShortEthernetBodiesCarryTheirSize) {
    NORVA::UDPV6 socket;
    ConnectionBuffer request(socket, IPAddress::loopback(19642), MessageType::TARGETINFO_REQ,
                             0x1122334455667788ull);
    Bytes expected = {0x64, 0x00, 0x10, 0x00, 0x2C, 0x00, 0x00, 0x00,
                      0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    EXPECT_EQ(bytesOf(request), expected);
    EXPECT_EQ(request.paramU64(), 0x1122334455667788ull);
    request.setFlags(0xFFFF, flagYes);
    EXPECT_EQ(request.flags(), flagYes) << "setFlags rewrites the frame at once";

    const std::uint8_t source[6] = {0x02, 0, 0, 0, 0, 0x01};
    const std::uint8_t destination[6] = {0x02, 0, 0, 0, 0, 0x02};
    ConnectionBuffer buffer{socket, 5, source, destination, 0x88B5, 0x11};
    EXPECT_EQ(buffer.frame->peerRecord()->scope, 5u);
    for (std::uint16_t size : {43, 44}) {
        SCOPED_TRACE(size);
        buffer.setHeader(MessageType::STREAM_DATA, 0, 0x0003, 0, 0, 0);
        buffer.setBodySize(size);
        std::memset(buffer.body(), 0xCD, size);
        buffer.finish();
        const bool isShort = size < 44;
        Bytes frame = bytesOf(buffer);
        ASSERT_EQ(frame.size(), (isShort ? 24u : 16u) + size);
        EXPECT_EQ(buffer.shortFrame, isShort);
        Bytes head(destination, destination + 6);
        head.insert(head.end(), source, source + 6);
        head.insert(head.end(), {0x88, 0xB5, std::uint8_t(isShort ? 0x91 : 0x11), 0x03});
        if (isShort) head.insert(head.end(), {43, 0, 0, 0, 0, 0, 0, 0});
        head.push_back(0xCD);
        EXPECT_EQ(Bytes(frame.begin(), frame.begin() + head.size()), head);
    }
}

TEST(SendBuffer, TextListsAreExactFramesWithAZeroPad) {
    SendBuffer list(MessageType::SETTINGLIST_ANS, flagYes);
    list.setBodyText("first");
    list.appendBodyText("x");
    list.finish();
    Bytes frame = bytesOf(list);
    ASSERT_EQ(frame.size(), 24u);
    EXPECT_EQ(std::string(frame.begin() + 16, frame.end()), std::string("first\0x\0", 8));
    Receive received(list.bytes.data, list.bytes.size);
    ASSERT_TRUE(received.isValid());
    std::vector<std::string> texts;
    received.bodyTextList(texts);
    EXPECT_EQ(texts, (std::vector<std::string>{"first", "x"}));

    // Dirty storage left by a larger body doesn't leak into the pad.
    SendBuffer reused;
    reused.setBodySize(64);
    std::memset(reused.body(), 0xFF, 64);
    reused.setBodySize(1);
    reused.finish();
    EXPECT_EQ(bytesOf(reused),
              (Bytes{0x64, 0, 0x1F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0, 0, 0, 0, 0, 0, 0}));
}

}  // namespace
