#include "Network/SocketSet.h"

#include <algorithm>

namespace NORVA {

bool SocketSet::add(Socket& socket) {
    if (!socket.isOpen()) return false;
    sockets.push_back(&socket);
    handles.push_back(socket.handle);
    return true;
}

void SocketSet::clear() {
    sockets.clear();
    handles.clear();
    std::fill(std::begin(ready), std::end(ready), false);
}

int SocketSet::wait(TimeValue timeout) {
    std::fill(std::begin(ready), std::end(ready), false);
    if (handles.empty()) return 0;
    std::size_t count = std::min(handles.size(), Platform::maxWaitSockets);
    return Platform::socketWaitAnyReadable(handles.data(), count, timeout.toUs(), ready);
}

bool SocketSet::isReady(const Socket& socket) const {
    std::size_t count = std::min(sockets.size(), Platform::maxWaitSockets);
    for (std::size_t i = 0; i < count; ++i) {
        if (sockets[i] == &socket) return ready[i];
    }
    return false;
}

}  // namespace NORVA
