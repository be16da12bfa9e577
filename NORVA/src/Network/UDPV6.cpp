#include "Network/Socket.h"

namespace NORVA {

// ---- EthernetSocket ----------------------------------------------------------

bool EthernetSocket::transfer(BufferList sendList, TimeValue deadline, EthernetBuffer& buffer,
                              IPAddress* peer) {
    buffer.length = 0;
    EthernetBuffer* const one[] = {&buffer};
    return transfer(sendList, deadline, one, peer, nullptr);
}

bool EthernetSocket::receiveFrom(EthernetBuffer* buffer, IPAddress& peer, TimeValue timeout) {
    if (buffer == nullptr) return true;
    TimeValue deadline = timeout.isSet() ? TimeValue::now() + timeout : TimeValue();
    return transfer({}, deadline, *buffer, &peer);
}

bool EthernetSocket::receive(EthernetBuffer* buffer, TimeValue timeout) {
    if (buffer == nullptr) return true;
    TimeValue deadline = timeout.isSet() ? TimeValue::now() + timeout : TimeValue();
    return transfer({}, deadline, *buffer, nullptr);
}

bool EthernetSocket::send(EthernetBuffer& buffer) {
    EthernetBuffer* const one[] = {&buffer};
    return transfer(one, TimeValue(), {}, nullptr, nullptr);
}

// ---- UDPV6 ---------------------------------------------------------------------

namespace {

// Modes 1 to 6 spin through at least this last stretch before a deadline, so
// that the send doesn't depend on when a sleep wakes up.
constexpr TimeValue spinStretch = TimeValue::fromUs(100);

// The time still to go to `until`; 0 if it has come or isn't set.
TimeValue remainingUntil(TimeValue until) {
    if (!until.isSet()) return TimeValue();
    TimeValue now = TimeValue::now();
    return now < until ? until - now : TimeValue();
}

void sleepFor(TimeValue span) {
    Platform::sleepMicroseconds(span.toUs());
}

}  // namespace

// The receive side of one transfer: the list, and the first buffer in it
// that waits to be filled.
struct UDPV6::Receiving {
    BufferList list;
    IPAddress* peer;
    EthernetSocket* other;
    std::size_t cursor = 0;
    std::size_t start = 0;

    Receiving(BufferList receiveList, IPAddress* sender, EthernetSocket* receiver)
        : list(receiveList), peer(sender), other(receiver) {
        while (cursor < list.size() && list[cursor]->length != 0) ++cursor;
        start = cursor;
    }
    bool waiting() const { return cursor < list.size(); }
    bool receivedAny() const { return cursor != start; }
};

UDPV6::~UDPV6() {
    close();
}

std::unique_ptr<UDPV6> UDPV6::create(bool raw) {
    auto socket = std::make_unique<UDPV6>();
    if (raw) {
        socket->open(Socket::raw);
        return socket;
    }
    if (!socket->openNonBlocking()) return socket;
    socket->receiveSize = 4096;
    IPAddress any;
    socket->bind(any);
    return socket;
}

bool UDPV6::openNonBlocking() {
    return open(udp6) && setBlocking(false);
}

std::unique_ptr<EthernetBuffer> UDPV6::newBuffer(std::uint8_t* storage, std::uint32_t size) {
    return std::make_unique<UDPV6EBuffer>(storage, size);
}

bool UDPV6::getMyLocalAddresV6(InterfaceMap& map, bool includeLoopback) {
    return NORVA::getMyLocalAddresV6(map, includeLoopback);
}

bool UDPV6::receiveOne(EthernetBuffer& buffer, IPAddress* peer, TimeValue timeout) {
    int ready = waitReadable(timeout);
    if (ready == 0) return false;
    buffer.length = 0;
    if (ready == 1) return true;
    buffer.resize(receiveSize, 0);
    std::size_t received = 0;
    bool ok = peer != nullptr ? receiveFrom(buffer.frame(), buffer.length, received, *peer)
                              : receive(buffer.frame(), buffer.length, received);
    buffer.length = static_cast<std::uint32_t>(received);
    return ok;
}

bool UDPV6::sendNow(BufferList frames) {
    if (frames.empty()) return true;
    if (kind == raw) return rawContext != nullptr && rawContext->sendFrames(frames);
    const Platform::SocketAddress6* destination = frames.front()->peerRecord();
    if (destination == nullptr) return false;
    for (EthernetBuffer* frame : frames) {
        if (!sendRecord(frame->frame(), frame->length, true, *destination)) return false;
    }
    return true;
}

// Receives into the waiting buffer until `until` (0: only what is there now).
bool UDPV6::receiveStep(Receiving& receiving, TimeValue until) {
    EthernetBuffer& buffer = *receiving.list[receiving.cursor];
    bool ok = receiving.other != nullptr
                  ? receiving.other->transfer({}, until, receiving.list, receiving.peer, nullptr)
                  : receiveOne(buffer, receiving.peer, remainingUntil(until));
    if (!ok) return false;
    if (buffer.length != 0) ++receiving.cursor;
    return true;
}

bool UDPV6::transfer(BufferList sendList, TimeValue deadline, BufferList receiveList, IPAddress* peer,
                     EthernetSocket* other) {
    Receiving receiving(receiveList, peer, other);

    if (sendList.empty()) {
        if (!receiving.waiting()) return true;
        if (other != nullptr) return other->transfer(sendList, deadline, receiveList, peer, nullptr);
        return receiveOne(*receiveList[receiving.cursor], peer, remainingUntil(deadline));
    }

    if (!deadline.isSet() || TimeValue::now() >= deadline) return sendNow(sendList);

    if (waitMode == 0) {
        // Sleep or receive all the way; the send comes when the wait wakes up.
        while (TimeValue::now() < deadline) {
            if (receiving.waiting()) {
                if (!receiveStep(receiving, deadline)) return false;
            } else {
                sleepFor(remainingUntil(deadline));
            }
        }
        return sendNow(sendList);
    }

    if (!receiveWhileWaiting(deadline, receiving)) return false;
    if (!sendNow(sendList)) return false;
    // What came while spinning is taken once, after the send.
    if (receiving.waiting() && !receiving.receivedAny()) return receiveStep(receiving, TimeValue());
    return true;
}

// The wait of modes 1 to 6, up to the deadline. The mode is read on each
// pass, so that it may change while a transfer waits.
bool UDPV6::receiveWhileWaiting(TimeValue deadline, Receiving& receiving) {
    if (waitMode == 3 || waitMode == 6) Platform::yieldThread();
    for (TimeValue now = TimeValue::now(); now < deadline; now = TimeValue::now()) {
        int mode = waitMode;
        if (mode >= 1 && mode <= 3 && deadline - now > spinStretch) {
            TimeValue spinFrom = deadline - spinStretch;
            if (receiving.waiting()) {
                if (!receiveStep(receiving, spinFrom)) return false;
            } else {
                sleepFor(remainingUntil(spinFrom));
            }
        }
        if (mode == 2 || mode == 5) Platform::yieldThread();
    }
    return true;
}

}  // namespace NORVA
