#include "LocalService.h"

#include <cstring>

#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Protocol/Frame.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace {

using VELMORA::FrameHeader;
namespace MessageType = VELMORA::MessageType;

constexpr std::uint16_t comingUp = 2;
constexpr std::uint16_t goingAway = 0;

struct Request {
    FrameHeader frame;
    std::uint16_t answerType;
};

// Only the answer's header counts.
bool isAnswer(const std::uint8_t* data, std::size_t received, std::uint16_t type) {
    if (received < VELMORA::headerSize) return false;
    FrameHeader header;
    std::memcpy(header.bytes, data, VELMORA::headerSize);
    return VELMORA::readU16(header.bytes + FrameHeader::versionAt) == VELMORA::protocolVersion &&
           VELMORA::frameSizeOf(header.length()) <= received && header.type() == type;
}

bool answered(NORVA::UDPV6& socket, const LocalServiceExchange& exchange, std::uint16_t type) {
    if (socket.waitReadable(exchange.answerWait) != 2) return false;
    std::uint8_t data[1500];
    std::size_t received = 0;
    NORVA::IPAddress peer;
    return socket.receiveFrom(data, sizeof(data), received, peer) && isAnswer(data, received, type);
}

// Sends each request once; with `waitForAnswers`, again and again until its
// answer comes, as long as the time limit of both together allows.
void run(const LocalServiceExchange& exchange, const Request (&requests)[2], bool waitForAnswers) {
    NORVA::UDPV6 socket;
    if (!socket.open(NORVA::Socket::udp6) || !socket.setBlocking(false)) {
        NORVA::LogLine(3) << "udp  open error:" << socket.lastError;
        return;
    }
    NORVA::IPAddress local = NORVA::IPAddress::loopback(0);
    if (!socket.bind(local)) {
        NORVA::LogLine(3) << "udp  bind error:" << socket.lastError;
        return;
    }
    const NORVA::IPAddress service = NORVA::IPAddress::loopback(exchange.port);
    const NORVA::TimeValue start = NORVA::TimeValue::now();
    for (const Request& request : requests) {
        while (NORVA::TimeValue::now() - start < exchange.limit) {
            if (!socket.sendTo(service, false, request.frame.bytes, VELMORA::headerSize)) {
                NORVA::LogLine(3) << "udp  send error:" << socket.lastError;
                return;
            }
            if (!waitForAnswers || answered(socket, exchange, request.answerType)) break;
        }
    }
}

Request serviceRequest(std::uint16_t flags, std::uint64_t processId) {
    Request request{{}, MessageType::LOCALSERVICE_ANS};
    request.frame.set(MessageType::LOCALSERVICE_REQ, flags, processId);
    return request;
}

Request cpuRequest(std::uint16_t flags, std::uint16_t send, std::uint16_t sendCount, std::uint16_t other,
                   std::uint16_t otherCount) {
    Request request{{}, MessageType::LOCALCPU_ANS};
    request.frame.set(MessageType::LOCALCPU_REQ, flags, send, sendCount, other, otherCount);
    return request;
}

}  // namespace

void LocalServiceExchange::up(const DriverSettings& settings, std::uint64_t processId) const {
    // A setting of -1 goes out as 0xFFFF.
    const Request requests[2] = {
        serviceRequest(comingUp, processId),
        cpuRequest(comingUp, std::uint16_t(settings.cpuSend), 1, std::uint16_t(settings.cpuOther),
                   std::uint16_t(settings.cpuOtherCount))};
    run(*this, requests, settings.ackProcessCtl);
}

void LocalServiceExchange::down(const DriverSettings& settings, std::uint64_t processId) const {
    const Request requests[2] = {serviceRequest(goingAway, processId),
                                 cpuRequest(goingAway, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF)};
    run(*this, requests, settings.ackProcessCtl);
}

bool wantsLocalService(const DriverSettings& settings) {
    return ((settings.thredMode & thredModeCpuSend) != 0 && settings.cpuSend != -1) ||
           settings.cpuOther != -1;
}
