// Winsock 2 behind the socket section of Platform.h.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstdlib>
#include <cstring>

#include "Platform/NativeSocketAddress.h"
#include "Platform/Platform.h"
#include "Platform/win32/Wine.h"

namespace NORVA::Platform {

namespace {

// Winsock numbers of level 0 (IPPROTO_IP) and level 41 (IPPROTO_IPV6) that
// older headers may lack.
constexpr int optionDontFragment = 14;      // IP_DONTFRAGMENT
constexpr int optionMtuDiscover = 71;       // IP_MTU_DISCOVER
constexpr int optionUnicastInterface = 31;  // IPV6_UNICAST_IF

SOCKET native(SocketHandle handle) {
    return static_cast<SOCKET>(handle);
}

bool setInt(SocketHandle handle, int level, int name, int value) {
    DWORD word = static_cast<DWORD>(value);
    return setsockopt(native(handle), level, name, reinterpret_cast<const char*>(&word), sizeof(word)) == 0;
}

void cleanUp() {
    WSACleanup();
}

}  // namespace

int startSocketLibrary() {
    if (std::atexit(cleanUp) != 0) return 84;
    WSADATA data;
    if (WSAStartup(2, &data) != 0) return 87;
    return 0;
}

int lastSocketError() {
    int code = WSAGetLastError();
    return code == WSAEADDRNOTAVAIL ? errorAddressNotAvailable : code;
}

namespace {

// Without this, an ICMP "port unreachable" for an earlier datagram makes the
// next receive fail with a reset, which would cost an exchange one of its
// tries. A system that refuses the switch keeps the old behaviour, which
// receiving tolerates.
void ignorePortUnreachable(SOCKET socket) {
    constexpr DWORD udpConnectionReset = 0x9800000C;  // SIO_UDP_CONNRESET
    BOOL report = FALSE;
    DWORD returned = 0;
    WSAIoctl(socket, udpConnectionReset, &report, sizeof report, nullptr, 0, &returned, nullptr, nullptr);
}

}  // namespace

SocketHandle socketCreate(SocketFamily family, SocketType type) {
    int domain = family == SocketFamily::v6 ? AF_INET6 : AF_INET;
    int kind = type == SocketType::stream ? SOCK_STREAM : SOCK_DGRAM;
    int protocol = type == SocketType::stream ? IPPROTO_TCP : IPPROTO_UDP;
    SOCKET result = socket(domain, kind, protocol);
    if (result == INVALID_SOCKET) return noSocket;
    if (type == SocketType::datagram) ignorePortUnreachable(result);
    return static_cast<SocketHandle>(result);
}

void socketClose(SocketHandle handle, bool shutdownFirst) {
    if (shutdownFirst) shutdown(native(handle), SD_BOTH);
    closesocket(native(handle));
}

void socketInterrupt(SocketHandle handle) {
    // select isn't known to wake on a shutdown of a datagram socket, so an
    // empty datagram to the socket's own port comes first: that wakes it
    // wherever it is bound to the unspecified address.
    sockaddr_in6 self{};
    int size = sizeof(self);
    if (getsockname(native(handle), reinterpret_cast<sockaddr*>(&self), &size) == 0 &&
        self.sin6_family == AF_INET6) {
        self.sin6_addr = in6addr_loopback;
        self.sin6_scope_id = 0;
        char nothing = 0;
        sendto(native(handle), &nothing, 0, 0, reinterpret_cast<const sockaddr*>(&self), sizeof(self));
    }
    shutdown(native(handle), SD_BOTH);
}

bool socketSetNonBlocking(SocketHandle handle, bool nonBlocking) {
    u_long mode = nonBlocking ? 1 : 0;
    return ioctlsocket(native(handle), FIONBIO, &mode) == 0;
}

bool socketSetOption(SocketHandle handle, SocketOption option, int value) {
    int level = 0, name = 0;
    if (plainOption(option, level, name)) return setInt(handle, level, name, value);
    switch (option) {
        case SocketOption::dontFragment:
            return setInt(handle, IPPROTO_IP, optionDontFragment, value);
        case SocketOption::pathMtuDiscovery:
            return setInt(handle, IPPROTO_IP, optionMtuDiscover, value);
        // The IPv6 form takes the interface index in host order.
        case SocketOption::unicastInterface:
            return setInt(handle, IPPROTO_IPV6, optionUnicastInterface, value);
        default:
            return false;
    }
}

bool socketBind6(SocketHandle handle, const SocketAddress6& address) {
    sockaddr_in6 record = toNative(address);
    return bind(native(handle), reinterpret_cast<const sockaddr*>(&record), sizeof(record)) == 0;
}

bool socketBind4(SocketHandle handle, const SocketAddress6& address) {
    sockaddr_in record = toNative4(address);
    return bind(native(handle), reinterpret_cast<const sockaddr*>(&record), sizeof(record)) == 0;
}

bool socketConnect(SocketHandle handle, const SocketAddress6& address, SocketFamily family) {
    sockaddr_in6 v6 = toNative(address);
    sockaddr_in v4 = toNative4(address);
    int result = family == SocketFamily::v4
                     ? connect(native(handle), reinterpret_cast<const sockaddr*>(&v4), sizeof(v4))
                     : connect(native(handle), reinterpret_cast<const sockaddr*>(&v6), sizeof(v6));
    return result == 0;
}

SocketHandle socketAccept(SocketHandle handle, SocketAddress6* peer) {
    sockaddr_storage record{};
    int size = sizeof(record);
    SOCKET result = accept(native(handle), reinterpret_cast<sockaddr*>(&record), &size);
    if (result == INVALID_SOCKET) return noSocket;
    if (peer != nullptr) fromNative(record, *peer);
    return static_cast<SocketHandle>(result);
}

bool socketJoinGroup4(SocketHandle handle, const std::uint8_t group[4],
                      const std::uint8_t interfaceAddress[4]) {
    ip_mreq request{};
    std::memcpy(&request.imr_multiaddr, group, 4);
    std::memcpy(&request.imr_interface, interfaceAddress, 4);
    return setsockopt(native(handle), IPPROTO_IP, IP_ADD_MEMBERSHIP, reinterpret_cast<const char*>(&request),
                      sizeof(request)) == 0;
}

bool socketSetMulticastInterface4(SocketHandle handle, const std::uint8_t interfaceAddress[4]) {
    in_addr address{};
    std::memcpy(&address, interfaceAddress, 4);
    return setsockopt(native(handle), IPPROTO_IP, IP_MULTICAST_IF, reinterpret_cast<const char*>(&address),
                      sizeof(address)) == 0;
}

bool socketListen(SocketHandle handle, int backlog) {
    return listen(native(handle), backlog) == 0;
}

bool socketLocalAddress6(SocketHandle handle, SocketAddress6& address) {
    sockaddr_storage record{};
    int size = sizeof(record);
    if (getsockname(native(handle), reinterpret_cast<sockaddr*>(&record), &size) != 0) return false;
    fromNative(record, address);
    return true;
}

bool socketJoinGroup6(SocketHandle handle, const std::uint8_t group[16], std::uint32_t scope) {
    ipv6_mreq request{};
    std::memcpy(&request.ipv6mr_multiaddr, group, 16);
    request.ipv6mr_interface = scope;
    return setsockopt(native(handle), IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP,
                      reinterpret_cast<const char*>(&request), sizeof(request)) == 0;
}

namespace {

std::int64_t sendToRecord(SocketHandle handle, const void* data, std::size_t length, const sockaddr* record,
                          int size) {
    int sent =
        sendto(native(handle), static_cast<const char*>(data), static_cast<int>(length), 0, record, size);
    return sent == SOCKET_ERROR ? -1 : sent;
}

}  // namespace

std::int64_t socketSend(SocketHandle handle, const void* data, std::size_t length) {
    int sent = send(native(handle), static_cast<const char*>(data), static_cast<int>(length), 0);
    return sent == SOCKET_ERROR ? -1 : sent;
}

std::int64_t socketSendTo4(SocketHandle handle, const void* data, std::size_t length,
                           const SocketAddress6& peer) {
    sockaddr_in record = toNative4(peer);
    return sendToRecord(handle, data, length, reinterpret_cast<const sockaddr*>(&record), sizeof(record));
}

std::int64_t socketSendTo6(SocketHandle handle, const void* data, std::size_t length,
                           const SocketAddress6& peer) {
    sockaddr_in6 record = toNative(peer);
    return sendToRecord(handle, data, length, reinterpret_cast<const sockaddr*>(&record), sizeof(record));
}

std::int64_t socketReceiveFrom6(SocketHandle handle, void* data, std::size_t size, SocketAddress6* peer) {
    sockaddr_storage record{};
    int recordSize = sizeof(record);
    int received = recvfrom(native(handle), static_cast<char*>(data), static_cast<int>(size), 0,
                            reinterpret_cast<sockaddr*>(&record), &recordSize);
    if (received == SOCKET_ERROR) {
        // A datagram larger than the buffer fills it and is cut, as on the
        // BSD side, where that is no failure.
        if (WSAGetLastError() != WSAEMSGSIZE) return -1;
        received = static_cast<int>(size);
    }
    if (peer != nullptr) fromNative(record, *peer);
    return received;
}

// Winsock has no call for several datagrams: one at a time until none waits.
// Winsock stamps no arrivals: every age is 0, the datagram taken as it comes.
int socketReceiveMany6(SocketHandle handle, std::uint8_t* const* data, std::size_t size,
                       std::size_t* received, SocketAddress6* peers, std::int64_t* agesNs,
                       std::size_t count) {
    std::size_t taken = 0;
    for (; taken < count; ++taken) {
        std::int64_t result = socketReceiveFrom6(handle, data[taken], size, &peers[taken]);
        if (result < 0) {
            // What came before the failure counts; the next call reports it.
            if (taken == 0) return -1;
            break;
        }
        received[taken] = static_cast<std::size_t>(result);
        agesNs[taken] = 0;
    }
    return static_cast<int>(taken);
}

int socketWaitReadable(SocketHandle handle, std::uint64_t timeoutMicroseconds) {
    bool ready = false;
    return socketWaitAnyReadable(&handle, 1, timeoutMicroseconds, &ready);
}

namespace {

// One select on the sockets for reading, with the results of socketWaitReadable.
int selectReadable(const SocketHandle* handles, std::size_t count, std::uint64_t timeoutMicroseconds,
                   bool* ready) {
    fd_set readable;
    FD_ZERO(&readable);
    for (std::size_t i = 0; i < count; ++i) FD_SET(native(handles[i]), &readable);
    timeval timeout{};
    timeout.tv_sec = static_cast<long>(timeoutMicroseconds / 1'000'000);
    timeout.tv_usec = static_cast<long>(timeoutMicroseconds % 1'000'000);
    int result = select(0, &readable, nullptr, nullptr, &timeout);
    if (result == SOCKET_ERROR) return 0;
    if (result == 0) return 1;
    for (std::size_t i = 0; i < count; ++i) ready[i] = FD_ISSET(native(handles[i]), &readable) != 0;
    return 2;
}

std::uint64_t microsecondsNow() {
    const std::uint64_t ticks = counterNow();
    const std::uint64_t frequency = counterFrequency();
    return ticks / frequency * 1'000'000 + ticks % frequency * 1'000'000 / frequency;
}

// Windows ends select's timeout on its timer tick, which timeBeginPeriod(1)
// makes a millisecond. Wine keeps the timeout in its server, which wakes it a
// millisecond late, and several when the machine is busy; a stream worker
// that hands its send deadline to the wait would send that late. Under Wine,
// select therefore waits only for the part that ends this long before the
// deadline, and the rest is spent looking at the sockets between short
// sleeps, which Wine keeps to a tenth of a millisecond.
const bool pollNearDeadlines = runningUnderWine();
constexpr std::uint64_t selectMarginUs = 3000;
constexpr std::uint64_t pollStepUs = 250;

}  // namespace

int socketWaitAnyReadable(const SocketHandle* handles, std::size_t count, std::uint64_t timeoutMicroseconds,
                          bool* ready) {
    if (count > maxWaitSockets) {
        WSASetLastError(WSAEINVAL);
        return 0;
    }
    if (!pollNearDeadlines) return selectReadable(handles, count, timeoutMicroseconds, ready);
    // One microsecond on: the clock reads whole microseconds, and the wait
    // may end with its timeout passed, never before.
    const std::uint64_t deadline = microsecondsNow() + timeoutMicroseconds + 1;
    if (timeoutMicroseconds >= selectMarginUs + 1000) {
        int result = selectReadable(handles, count, timeoutMicroseconds - selectMarginUs, ready);
        if (result != 1) return result;
    }
    for (;;) {
        int result = selectReadable(handles, count, 0, ready);
        if (result != 1) return result;
        std::uint64_t now = microsecondsNow();
        if (now >= deadline) return 1;
        sleepMicroseconds(deadline - now < pollStepUs ? deadline - now : pollStepUs);
    }
}

}  // namespace NORVA::Platform
