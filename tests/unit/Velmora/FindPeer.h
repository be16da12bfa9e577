// A scripted target for Find's tests: a socket on [::1], a thread that hands every datagram to a
// script, and a record of the requests it saw.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Discovery/Find.h"
#include "Network/ByteArray.h"
#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"

struct SeenRequest {
    std::uint16_t type;
    std::uint16_t params[4];
};

class FindPeer {
  public:
    using Script = std::function<void(FindPeer& peer, const VELMORA::Receive& request)>;
    NORVA::UDPV6 socket;
    NORVA::IPAddress address = NORVA::IPAddress::loopback(0);
    NORVA::IPAddress from;  // of the request being handled

    explicit FindPeer(Script onRequest) : script(std::move(onRequest)) {
        socket.openNonBlocking();
        socket.receiveSize = 70000;
        socket.bind(address);
        thread = std::thread([this] { serve(); });
    }
    ~FindPeer() { stop(); }
    // Ends the thread after it has taken what arrived.
    void stop() {
        if (!thread.joinable()) return;
        stopping = true;
        thread.join();
    }

    void reply(VELMORA::Send& message) {
        message.finish();
        socket.sendTo(from, true, message.bytes.data, message.bytes.size);
    }
    void reply(std::uint16_t type, std::uint16_t flags, std::uint16_t p0 = 0, std::uint16_t p1 = 0,
               std::uint16_t p2 = 0, std::uint16_t p3 = 0, const std::string& text = "") {
        VELMORA::SendBuffer message(type, flags, p0, p1, p2, p3);
        message.setBodyText(text);
        reply(message);
    }
    // A yes of the request's type plus one.
    void yes(const VELMORA::Receive& request, std::uint16_t p0 = 0, std::uint16_t p1 = 0,
             std::uint16_t p2 = 0, std::uint16_t p3 = 0) {
        reply(static_cast<std::uint16_t>(request.type() + 1), VELMORA::flagYes, p0, p1, p2, p3);
    }
    // What a target does with a request it doesn't know.
    void echo(const VELMORA::Receive& request) { reply(request.type(), 0); }

    std::vector<SeenRequest> requestsOf(std::uint16_t type) {
        std::lock_guard<std::mutex> guard(lock);
        std::vector<SeenRequest> matching;
        for (const SeenRequest& request : seen)
            if (request.type == type) matching.push_back(request);
        return matching;
    }

  private:
    void serve() {
        NORVA::ByteArray datagram;
        for (;;) {
            bool last = stopping;
            if (socket.waitReadable(NORVA::TimeValue::fromMs(5)) == 2 && socket.receiveFrom(datagram, from) &&
                !datagram.empty()) {
                VELMORA::Receive request(datagram.data(), static_cast<std::uint32_t>(datagram.size()));
                {
                    std::lock_guard<std::mutex> guard(lock);
                    seen.push_back(
                        {request.type(),
                         {request.param0(), request.param1(), request.param2(), request.param3()}});
                }
                script(*this, request);
            } else if (last) {
                return;
            }
        }
    }

    Script script;
    std::mutex lock;
    std::vector<SeenRequest> seen;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

inline VELMORA::FindSettings loopbackSettings() {
    VELMORA::FindSettings settings;
    settings.withLoopback = true;
    settings.filterId = VELMORA::anyProductId;
    settings.clientName = "find test";
    return settings;
}

// A Find open on the loopback address.
class FindOnLoopback : public ::testing::Test {
  protected:
    VELMORA::Find find{loopbackSettings()};
    void SetUp() override { ASSERT_TRUE(find.open()); }
};
