// "wpcap.dll" by LoadLibraryA, the functions by GetProcAddress.
#include "Platform/PacketLibrary.h"

#include <windows.h>

#include <atomic>
#include <cstring>

#include "Platform/win32/Wine.h"

namespace NORVA::Platform {

namespace {

std::atomic<HMODULE> library{nullptr};

HMODULE loadLibrary() {
    HMODULE loaded = library.load(std::memory_order_acquire);
    if (loaded != nullptr) return loaded;
    loaded = LoadLibraryA("wpcap.dll");
    if (loaded == nullptr) return nullptr;
    HMODULE expected = nullptr;
    if (!library.compare_exchange_strong(expected, loaded, std::memory_order_acq_rel)) {
        FreeLibrary(loaded);  // another thread was first; its handle stays
        return expected;
    }
    return loaded;
}

}  // namespace

void* packetLibrarySymbol(const char* name) {
    // Wine's own wpcap.dll lays libpcap under the WinPcap names, but its send
    // queue functions are stubs that end the process when called: there they
    // count as missing, and frames go one by one, as with libpcap on Linux.
    if (runningUnderWine() && std::strncmp(name, "pcap_sendqueue_", 15) == 0) return nullptr;
    HMODULE loaded = loadLibrary();
    if (loaded == nullptr) return nullptr;
    return reinterpret_cast<void*>(GetProcAddress(loaded, name));
}

bool packetSendQueueRequired() {
    return !runningUnderWine();
}

// The receiving end is a target's, and the target program runs on Linux.
SocketHandle packetSocketOpen(const char*, std::uint16_t, int& error) {
    error = ERROR_NOT_SUPPORTED;
    return noSocket;
}

std::int64_t packetSocketReceive(SocketHandle, void*, std::size_t, int& error) {
    error = ERROR_NOT_SUPPORTED;
    return -1;
}

void packetSocketClose(SocketHandle) {}

}  // namespace NORVA::Platform
