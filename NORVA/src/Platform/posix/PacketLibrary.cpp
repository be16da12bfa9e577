// libpcap by dlopen: no link-time dependency, so that a system without it
// still runs everything but the raw path.
#include "Platform/PacketLibrary.h"

#include <dlfcn.h>

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

}  // namespace NORVA::Platform
