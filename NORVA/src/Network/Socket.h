// The network layer under the protocol: a thin wrapper of the Berkeley socket
// calls (Socket), the interface for sending frames at a point in time while
// receiving meanwhile (EthernetSocket), and its IPv6 UDP implementation
// (UDPV6).
//
// Failures are reported by result and by `lastError` (Winsock numbering on
// every system); the only exception comes from the first construction, when
// the socket library can't be started.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Network/ByteArray.h"
#include "Network/EthernetBuffer.h"
#include "Network/IPAddress.h"
#include "Network/Interfaces.h"
#include "Network/RawContext.h"
#include "Network/TimeValue.h"
#include "Platform/Platform.h"

namespace NORVA {

class Socket {
  public:
    enum Kind : std::int32_t {
        tcp4 = 0,      // IPv4 stream
        udp4 = 1,      // IPv4 datagram
        tcp6 = 2,      // IPv6 stream, IPv6 only
        udp6 = 3,      // IPv6 datagram, IPv6 only
        tcp6dual = 4,  // IPv6 stream, IPv4 too
        udp6dual = 5,  // IPv6 datagram, IPv4 too
        raw = 6        // no socket: raw frames
    };

    Platform::SocketHandle handle = Platform::noSocket;
    Kind kind = tcp4;
    std::uint32_t receiveSize = 1500;  // what a receive buffer is made to
    bool blocking = true;              // the handle's mode, as far as we set it
    std::int32_t lastError = 0;        // of the last failed socket, bind, join or send
    std::uint32_t boundScope = 0;      // scope taken over by bind, 0 if none

    // Starts the socket library on the first construction in the process;
    // throws NORVA::Err if that fails.
    Socket();
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool isOpen() const { return handle != Platform::noSocket; }
    bool isStream() const { return kind == tcp4 || kind == tcp6 || kind == tcp6dual; }
    // The IPv4 kinds bind, connect and send to the mapped form ::ffff:a.b.c.d.
    bool isV4() const { return kind == tcp4 || kind == udp4; }

    // Closes what is there, then makes a socket of the given kind with the
    // options this system always wants. A socket starts in blocking mode.
    bool open(Kind newKind);
    void close();
    // Safe from another thread while this one waits or receives: that wait
    // ends, and every later wait, receive or send fails with errorShutdown
    // until the next open. The owner closes once the other thread is gone.
    void interrupt();
    bool isInterrupted() const { return interrupted.load(std::memory_order_acquire); }

    // `address` is in-out: a port of 0 is replaced by the one assigned.
    bool bind(IPAddress& address);
    // Sends unicast and multicast out of the interface `scope`.
    bool setOutgoingInterface(std::uint32_t scope);
    bool setBlocking(bool flag);
    // Joins an IPv6 multicast group on the interface of the address's scope.
    bool joinV6(const IPAddress& group);
    // Joins an IPv4 group on the interface with the address `interfaceAddress`;
    // all zeros lets the system choose.
    bool joinV4(const IPAddress& group, const IPAddress& interfaceAddress);
    // Joins on every local IPv4 address; stops at the first failure.
    bool joinV4All(const IPAddress& group);

    // The scope is the bound one if there is one, else the address's.
    bool connect(const IPAddress& address);
    // The next connection of a listening socket, into `out` (blocking).
    bool accept(Socket& out, IPAddress& peer);
    // The same once one is there, waiting up to `timeout`: 0 error, 1 timed
    // out, 2 accepted.
    int accept(Socket& out, IPAddress& peer, TimeValue timeout);
    // A stream send that must take all bytes.
    bool sendBytes(const void* data, std::size_t length);

    // One IPv6 datagram. With `retry`, a full send path makes a non-blocking
    // socket blocking until the datagram is taken, instead of losing it.
    bool sendTo(const IPAddress& peer, bool retry, const void* data, std::size_t length);
    bool sendRecord(const void* data, std::size_t length, bool retry, const Platform::SocketAddress6& record);
    // One IPv4 datagram, with `retry` as above. To a group 239.x.x.x it goes
    // once out of each local IPv4 address.
    bool sendTo4(const IPAddress& peer, bool retry, const void* data, std::size_t length);

    // One datagram into the caller's memory, cut to `size`. True with
    // `received` 0 when nothing was there; false on a failure of the socket.
    bool receiveFrom(void* data, std::size_t size, std::size_t& received, IPAddress& peer);
    bool receive(void* data, std::size_t size, std::size_t& received);
    // The datagrams that wait, up to `count`, in one system call where the
    // system has one; never waits. Datagram i goes to data[i], cut to `size`
    // bytes, its length to received[i], its sender to peers[i], and how long
    // it waited in the socket to ages[i] (0 unless arrivals are stamped).
    // True with `taken` 0 when nothing was there; false on a failure of the
    // socket.
    bool receiveMany(std::uint8_t* const* data, std::size_t size, std::size_t* received, IPAddress* peers,
                     std::chrono::nanoseconds* ages, std::size_t count, std::size_t& taken);
    // Has the system stamp each datagram's arrival, for receiveMany's ages.
    // False where it can't: the ages then stay 0.
    bool stampArrivals();
    // The same into an array made `receiveSize` long first; its size is then
    // what arrived, 0 for nothing.
    bool receiveFrom(ByteArray& array, IPAddress& peer);
    bool receive(ByteArray& array);

    // 0 error, 1 timed out, 2 readable. Below a microsecond doesn't wait.
    int waitReadable(TimeValue timeout);

  private:
    std::atomic<bool> interrupted{false};

    bool failInterrupted();
    // Sends through `send` (bytes sent, or -1) as sendRecord describes.
    template <typename Send>
    bool sendRetrying(std::size_t length, bool retry, Send send);
    bool receiveDatagram(void* data, std::size_t size, std::size_t& received, IPAddress* peer);
    bool receiveIntoArray(ByteArray& array, IPAddress* peer);
};

// Sends lists of frames at a point in time and receives meanwhile.
class EthernetSocket {
  public:
    // How transfer waits for its deadline: 0 sleeps or receives all the way;
    // 1 to 3 do so up to the last 100 microseconds and spin through them;
    // 4 to 6 spin all the way and receive only after the send. Modes 2 and 5
    // yield the processor on every pass, 3 and 6 once on entry.
    std::int32_t waitMode = 0;
    static constexpr bool neverSleeps(std::int32_t mode) { return mode >= 4 && mode <= 6; }

    EthernetSocket() = default;
    virtual ~EthernetSocket() = default;
    EthernetSocket(const EthernetSocket&) = delete;
    EthernetSocket& operator=(const EthernetSocket&) = delete;

    // Waits up to `timeout` (0: not at all) for one frame. `buffer` may be
    // null. True with the buffer's length 0 if nothing arrived.
    bool receive(EthernetBuffer* buffer, TimeValue timeout);
    bool receiveFrom(EthernetBuffer* buffer, IPAddress& peer, TimeValue timeout);
    // Sends one frame at once.
    bool send(EthernetBuffer& buffer);
    // transfer with one receive buffer, emptied first.
    bool transfer(BufferList sendList, TimeValue deadline, EthernetBuffer& buffer, IPAddress* peer);

    // Holds `sendList` until `deadline` (0: none), all of it to the peer of
    // its first frame, and receives meanwhile into the buffers of
    // `receiveList` whose length is 0, as the wait mode allows; `peer`, if
    // given, takes the sender of what was received. `other`, if given, does
    // the receiving instead of this socket.
    virtual bool transfer(BufferList sendList, TimeValue deadline, BufferList receiveList, IPAddress* peer,
                          EthernetSocket* other) = 0;
    // Frames that the socket takes per pacing step.
    virtual std::uint32_t sendDepth() const = 0;
    virtual bool joinGroup(const IPAddress& group) = 0;
    // Opens the interface `ifIndex` for raw frames; only a socket that can
    // send them has anything to do.
    virtual bool openRaw(std::uint16_t /*ifIndex*/) { return true; }
    // A frame buffer for this socket, starting on the caller's storage.
    virtual std::unique_ptr<EthernetBuffer> newBuffer(std::uint8_t* storage, std::uint32_t size) = 0;
    // The link-local addresses of the host, and ::1 if `includeLoopback`.
    virtual bool getMyLocalAddresV6(InterfaceMap& map, bool includeLoopback) = 0;
};

// The IPv6 UDP socket of the protocol and of the log.
class UDPV6 : public Socket, public EthernetSocket {
  public:
    UDPV6() = default;
    ~UDPV6() override;

    // The stream connection's socket. `raw`: a closed socket of kind raw.
    // Otherwise IPv6 only, non-blocking, receiving up to 4096 bytes, bound to
    // any address at a port of the system's choice; a failed bind leaves it
    // unbound.
    static std::unique_ptr<UDPV6> create(bool raw);
    // An IPv6-only datagram socket in non-blocking mode.
    bool openNonBlocking();

    using EthernetSocket::receive;
    using EthernetSocket::receiveFrom;
    using EthernetSocket::transfer;
    using Socket::receive;
    using Socket::receiveFrom;

    bool transfer(BufferList sendList, TimeValue deadline, BufferList receiveList, IPAddress* peer,
                  EthernetSocket* other) override;
    std::uint32_t sendDepth() const override { return 1; }
    bool joinGroup(const IPAddress& group) override { return joinV6(group); }
    // Kind raw only: a new context on the packet library's device of the
    // interface; `handle` points to it. False, with no log line, where the
    // library is missing.
    bool openRaw(std::uint16_t ifIndex) override;
    std::unique_ptr<EthernetBuffer> newBuffer(std::uint8_t* storage, std::uint32_t size) override;
    bool getMyLocalAddresV6(InterfaceMap& map, bool includeLoopback) override;

    // Waits up to `timeout` and receives one datagram into `buffer`, made
    // `receiveSize` long first. True with length 0 if nothing came.
    bool receiveOne(EthernetBuffer& buffer, IPAddress* peer, TimeValue timeout);
    // Sends every frame of the list at once, to the peer of the first; on
    // the raw kind, through the packet library as they are.
    bool sendNow(BufferList frames);
    // Also ends a raw context; Socket::close alone leaves it to the destructor.
    void close();

  private:
    std::unique_ptr<RawContext> rawContext;

    struct Receiving;
    bool receiveWhileWaiting(TimeValue deadline, Receiving& receiving);
    bool receiveStep(Receiving& receiving, TimeValue until);
};

}  // namespace NORVA
