// libpcap by dlopen: no link-time dependency, so that a system without it
// still runs everything but the raw path. And the packet socket through
// which a target takes raw frames.
#include "Platform/PacketLibrary.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

namespace NORVA::Platform {

namespace {

std::atomic<void*> library{nullptr};

void* loadLibrary() {
    void* loaded = library.load(std::memory_order_acquire);
    if (loaded != nullptr) return loaded;
    // Debian and Ubuntu name the runtime package's object after the old
    // soname; other systems ship the newer one. The bare name exists only
    // with the development files.
    for (const char* name : {"libpcap.so.0.8", "libpcap.so.1", "libpcap.so"}) {
        loaded = dlopen(name, RTLD_NOW | RTLD_LOCAL);
        if (loaded != nullptr) break;
    }
    if (loaded == nullptr) return nullptr;
    void* expected = nullptr;
    if (!library.compare_exchange_strong(expected, loaded, std::memory_order_acq_rel)) {
        dlclose(loaded);  // another thread was first; its handle stays
        return expected;
    }
    return loaded;
}

}  // namespace

void* packetLibrarySymbol(const char* name) {
    void* loaded = loadLibrary();
    return loaded != nullptr ? dlsym(loaded, name) : nullptr;
}

bool packetSendQueueRequired() {
    return false;
}

namespace {

// Room for a burst of full frames while the sink's thread does other work.
constexpr int packetReceiveBuffer = 4 << 20;

}  // namespace

SocketHandle packetSocketOpen(const char* interfaceName, std::uint16_t etherType, int& error) {
    unsigned index = if_nametoindex(interfaceName);
    if (index == 0) {
        error = errno;
        return noSocket;
    }
    int handle = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(etherType));
    if (handle < 0) {
        error = errno;
        return noSocket;
    }
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(etherType);
    link.sll_ifindex = static_cast<int>(index);
    if (bind(handle, reinterpret_cast<sockaddr*>(&link), sizeof link) != 0) {
        error = errno;
        close(handle);
        return noSocket;
    }
    // A smaller buffer only loses frames sooner, which resending repairs.
    int size = packetReceiveBuffer;
    setsockopt(handle, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    return handle;
}

std::int64_t packetSocketReceive(SocketHandle handle, void* data, std::size_t size, int& error) {
    sockaddr_ll from{};
    socklen_t fromSize = sizeof from;
    ssize_t got =
        recvfrom(static_cast<int>(handle), data, size, 0, reinterpret_cast<sockaddr*>(&from), &fromSize);
    if (got < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
        error = errno;
        return -1;
    }
    // A packet socket also sees what this host sends on the link.
    if (from.sll_pkttype == PACKET_OUTGOING) return 0;
    return got;
}

void packetSocketClose(SocketHandle handle) {
    if (handle != noSocket) close(static_cast<int>(handle));
}

}  // namespace NORVA::Platform
