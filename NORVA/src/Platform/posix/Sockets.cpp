// BSD sockets behind the socket section of Platform.h. Errors are reported
// in Winsock numbering, so that the logic above reads the same codes on
// every system.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "Platform/NativeSocketAddress.h"
#include "Platform/Platform.h"

#ifndef SO_BINDTOIFINDEX
#define SO_BINDTOIFINDEX 62
#endif

namespace NORVA::Platform {

namespace {

thread_local int lastError = 0;

int toWinsockCode(int code) {
    if (code == EWOULDBLOCK || code == EAGAIN) return errorWouldBlock;
    if (code == ENOBUFS) return errorNoBuffers;
    switch (code) {
        case EINTR:
            return 10004;
        case EBADF:
            return 10009;
        case EACCES:
            return 10013;
        case EFAULT:
            return 10014;
        case EINVAL:
            return 10022;
        case EMFILE:
            return 10024;
        case EINPROGRESS:
            return 10036;
        case EALREADY:
            return 10037;
        case ENOTSOCK:
            return 10038;
        case EDESTADDRREQ:
            return 10039;
        case EMSGSIZE:
            return 10040;
        case EPROTOTYPE:
            return 10041;
        case ENOPROTOOPT:
            return 10042;
        case EPROTONOSUPPORT:
            return 10043;
        case EOPNOTSUPP:
            return 10045;
        case EAFNOSUPPORT:
            return 10047;
        case EADDRINUSE:
            return 10048;
        case EADDRNOTAVAIL:
            return errorAddressNotAvailable;
        case ENETDOWN:
            return 10050;
        case ENETUNREACH:
            return 10051;
        case ECONNABORTED:
            return 10053;
        case ECONNRESET:
            return 10054;
        case EISCONN:
            return 10056;
        case ENOTCONN:
            return 10057;
        case ETIMEDOUT:
            return 10060;
        case ECONNREFUSED:
            return 10061;
        case EHOSTUNREACH:
            return 10065;
        default:
            return code;  // no Winsock counterpart: the system's own number
    }
}

bool failed() {
    lastError = toWinsockCode(errno);
    return false;
}

int fd(SocketHandle handle) {
    return static_cast<int>(handle);
}

bool setInt(SocketHandle handle, int level, int name, int value) {
    if (setsockopt(fd(handle), level, name, &value, sizeof(value)) != 0) return failed();
    return true;
}

// Linux has one switch for both: path MTU discovery with "don't fragment"
// set on every datagram, so that this host never fragments. An IPv6 socket
// has it twice, for its IPv6 traffic and for IPv4 in mapped form.
bool setNoFragmentation(SocketHandle handle, bool on, int offValue) {
    int family = 0;
    socklen_t size = sizeof(family);
    getsockopt(fd(handle), SOL_SOCKET, SO_DOMAIN, &family, &size);
    bool done = setInt(handle, IPPROTO_IP, IP_MTU_DISCOVER, on ? IP_PMTUDISC_DO : offValue);
    if (family == AF_INET6) {
        done = setInt(handle, IPPROTO_IPV6, IPV6_MTU_DISCOVER, on ? IPV6_PMTUDISC_DO : offValue) || done;
    }
    return done;
}

}  // namespace

int startSocketLibrary() {
    // Nothing to start. Sends pass MSG_NOSIGNAL, so no SIGPIPE to block.
    return 0;
}

int lastSocketError() {
    return lastError;
}

SocketHandle socketCreate(SocketFamily family, SocketType type) {
    int domain = family == SocketFamily::v6 ? AF_INET6 : AF_INET;
    int kind = type == SocketType::stream ? SOCK_STREAM : SOCK_DGRAM;
    int protocol = type == SocketType::stream ? IPPROTO_TCP : IPPROTO_UDP;
    int result = socket(domain, kind | SOCK_CLOEXEC, protocol);
    if (result < 0) {
        failed();
        return noSocket;
    }
    return result;
}

void socketClose(SocketHandle handle, bool shutdownFirst) {
    if (shutdownFirst) shutdown(fd(handle), SHUT_RDWR);
    close(fd(handle));
}

void socketInterrupt(SocketHandle handle) {
    // Fails with ENOTCONN on an unconnected datagram socket, but marks it shut
    // all the same and wakes its waiters: poll reports it readable, and
    // recvfrom returns 0 at once from then on.
    shutdown(fd(handle), SHUT_RDWR);
}

bool socketSetNonBlocking(SocketHandle handle, bool nonBlocking) {
    int flags = fcntl(fd(handle), F_GETFL);
    if (flags < 0) return failed();
    flags = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd(handle), F_SETFL, flags) != 0) return failed();
    return true;
}

bool socketSetOption(SocketHandle handle, SocketOption option, int value) {
    int level = 0, name = 0;
    if (plainOption(option, level, name)) return setInt(handle, level, name, value);
    switch (option) {
        case SocketOption::dontFragment:
            return setNoFragmentation(handle, value != 0, IP_PMTUDISC_DONT);
        case SocketOption::pathMtuDiscovery:
            return setNoFragmentation(handle, value != 0, IP_PMTUDISC_WANT);
        // Linux has no IPV6_UNICAST_IF; binding the socket to the interface
        // makes it send out of that interface in the same way.
        case SocketOption::unicastInterface:
            return setInt(handle, SOL_SOCKET, SO_BINDTOIFINDEX, value);
        case SocketOption::arrivalStamps:
            return setInt(handle, SOL_SOCKET, SO_TIMESTAMPNS, value);
        default:
            return false;
    }
}

bool socketBind6(SocketHandle handle, const SocketAddress6& address) {
    sockaddr_in6 native = toNative(address);
    if (bind(fd(handle), reinterpret_cast<const sockaddr*>(&native), sizeof(native)) != 0) return failed();
    return true;
}

bool socketBind4(SocketHandle handle, const SocketAddress6& address) {
    sockaddr_in native = toNative4(address);
    if (bind(fd(handle), reinterpret_cast<const sockaddr*>(&native), sizeof(native)) != 0) return failed();
    return true;
}

bool socketConnect(SocketHandle handle, const SocketAddress6& address, SocketFamily family) {
    sockaddr_in6 v6 = toNative(address);
    sockaddr_in v4 = toNative4(address);
    int result = family == SocketFamily::v4
                     ? connect(fd(handle), reinterpret_cast<const sockaddr*>(&v4), sizeof(v4))
                     : connect(fd(handle), reinterpret_cast<const sockaddr*>(&v6), sizeof(v6));
    if (result != 0) return failed();
    return true;
}

SocketHandle socketAccept(SocketHandle handle, SocketAddress6* peer) {
    sockaddr_storage native{};
    socklen_t size = sizeof(native);
    int result = accept4(fd(handle), reinterpret_cast<sockaddr*>(&native), &size, SOCK_CLOEXEC);
    if (result < 0) {
        failed();
        return noSocket;
    }
    if (peer != nullptr) fromNative(native, *peer);
    return result;
}

bool socketJoinGroup4(SocketHandle handle, const std::uint8_t group[4],
                      const std::uint8_t interfaceAddress[4]) {
    ip_mreq request{};
    std::memcpy(&request.imr_multiaddr, group, 4);
    std::memcpy(&request.imr_interface, interfaceAddress, 4);
    if (setsockopt(fd(handle), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) != 0)
        return failed();
    return true;
}

bool socketSetMulticastInterface4(SocketHandle handle, const std::uint8_t interfaceAddress[4]) {
    in_addr address{};
    std::memcpy(&address, interfaceAddress, 4);
    if (setsockopt(fd(handle), IPPROTO_IP, IP_MULTICAST_IF, &address, sizeof(address)) != 0) return failed();
    return true;
}

bool socketListen(SocketHandle handle, int backlog) {
    if (listen(fd(handle), backlog) != 0) return failed();
    return true;
}

bool socketLocalAddress6(SocketHandle handle, SocketAddress6& address) {
    sockaddr_storage native{};
    socklen_t size = sizeof(native);
    if (getsockname(fd(handle), reinterpret_cast<sockaddr*>(&native), &size) != 0) return failed();
    fromNative(native, address);
    return true;
}

bool socketJoinGroup6(SocketHandle handle, const std::uint8_t group[16], std::uint32_t scope) {
    ipv6_mreq request{};
    std::memcpy(&request.ipv6mr_multiaddr, group, 16);
    request.ipv6mr_interface = scope;
    if (setsockopt(fd(handle), IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof(request)) != 0)
        return failed();
    return true;
}

namespace {

std::int64_t sendToRecord(SocketHandle handle, const void* data, std::size_t length, const sockaddr* record,
                          socklen_t size) {
    ssize_t sent = sendto(fd(handle), data, length, MSG_NOSIGNAL, record, size);
    if (sent < 0) {
        failed();
        return -1;
    }
    return sent;
}

}  // namespace

std::int64_t socketSend(SocketHandle handle, const void* data, std::size_t length) {
    return sendToRecord(handle, data, length, nullptr, 0);
}

std::int64_t socketSendTo4(SocketHandle handle, const void* data, std::size_t length,
                           const SocketAddress6& peer) {
    sockaddr_in native = toNative4(peer);
    return sendToRecord(handle, data, length, reinterpret_cast<const sockaddr*>(&native), sizeof(native));
}

std::int64_t socketSendTo6(SocketHandle handle, const void* data, std::size_t length,
                           const SocketAddress6& peer) {
    sockaddr_in6 native = toNative(peer);
    return sendToRecord(handle, data, length, reinterpret_cast<const sockaddr*>(&native), sizeof(native));
}

std::int64_t socketReceiveFrom6(SocketHandle handle, void* data, std::size_t size, SocketAddress6* peer) {
    sockaddr_storage native{};
    socklen_t nativeSize = sizeof(native);
    ssize_t received = recvfrom(fd(handle), data, size, 0, reinterpret_cast<sockaddr*>(&native), &nativeSize);
    if (received < 0) {
        failed();
        return -1;
    }
    if (peer != nullptr) fromNative(native, *peer);
    return received;
}

namespace {

std::int64_t nanosecondsOf(const timespec& time) {
    return std::int64_t(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

// The kernel stamps arrivals on the wall clock: the age is read against it
// at once, so that a step of that clock can only shift the one batch.
std::int64_t ageOf(const msghdr& message, std::int64_t wallNow) {
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr;
         c = CMSG_NXTHDR(const_cast<msghdr*>(&message), c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_TIMESTAMPNS) continue;
        timespec stamp{};
        std::memcpy(&stamp, CMSG_DATA(c), sizeof(stamp));
        std::int64_t age = wallNow - nanosecondsOf(stamp);
        return age > 0 ? age : 0;
    }
    return 0;
}

}  // namespace

int socketReceiveMany6(SocketHandle handle, std::uint8_t* const* data, std::size_t size,
                       std::size_t* received, SocketAddress6* peers, std::int64_t* agesNs,
                       std::size_t count) {
    constexpr std::size_t most = 64;
    mmsghdr messages[most];
    iovec pieces[most];
    sockaddr_storage natives[most];
    struct alignas(cmsghdr) Control {
        char bytes[CMSG_SPACE(sizeof(timespec))];
    } controls[most];
    count = count < most ? count : most;
    for (std::size_t i = 0; i < count; ++i) {
        pieces[i] = iovec{data[i], size};
        messages[i] = mmsghdr{};
        messages[i].msg_hdr.msg_name = &natives[i];
        messages[i].msg_hdr.msg_namelen = sizeof(natives[i]);
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = controls[i].bytes;
        messages[i].msg_hdr.msg_controllen = sizeof(controls[i].bytes);
    }
    int taken = recvmmsg(fd(handle), messages, static_cast<unsigned>(count), MSG_DONTWAIT, nullptr);
    if (taken < 0) {
        failed();
        return -1;
    }
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    for (int i = 0; i < taken; ++i) {
        received[i] = messages[i].msg_len;
        fromNative(natives[i], peers[i]);
        agesNs[i] = ageOf(messages[i].msg_hdr, nanosecondsOf(wall));
    }
    return taken;
}

int socketWaitReadable(SocketHandle handle, std::uint64_t timeoutMicroseconds) {
    bool ready = false;
    return socketWaitAnyReadable(&handle, 1, timeoutMicroseconds, &ready);
}

int socketWaitAnyReadable(const SocketHandle* handles, std::size_t count, std::uint64_t timeoutMicroseconds,
                          bool* ready) {
    if (count > maxWaitSockets) {
        lastError = toWinsockCode(EINVAL);
        return 0;
    }
    pollfd entries[maxWaitSockets];
    for (std::size_t i = 0; i < count; ++i) {
        // poll would skip a negative descriptor and just wait; select fails on it.
        if (handles[i] < 0) {
            lastError = toWinsockCode(EBADF);
            return 0;
        }
        entries[i] = pollfd{fd(handles[i]), POLLIN, 0};
    }
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(timeoutMicroseconds / 1'000'000);
    timeout.tv_nsec = static_cast<long>(timeoutMicroseconds % 1'000'000 * 1000);
    int result = ppoll(entries, count, &timeout, nullptr);
    if (result < 0) {
        // A signal ended the wait early: the caller looks at its clock again.
        if (errno == EINTR) return 1;
        failed();
        return 0;
    }
    if (result == 0) return 1;
    for (std::size_t i = 0; i < count; ++i) {
        if ((entries[i].revents & POLLNVAL) != 0) {
            lastError = toWinsockCode(EBADF);
            return 0;
        }
        // As with select, an error pending on a socket counts as readable.
        ready[i] = entries[i].revents != 0;
    }
    return 2;
}

}  // namespace NORVA::Platform
