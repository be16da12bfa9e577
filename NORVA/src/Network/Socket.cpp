#include "Network/Socket.h"

#include <atomic>

#include "Network/SocketAddress.h"
#include "System/Log.h"

namespace NORVA {

namespace {

// Set once the socket library runs; it stays up until the process ends.
std::atomic<bool> libraryStarted{false};

// Codes of a failed receive that say nothing about this socket: nothing was
// there, a signal came, or an earlier datagram of ours found no listener
// (Winsock reports that on the next receive). Every other code is a failure,
// on every system alike.
bool isNothingReceived(int code) {
    return code == Platform::errorWouldBlock || code == Platform::errorInterrupted ||
           code == Platform::errorConnectionReset || code == Platform::errorConnectionRefused;
}

}  // namespace

Socket::Socket() {
    if (libraryStarted.load(std::memory_order_acquire)) return;
    int failure = Platform::startSocketLibrary();
    if (failure == 84) throw Err("Socket", 84, 0);
    if (failure != 0) throw Err("Socket", 87, 0);
    libraryStarted.store(true, std::memory_order_release);
}

Socket::~Socket() {
    close();
}

bool Socket::open(Kind newKind) {
    close();
    interrupted.store(false, std::memory_order_release);
    kind = newKind;
    if (kind == raw) return true;

    bool v6 = kind == tcp6 || kind == udp6 || kind == tcp6dual || kind == udp6dual;
    handle =
        Platform::socketCreate(v6 ? Platform::SocketFamily::v6 : Platform::SocketFamily::v4,
                               isStream() ? Platform::SocketType::stream : Platform::SocketType::datagram);
    if (handle == Platform::noSocket) {
        lastError = Platform::lastSocketError();
        return false;
    }

    if (kind == udp4) {
        if (!Platform::socketSetOption(handle, Platform::SocketOption::broadcast, 1)) {
            close();
            return false;
        }
        Platform::socketSetNonBlocking(handle, false);
    }

    // Each of these fits only some kinds; a refusal is expected and harmless.
    Platform::socketSetOption(handle, Platform::SocketOption::noDelay, 1);
    Platform::socketSetOption(handle, Platform::SocketOption::reuseAddress, 1);
    Platform::socketSetOption(handle, Platform::SocketOption::dontFragment, 1);
    Platform::socketSetOption(handle, Platform::SocketOption::pathMtuDiscovery, 1);

    if (v6) {
        Platform::socketSetOption(handle, Platform::SocketOption::v6Only,
                                  kind == tcp6 || kind == udp6 ? 1 : 0);
    }

    blocking = true;
    return true;
}

void Socket::close() {
    if (handle == Platform::noSocket) return;
    // The raw kind has no platform socket behind its handle.
    if (kind != raw) Platform::socketClose(handle, isStream());
    handle = Platform::noSocket;
}

void Socket::interrupt() {
    interrupted.store(true, std::memory_order_release);
    if (handle != Platform::noSocket && kind != raw) Platform::socketInterrupt(handle);
}

bool Socket::failInterrupted() {
    lastError = Platform::errorShutdown;
    return false;
}

bool Socket::bind(IPAddress& address) {
    Platform::SocketAddress6 record = socketAddressOf(address);

    // Only a link-local address, or ::1 given a scope, binds to an interface.
    boundScope = 0;
    if (address.isLinkLocal() || (address.isLoopback() && address.scope() != 0)) {
        boundScope = address.scope();
    }
    record.scope = boundScope;
    // A port of the system's choice is the socket's own. Sharing addresses,
    // a system may pick one that another such socket holds (Linux does, and
    // Wine over it), and one of the two then loses its datagrams.
    if (address.noPort()) Platform::socketSetOption(handle, Platform::SocketOption::reuseAddress, 0);

    bool bound = isV4() ? Platform::socketBind4(handle, record) : Platform::socketBind6(handle, record);
    if (!bound) {
        lastError = Platform::lastSocketError();
        return false;
    }

    if (address.noPort()) {
        Platform::SocketAddress6 assigned{};
        if (!Platform::socketLocalAddress6(handle, assigned)) return false;
        address.portNetworkOrder = assigned.portNetworkOrder;
    }

    if (isStream() && !Platform::socketListen(handle, 1000)) return false;

    // Sending out of the bound interface is wanted but not required.
    if (boundScope != 0) setOutgoingInterface(boundScope);
    return true;
}

bool Socket::setOutgoingInterface(std::uint32_t scope) {
    int value = static_cast<int>(scope);
    return Platform::socketSetOption(handle, Platform::SocketOption::multicastInterface, value) &&
           Platform::socketSetOption(handle, Platform::SocketOption::unicastInterface, value);
}

bool Socket::setBlocking(bool flag) {
    if (!Platform::socketSetNonBlocking(handle, !flag)) return false;
    blocking = flag;
    return true;
}

bool Socket::sendTo(const IPAddress& peer, bool retry, const void* data, std::size_t length) {
    return sendRecord(data, length, retry, socketAddressOf(peer));
}

bool Socket::sendRecord(const void* data, std::size_t length, bool retry,
                        const Platform::SocketAddress6& record) {
    return sendRetrying(length, retry, [&] { return Platform::socketSendTo6(handle, data, length, record); });
}

bool Socket::sendTo4(const IPAddress& peer, bool retry, const void* data, std::size_t length) {
    Platform::SocketAddress6 record = socketAddressOf(peer);
    auto send = [&] { return Platform::socketSendTo4(handle, data, length, record); };
    if (record.bytes[12] != 239) return sendRetrying(length, retry, send);
    // A group of this site's own scope: out of every interface, each named by
    // one of its addresses.
    InterfaceMap locals;
    if (!enumerateV4(locals)) return false;
    for (const auto& [local, info] : locals) {
        std::uint8_t bytes[16];
        local.copyBytes(bytes);
        if (!Platform::socketSetMulticastInterface4(handle, bytes + 12)) {
            lastError = Platform::lastSocketError();
            return false;
        }
        if (!sendRetrying(length, retry, send)) return false;
    }
    return true;
}

bool Socket::sendBytes(const void* data, std::size_t length) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    while (length != 0) {
        std::int64_t sent = Platform::socketSend(handle, bytes, length);
        if (sent <= 0) {
            lastError = Platform::lastSocketError();
            return false;
        }
        bytes += sent;
        length -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool Socket::connect(const IPAddress& address) {
    Platform::SocketAddress6 record = socketAddressOf(address);
    if (boundScope != 0) record.scope = boundScope;
    Platform::SocketFamily family = isV4() ? Platform::SocketFamily::v4 : Platform::SocketFamily::v6;
    if (Platform::socketConnect(handle, record, family)) return true;
    lastError = Platform::lastSocketError();
    return false;
}

bool Socket::accept(Socket& out, IPAddress& peer) {
    Platform::SocketAddress6 from{};
    Platform::SocketHandle accepted = Platform::socketAccept(handle, &from);
    if (accepted == Platform::noSocket) {
        lastError = Platform::lastSocketError();
        return false;
    }
    out.close();
    out.handle = accepted;
    out.kind = kind;
    // Systems differ in what an accepted socket inherits: it starts blocking.
    out.setBlocking(true);
    peer = addressOf(from);
    return true;
}

int Socket::accept(Socket& out, IPAddress& peer, TimeValue timeout) {
    int ready = waitReadable(timeout);
    if (ready != 2) return ready;
    return accept(out, peer) ? 2 : 0;
}

bool Socket::joinV4(const IPAddress& group, const IPAddress& interfaceAddress) {
    std::uint8_t groupBytes[16];
    std::uint8_t interfaceBytes[16];
    group.copyBytes(groupBytes);
    interfaceAddress.copyBytes(interfaceBytes);
    if (Platform::socketJoinGroup4(handle, groupBytes + 12, interfaceBytes + 12)) return true;
    lastError = Platform::lastSocketError();
    return false;
}

bool Socket::joinV4All(const IPAddress& group) {
    InterfaceMap locals;
    if (!enumerateV4(locals)) return false;
    for (const auto& [local, info] : locals) {
        if (!joinV4(group, local)) return false;
    }
    return true;
}

template <typename Send>
bool Socket::sendRetrying(std::size_t length, bool retry, Send send) {
    bool switched = false;
    for (;;) {
        if (isInterrupted()) return failInterrupted();
        std::int64_t sent = send();
        if (sent < 0) {
            lastError = Platform::lastSocketError();
            bool congestion = lastError == Platform::errorNoBuffers || lastError == Platform::errorWouldBlock;
            if (!retry || !congestion) return false;
        } else if (static_cast<std::uint64_t>(sent) != length) {
            if (!retry) return false;
        } else {
            if (switched) setBlocking(false);
            return true;
        }
        // The frame waits in the kernel rather than being lost.
        if (!blocking && setBlocking(true)) switched = true;
    }
}

bool Socket::joinV6(const IPAddress& group) {
    std::uint8_t bytes[16];
    group.copyBytes(bytes);
    if (Platform::socketJoinGroup6(handle, bytes, group.scope())) return true;
    lastError = Platform::lastSocketError();
    return false;
}

bool Socket::receiveDatagram(void* data, std::size_t size, std::size_t& received, IPAddress* peer) {
    received = 0;
    if (isInterrupted()) return failInterrupted();
    Platform::SocketAddress6 from{};
    std::int64_t result = Platform::socketReceiveFrom6(handle, data, size, peer != nullptr ? &from : nullptr);
    if (result < 0) return isNothingReceived(Platform::lastSocketError());
    // On a stream, 0 bytes means that the other end has closed.
    if (result == 0 && isStream()) return false;
    received = static_cast<std::size_t>(result);
    if (peer != nullptr) *peer = addressOf(from);
    return true;
}

bool Socket::receiveMany(std::uint8_t* const* data, std::size_t size, std::size_t* received, IPAddress* peers,
                         std::chrono::nanoseconds* ages, std::size_t count, std::size_t& taken) {
    taken = 0;
    if (isInterrupted()) return failInterrupted();
    constexpr std::size_t most = 64;
    Platform::SocketAddress6 from[most];
    std::int64_t agesNs[most];
    int result =
        Platform::socketReceiveMany6(handle, data, size, received, from, agesNs, count < most ? count : most);
    if (result < 0) return isNothingReceived(Platform::lastSocketError());
    taken = static_cast<std::size_t>(result);
    for (std::size_t i = 0; i < taken; ++i) {
        peers[i] = addressOf(from[i]);
        ages[i] = std::chrono::nanoseconds(agesNs[i]);
    }
    return true;
}

bool Socket::stampArrivals() {
    return Platform::socketSetOption(handle, Platform::SocketOption::arrivalStamps, 1);
}

bool Socket::receiveFrom(void* data, std::size_t size, std::size_t& received, IPAddress& peer) {
    return receiveDatagram(data, size, received, &peer);
}

bool Socket::receive(void* data, std::size_t size, std::size_t& received) {
    return receiveDatagram(data, size, received, nullptr);
}

bool Socket::receiveIntoArray(ByteArray& array, IPAddress* peer) {
    array.resize(receiveSize);
    std::size_t received = 0;
    bool ok = receiveDatagram(array.data(), array.size(), received, peer);
    array.resize(received);
    return ok;
}

bool Socket::receiveFrom(ByteArray& array, IPAddress& peer) {
    return receiveIntoArray(array, &peer);
}

bool Socket::receive(ByteArray& array) {
    return receiveIntoArray(array, nullptr);
}

int Socket::waitReadable(TimeValue timeout) {
    int ready = isInterrupted() ? 0 : Platform::socketWaitReadable(handle, timeout.toUs());
    // Looked at again after the wait: the wake of interrupt may have ended it.
    if (isInterrupted()) {
        failInterrupted();
        return 0;
    }
    return ready;
}

}  // namespace NORVA
