// The owner of a protocol socket, and the one request and answer exchange
// that every control message rests on.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Network/TimeValue.h"
#include "Protocol/ConnectionBuffer.h"

namespace VELMORA {

// One local address with what the exchanges need to know of its interface.
struct LocalAddressEntry {
    NORVA::IPAddress address;
    std::uint32_t mtu = 0;
    std::uint32_t interfaceIndex = 0;  // the address's scope
    std::uint8_t mac[6] = {};
};

class Connection {
  public:
    static constexpr int ackTries = 3;
    // What almost every exchange waits for an answer, per try.
    static constexpr NORVA::TimeValue ackTimeout = NORVA::TimeValue::fromMs(30);

    // The list getMyLocalAddresV6 hands back without asking the system, for
    // as long as it asks with the same `withLoopback`.
    std::vector<LocalAddressEntry> localAddresses;
    bool localWithLoopback = false;
    NORVA::UDPV6* socket;
    // Addresses that a discovery probe goes to besides the multicast group.
    std::vector<NORVA::IPAddress> extraTargets;

    // With a socket of its own.
    Connection();
    // Sharing the socket of another: open and close leave it alone.
    explicit Connection(NORVA::UDPV6& shared);
    virtual ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool ownsSocket() const { return ownedSocket != nullptr; }

    // A non-blocking IPv6 datagram socket, receiving up to 4096 bytes, bound
    // to `bindAddress`; a port of 0 there is replaced by the one assigned.
    bool open(NORVA::IPAddress& bindAddress);
    void close();
    // What close does for a thread still inside an exchange on the socket:
    // its wait ends at once and it fails, but the handle stays until close.
    void interrupt();

    // The host's link-local addresses, and ::1 (with scope 0) if
    // `withLoopback`. `refresh` asks the system even if the kept list would
    // do, and drops that list. False, with an empty list, if the system
    // refuses.
    bool getMyLocalAddresV6(std::vector<LocalAddressEntry>& out, bool withLoopback, bool refresh);

    // Waits up to `timeout` for one frame into `answer`; `source`, if given,
    // takes its sender. True with `answer` empty if nothing came.
    bool receive(ConnectionBuffer& answer, NORVA::IPAddress* source, NORVA::TimeValue timeout);

    // Sends the finished `request` and waits for an answer of `ackType` from
    // exactly `peer`, sending again after each `timeout` of silence, 3 times
    // in all. False: the socket failed. True with `answer` filled: yes. True
    // with `answer` empty: no, not supported, or nothing heard.
    bool sendAck(ConnectionBuffer& request, const NORVA::IPAddress& peer, std::uint16_t ackType,
                 ConnectionBuffer& answer, NORVA::TimeValue timeout);

  private:
    enum class Verdict { wait, yes, no };
    Verdict judge(const ConnectionBuffer& request, const NORVA::IPAddress& peer, std::uint16_t ackType,
                  const ConnectionBuffer& answer, const NORVA::IPAddress& source) const;

    std::unique_ptr<NORVA::UDPV6> ownedSocket;
};

}  // namespace VELMORA
