#include "Protocol/Connection.h"

#include <cstring>

#include "Network/Interfaces.h"
#include "System/Log.h"

namespace VELMORA {

Connection::Connection() : socket(nullptr), ownedSocket(std::make_unique<NORVA::UDPV6>()) {
    socket = ownedSocket.get();
}

Connection::Connection(NORVA::UDPV6& shared) : socket(&shared) {}

Connection::~Connection() {
    close();
}

bool Connection::open(NORVA::IPAddress& bindAddress) {
    if (!ownsSocket()) return true;
    socket->receiveSize = 4096;
    return socket->openNonBlocking() && socket->bind(bindAddress);
}

void Connection::close() {
    if (ownsSocket()) socket->close();
}

void Connection::interrupt() {
    if (ownsSocket()) socket->interrupt();
}

bool Connection::getMyLocalAddresV6(std::vector<LocalAddressEntry>& out, bool withLoopback, bool refresh) {
    if (!refresh && !localAddresses.empty() && localWithLoopback == withLoopback) {
        out = localAddresses;
        return true;
    }
    localAddresses.clear();
    localWithLoopback = withLoopback;
    out.clear();

    NORVA::InterfaceMap map;
    if (!socket->getMyLocalAddresV6(map, withLoopback)) {
        NORVA::LogLine(3) << "error getMyLocalAddresV6 Find::open";
        return false;
    }
    for (const auto& [address, info] : map) {
        LocalAddressEntry entry;
        entry.address = address;
        if (address.isLoopback()) entry.address.setScope(0);
        entry.mtu = info.mtu;
        entry.interfaceIndex = entry.address.scope();
        std::memcpy(entry.mac, info.mac, sizeof(entry.mac));
        out.push_back(entry);
    }
    return true;
}

bool Connection::receive(ConnectionBuffer& answer, NORVA::IPAddress* source, NORVA::TimeValue timeout) {
    if (source == nullptr) return socket->receive(answer.frame.get(), timeout);
    return socket->receiveFrom(answer.frame.get(), *source, timeout);
}

Connection::Verdict Connection::judge(const ConnectionBuffer& request, const NORVA::IPAddress& peer,
                                      std::uint16_t ackType, const ConnectionBuffer& answer,
                                      const NORVA::IPAddress& source) const {
    if (!answer.isValid()) {
        NORVA::LogLine(7) << "sendAck RCV errpacket";
        return Verdict::wait;
    }
    // Stray datagrams, from anyone else, don't end the wait.
    if (!(source == peer)) return Verdict::wait;
    NORVA::LogLine(7) << "sendAck[" << peer.scope() << "," << source.scope()
                      << "]RCV:" << request.header.type();
    // A peer echoes a request type that it doesn't know.
    if (answer.type() == request.header.type()) return Verdict::no;
    if (answer.type() != ackType) return Verdict::wait;
    return (answer.flags() & flagYes) != 0 ? Verdict::yes : Verdict::no;
}

bool Connection::sendAck(ConnectionBuffer& request, const NORVA::IPAddress& peer, std::uint16_t ackType,
                         ConnectionBuffer& answer, NORVA::TimeValue timeout) {
    answer.clear();
    for (int tries = 0; tries < ackTries; ++tries) {
        if (!socket->send(*request.frame)) return false;
        // Each frame that isn't the answer starts the wait afresh.
        for (;;) {
            NORVA::IPAddress source;
            if (!receive(answer, &source, timeout)) return false;
            if (answer.isEmpty()) break;
            Verdict verdict = judge(request, peer, ackType, answer, source);
            if (verdict == Verdict::yes) return true;
            if (verdict == Verdict::no) {
                answer.clear();
                return true;
            }
        }
    }
    return true;
}

}  // namespace VELMORA
