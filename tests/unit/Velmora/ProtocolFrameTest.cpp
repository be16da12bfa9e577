#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "Network/Socket.h"
#include "Protocol/ConnectionBuffer.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

namespace {

using NORVA::IPAddress;
using VELMORA::ConnectionBuffer;
using VELMORA::FramingMode;
using VELMORA::Receive;
using VELMORA::SendBuffer;
namespace MessageType = VELMORA::MessageType;

std::vector<std::uint8_t> bytesOf(const ConnectionBuffer& buffer) {
    const std::uint8_t* frame = buffer.frame->frame();
    return std::vector<std::uint8_t>(frame, frame + buffer.frame->length);
}

std::vector<std::uint8_t> bytesOf(const SendBuffer& buffer) {
    return std::vector<std::uint8_t>(buffer.bytes.data, buffer.bytes.data + buffer.bytes.size);
}

// A received frame with the given version and length field, `size` bytes.
std::vector<std::uint8_t> receivedFrame(std::uint16_t version, std::uint16_t length, std::size_t size) {
    std::vector<std::uint8_t> frame(size, 0);
    VELMORA::writeU16(frame.data(), version);
    VELMORA::writeU16(frame.data() + 2, length);
    return frame;
}

Receive viewOf(const std::vector<std::uint8_t>& frame) {
    return Receive(frame.data(), static_cast<std::uint32_t>(frame.size()));
}

TEST(FrameLength, RoundsUpToEightAndCountsThePad) {
    struct Case {
        std::uint32_t body;
        std::uint16_t length;
    };
    for (Case c : {Case{0, 0x0010}, Case{1, 0x001F}, Case{5, 0x001B}, Case{8, 0x0018}, Case{9, 0x0027}}) {
        SCOPED_TRACE(c.body);
        EXPECT_EQ(VELMORA::lengthFieldFor(c.body), c.length);
        EXPECT_EQ(VELMORA::bodySizeOf(c.length), c.body);
    }
    EXPECT_EQ(VELMORA::frameSizeOf(0x0027), 32u);
    // A length field that can't be (a pad larger than the body) gives no body.
    EXPECT_EQ(VELMORA::bodySizeOf(0x0017), 0u);
}

TEST(FrameValidation, RefusesShortFramesOtherVersionsAndLengthsBeyondTheDatagram) {
    EXPECT_FALSE(viewOf(receivedFrame(100, 0x0018, 16)).isValid());
    std::vector<std::uint8_t> longer = receivedFrame(100, 0x0018, 40);
    EXPECT_TRUE(viewOf(longer).isValid());
    EXPECT_EQ(viewOf(longer).bodySize(), 8u);

    EXPECT_TRUE(viewOf(receivedFrame(100, 0x0010, 16)).isValid());
    EXPECT_FALSE(viewOf(receivedFrame(99, 0x0010, 16)).isValid());
    EXPECT_FALSE(viewOf(receivedFrame(101, 0x0010, 16)).isValid());
    EXPECT_FALSE(viewOf(receivedFrame(100, 0x0010, 15)).isValid());

    // Fields beyond what arrived read as 0 rather than past the end.
    std::vector<std::uint8_t> stub = receivedFrame(100, 0x0010, 4);
    EXPECT_EQ(viewOf(stub).type(), 0);
    EXPECT_EQ(viewOf(stub).bodySize(), 0u);
}

TEST(FrameHeader, FieldsAreLittleEndianAndParametersFormOneWord) {
    NORVA::UDPV6 socket;
    ConnectionBuffer request(socket, IPAddress::loopback(19642), MessageType::TARGETINFO_REQ,
                             0x1122334455667788ull);
    std::vector<std::uint8_t> expected = {0x64, 0x00, 0x10, 0x00, 0x2C, 0x00, 0x00, 0x00,
                                          0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};
    EXPECT_EQ(bytesOf(request), expected);
    EXPECT_EQ(request.type(), MessageType::TARGETINFO_REQ);
    EXPECT_EQ(request.param0(), 0x7788);
    EXPECT_EQ(request.param3(), 0x1122);
    EXPECT_EQ(request.paramU64(), 0x1122334455667788ull);
    EXPECT_EQ(request.bodySize(), 0u);
    ASSERT_NE(request.frame->peerRecord(), nullptr);
    EXPECT_EQ(request.frame->peerRecord()->portNetworkOrder, IPAddress::loopback(19642).portNetworkOrder);

    // setFlags rewrites the frame at once.
    request.setFlags(0xFFFF, VELMORA::flagYes);
    EXPECT_EQ(request.flags(), VELMORA::flagYes);
}

TEST(ConnectionBufferMode0, BodyIsPaddedToEightAndKeepsTheHeader) {
    NORVA::UDPV6 socket;
    ConnectionBuffer message(socket, IPAddress::loopback(1));
    message.setHeader(MessageType::TARGETNAME_ANS, VELMORA::flagYes, 7, 0, 0, 0);
    message.setBodyText("abcde");
    message.finish();
    EXPECT_EQ(message.frame->length, 24u);
    EXPECT_EQ(message.received().length(), 0x001B);
    EXPECT_EQ(message.bodySize(), 5u);
    EXPECT_EQ(message.param0(), 7);
    std::string text;
    message.bodyText(text);
    EXPECT_EQ(text, "abcde");

    message.fill(0xEE);
    EXPECT_EQ(message.body()[4], 0xEE);

    message.setFrameSize(1000);
    EXPECT_EQ(message.frame->length, 1000u);
    EXPECT_EQ(message.received().length(), 1000 & 0xFFF8);
    EXPECT_EQ(message.type(), MessageType::TARGETNAME_ANS);
}

TEST(ConnectionBufferModes, CompactStreamFramesCarryOnlyTheTag) {
    NORVA::UDPV6 socket;
    // Tag: param0's low 7 bits, with bit 7 from flag 0x20.
    ConnectionBuffer last(socket, IPAddress::loopback(1), FramingMode::tagLast);
    last.setHeader(MessageType::STREAM_DATA, VELMORA::flagTagHigh, 0x0185, 0, 0, 0);
    last.setBodySize(0);
    last.finish();
    EXPECT_EQ(bytesOf(last), std::vector<std::uint8_t>{0x85});
    EXPECT_EQ(last.bodySize(), 0u);

    last.setBodySize(3);
    std::memcpy(last.body(), "xyz", 3);
    last.finish();
    EXPECT_EQ(bytesOf(last), (std::vector<std::uint8_t>{'x', 'y', 'z', 0x85}));

    ConnectionBuffer first(socket, IPAddress::loopback(1), FramingMode::tagFirst);
    first.setHeader(MessageType::STREAM_DATA, 0, 0x0042, 0, 0, 0);
    first.setBodySize(16);
    first.fill(0xAB);
    first.finish();
    EXPECT_EQ(first.bodySize(), 16u);
    EXPECT_EQ(first.frame->length, 18u);
    EXPECT_EQ(first.frame->frame()[0], 0x42);
    EXPECT_EQ(first.frame->frame()[1], 0x00);
    EXPECT_EQ(first.frame->frame()[2], 0xAB);
    // The body lies at offset 8 of the allocation.
    EXPECT_EQ(first.body(), first.frame->data + 8);
}

class EthernetFrame : public ::testing::Test {
  protected:
    const std::uint8_t source[6] = {0x02, 0, 0, 0, 0, 0x01};
    const std::uint8_t destination[6] = {0x02, 0, 0, 0, 0, 0x02};
    NORVA::UDPV6 socket;
    ConnectionBuffer buffer{socket, 5, source, destination, 0x88B5, 0x11};

    void build(std::uint16_t bodySize) {
        buffer.setHeader(MessageType::STREAM_DATA, 0, 0x0003, 0, 0, 0);
        buffer.setBodySize(bodySize);
        std::memset(buffer.body(), 0xCD, bodySize);
        buffer.finish();
    }
};

TEST_F(EthernetFrame, ABodyOf43IsShortAndCarriesItsSize) {
    build(43);
    std::vector<std::uint8_t> frame = bytesOf(buffer);
    ASSERT_EQ(frame.size(), 24u + 43u);
    EXPECT_TRUE(buffer.shortFrame);
    EXPECT_EQ(std::vector<std::uint8_t>(frame.begin(), frame.begin() + 6),
              std::vector<std::uint8_t>(destination, destination + 6));
    EXPECT_EQ(std::vector<std::uint8_t>(frame.begin() + 6, frame.begin() + 12),
              std::vector<std::uint8_t>(source, source + 6));
    EXPECT_EQ(frame[12], 0x88);
    EXPECT_EQ(frame[13], 0xB5);
    EXPECT_EQ(frame[14], 0x11 | 0x80);
    EXPECT_EQ(frame[15], 0x03);
    EXPECT_EQ(frame[16], 43);
    EXPECT_EQ(std::vector<std::uint8_t>(frame.begin() + 17, frame.begin() + 24),
              std::vector<std::uint8_t>(7, 0));
    EXPECT_EQ(frame[24], 0xCD);
    EXPECT_EQ(buffer.bodySize(), 0u);
    ASSERT_NE(buffer.frame->peerRecord(), nullptr);
    EXPECT_EQ(buffer.frame->peerRecord()->scope, 5u);
}

TEST_F(EthernetFrame, ABodyOf44IsNotShort) {
    build(43);
    build(44);
    std::vector<std::uint8_t> frame = bytesOf(buffer);
    ASSERT_EQ(frame.size(), 16u + 44u);
    EXPECT_FALSE(buffer.shortFrame);
    EXPECT_EQ(frame[14], 0x11);
    EXPECT_EQ(frame[15], 0x03);
    EXPECT_EQ(frame[16], 0xCD);
}

TEST(ConnectionBufferPool, BuildsPreparedBuffersThatSendFromTheirFrameStart) {
    NORVA::UDPV6 sender;
    NORVA::UDPV6 receiver;
    IPAddress senderAddress = IPAddress::loopback(0);
    IPAddress destination = IPAddress::loopback(0);
    ASSERT_TRUE(sender.openNonBlocking());
    ASSERT_TRUE(sender.bind(senderAddress));
    ASSERT_TRUE(receiver.openNonBlocking());
    ASSERT_TRUE(receiver.bind(destination));
    const std::uint8_t noMac[6] = {};

    VELMORA::ConnectionBufferPool pool(sender, destination, noMac, noMac, 0, 0, FramingMode::tagFirst);
    pool.resize(3);
    ASSERT_EQ(pool.size(), 3u);
    ConnectionBuffer& packet = pool[2];
    EXPECT_EQ(packet.mode, FramingMode::tagFirst);
    packet.setHeader(MessageType::STREAM_DATA, 0, 5, 0, 0, 0);
    packet.setBodySize(4);
    std::memcpy(packet.body(), "data", 4);
    packet.finish();
    ASSERT_TRUE(sender.send(*packet.frame));

    ASSERT_EQ(receiver.waitReadable(NORVA::TimeValue::fromSeconds(10)), 2);
    std::uint8_t data[64];
    std::size_t received = 0;
    ASSERT_TRUE(receiver.receive(data, sizeof(data), received));
    EXPECT_EQ(std::vector<std::uint8_t>(data, data + received),
              (std::vector<std::uint8_t>{0x05, 0x00, 'd', 'a', 't', 'a'}));

    IPAddress scoped = destination;
    scoped.setScope(7);
    VELMORA::ConnectionBufferPool raw(sender, scoped, noMac, noMac, 0x88B5, 0, FramingMode::ethernet);
    raw.resize(1);
    EXPECT_EQ(raw[0].mode, FramingMode::ethernet);
    ASSERT_NE(raw[0].frame->peerRecord(), nullptr);
    EXPECT_EQ(raw[0].frame->peerRecord()->scope, 7u);
}

TEST(BodyText, ListsSplitAtZeroBytes) {
    std::vector<std::string> list;
    VELMORA::bodyTextListOf(nullptr, 0, list);
    EXPECT_EQ(list, std::vector<std::string>{""});

    const std::uint8_t body[] = {'a', 'b', 0, 0, 'c', 0};
    VELMORA::bodyTextListOf(body, sizeof(body), list);
    EXPECT_EQ(list, (std::vector<std::string>{"ab", "", "c", ""}));
}

TEST(SendBuffer, BodiesAreExactFramesWithAZeroPad) {
    SendBuffer list(MessageType::SETTINGLIST_ANS, VELMORA::flagYes);
    list.setBodyText("first");
    list.appendBodyText("x");
    list.finish();
    // "first", a zero, "x": 7 bytes, one of pad.
    std::vector<std::uint8_t> frame = bytesOf(list);
    ASSERT_EQ(frame.size(), 24u);
    EXPECT_EQ(list.header.length(), VELMORA::lengthFieldFor(7));
    EXPECT_EQ(std::string(frame.begin() + 16, frame.end()), std::string("first\0x\0", 8));

    Receive received(list.bytes.data, list.bytes.size);
    ASSERT_TRUE(received.isValid());
    EXPECT_EQ(received.type(), MessageType::SETTINGLIST_ANS);
    std::vector<std::string> texts;
    received.bodyTextList(texts);
    EXPECT_EQ(texts, (std::vector<std::string>{"first", "x"}));

    // Dirty storage left by a larger body doesn't leak into the pad.
    SendBuffer reused;
    reused.setBodySize(64);
    std::memset(reused.body(), 0xFF, 64);
    reused.setBodySize(1);
    reused.finish();
    EXPECT_EQ(bytesOf(reused), (std::vector<std::uint8_t>{0x64, 0, 0x1F, 0, 0,    0, 0, 0, 0, 0, 0, 0,
                                                          0,    0, 0,    0, 0xFF, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(SendBuffer, AddressBodiesCarryAddressAndPortButNoScope) {
    IPAddress address;
    ASSERT_TRUE(address.parse("fe80::1%7,19641"));
    SendBuffer message(MessageType::DISCOVER_ANS, VELMORA::flagYes);
    message.setAddressBody(address, "sink");
    message.finish();
    ASSERT_EQ(message.bodySize, 22);

    IPAddress read;
    std::string text;
    Receive(message.bytes.data, message.bytes.size).bodyAddressAndText(read, text);
    EXPECT_EQ(text, "sink");
    EXPECT_EQ(read.toStringPort(), "fe80::1,19641");
    EXPECT_EQ(read.scope(), 0u);

    // Too short for an address: nothing is taken.
    IPAddress untouched = IPAddress::loopback(5);
    VELMORA::bodyAddressAndTextOf(message.body(), 17, untouched, text);
    EXPECT_EQ(untouched, IPAddress::loopback(5));
    EXPECT_EQ(text, "");
}

TEST(MessageTypes, AnswersFollowTheirRequests) {
    using namespace VELMORA;
    std::set<std::string> names;
    int rows = 0;
    for (std::uint32_t code = 0; code <= 0xFFFF; ++code) {
        const char* name = messageTypeName(static_cast<std::uint16_t>(code));
        if (name == nullptr) continue;
        ++rows;
        EXPECT_TRUE(names.insert(name).second) << name;
        std::uint16_t awaited = awaitedAnswer(static_cast<std::uint16_t>(code));
        if (awaited == MessageType::noAnswer) continue;
        SCOPED_TRACE(name);
        EXPECT_TRUE(isRequest(static_cast<std::uint16_t>(code)));
        EXPECT_FALSE(isRequest(awaited));
        if (code != MessageType::NOPBREAK_REQ) {
            EXPECT_EQ(awaited, code + 1);
        }
    }
    EXPECT_EQ(rows, 81);
    EXPECT_EQ(awaitedAnswer(MessageType::NOPBREAK_REQ), MessageType::FORMAT_ANS);
    EXPECT_EQ(awaitedAnswer(MessageType::SYNCHRO), MessageType::noAnswer);
    EXPECT_EQ(awaitedAnswer(MessageType::PORT_REGIST), MessageType::noAnswer);
    EXPECT_EQ(messageTypeName(0x0026), nullptr);
    EXPECT_STREQ(messageTypeName(MessageType::MTUTEST_ANS), "MTUTEST_ANS");
}

}  // namespace
