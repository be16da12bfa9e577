// An ordered set of open sockets that one wait watches together.
#pragma once

#include <cstddef>
#include <vector>

#include "Network/Socket.h"
#include "Network/TimeValue.h"

namespace NORVA {

class SocketSet {
  public:
    // Refuses a closed socket. The caller keeps the socket alive and open
    // while it is in the set.
    bool add(Socket& socket);
    void clear();
    std::size_t size() const { return sockets.size(); }

    // Waits until one of the first Platform::maxWaitSockets sockets is
    // readable: 0 error (also for an empty set), 1 timed out, 2 readable.
    int wait(TimeValue timeout);
    // After a wait that gave 2: whether this socket was readable.
    bool isReady(const Socket& socket) const;

  private:
    std::vector<Socket*> sockets;
    std::vector<Platform::SocketHandle> handles;
    bool ready[Platform::maxWaitSockets] = {};
};

}  // namespace NORVA
