// A sink scripted by a test of the stream worker: it answers the connect
// request, takes audio packets in header framing strictly in order
// (go-back-N, as a real sink does), asks again after a gap, answers feedback
// requests with a centred deviation, and answers DISCONNECT_REQ.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "Stream/StreamMessages.h"

struct SinkScript {
    std::int16_t deviation = 0;    // Q14, reported on each feedback request
    std::set<std::uint16_t> lose;  // sequence numbers lost on their first trip
    bool answerDisconnect = true;
    std::atomic<bool> silent{false};  // answers nothing from now on
    std::atomic<bool> invert{false};  // feedback tells of a sink that inverts
};

class ScriptedSink {
  public:
    struct Packet {
        std::uint16_t seq;
        std::vector<std::uint8_t> body;
        bool wantsFeedback;
    };

    explicit ScriptedSink(SinkScript& script) : script(script) {
        if (!socket.openNonBlocking() || !socket.bind(address)) std::abort();
        thread = std::thread([this] { serve(); });
    }
    ~ScriptedSink() {
        stopping = true;
        thread.join();
    }

    NORVA::IPAddress address = NORVA::IPAddress::loopback(0);
    // Everything accepted in order.
    std::vector<std::uint8_t> stream() { return locked(accepted); }
    std::vector<Packet> arrivals() { return locked(arrived); }
    std::size_t count(std::uint16_t type) { return locked(requests)[type]; }
    std::size_t feedbackRequests() { return locked(feedbackAsked); }
    // Answers the next feedback request with resend requests for each of
    // `froms`, back to back.
    void askFrom(std::initializer_list<std::uint16_t> froms) {
        std::lock_guard<std::mutex> lock(mutex);
        forcedResends.assign(froms);
    }

  private:
    template <class T>
    T locked(const T& value) {
        std::lock_guard<std::mutex> lock(mutex);
        return value;
    }

    void serve() {
        std::vector<std::uint8_t> datagram(4096);
        while (!stopping) {
            std::size_t size = 0;
            NORVA::IPAddress from;
            if (!socket.receiveFrom(datagram.data(), datagram.size(), size, from) || size == 0) {
                socket.waitReadable(NORVA::TimeValue::fromUs(500));
            } else if (!script.silent) {
                message(VELMORA::Receive(datagram.data(), std::uint32_t(size)), from);
            }
        }
    }

    void message(const VELMORA::Receive& frame, const NORVA::IPAddress& from) {
        using namespace VELMORA;
        if (!frame.isValid()) return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++requests[frame.type()];
        }
        SendBuffer reply;
        switch (frame.type()) {
            case MessageType::CONNECT_REQ: {
                ConnectAnswer route;
                route.statusPort = address.port();
                buildConnectAnswer(reply, frame.type(), route);
                break;
            }
            case MessageType::STREAM_DATA:
                packet(frame, from);
                return;
            case MessageType::DISCONNECT_REQ:
                if (!script.answerDisconnect) return;
                [[fallthrough]];
            case MessageType::HOSTDEBUG_REQ:
            case MessageType::SYNCHRO_STATUS_REQ:
                buildEmptyAnswer(reply, frame.type());
                break;
            default:
                return;
        }
        socket.sendTo(from, true, reply.bytes.data, reply.bytes.size);
    }

    void packet(const VELMORA::Receive& frame, const NORVA::IPAddress& from) {
        const std::uint16_t seq = frame.param0();
        const bool wantsFeedback = (frame.flags() & VELMORA::streamWantsFeedback) != 0;
        if (script.lose.erase(seq) != 0) return;
        std::vector<std::uint16_t> forced;
        {
            std::lock_guard<std::mutex> lock(mutex);
            arrived.push_back({seq, std::vector<std::uint8_t>(frame.body(), frame.body() + frame.bodySize()),
                               wantsFeedback});
            if (seq == expected) {
                accepted.insert(accepted.end(), frame.body(), frame.body() + frame.bodySize());
                ++expected;
                gapReported = false;
            } else if (std::int16_t(seq - expected) > 0 && !gapReported) {
                gapReported = true;
                answer(from, VELMORA::streamAnswerResend, 0, expected, seq);
            }
            if (!wantsFeedback) return;
            ++feedbackAsked;
            forced.swap(forcedResends);
        }
        for (std::uint16_t resendFrom : forced) answer(from, VELMORA::streamAnswerResend, 0, resendFrom, 0);
        if (forced.empty())
            answer(from, script.invert ? 0x100 : 0, std::uint16_t(0x2000 + script.deviation / 2), 0, 0);
    }

    void answer(const NORVA::IPAddress& to, std::uint16_t flags, std::uint16_t p0, std::uint16_t p1,
                std::uint16_t p2) {
        VELMORA::SendBuffer reply(VELMORA::MessageType::STREAM_ANS, flags, p0, p1, p2, 0);
        reply.finish();
        socket.sendTo(to, true, reply.bytes.data, reply.bytes.size);
    }

    SinkScript& script;
    NORVA::UDPV6 socket;
    std::atomic<bool> stopping{false};
    std::thread thread;

    std::mutex mutex;
    std::uint16_t expected = 0;
    bool gapReported = false;
    std::vector<std::uint8_t> accepted;
    std::vector<Packet> arrived;
    std::map<std::uint16_t, std::size_t> requests;
    std::size_t feedbackAsked = 0;
    std::vector<std::uint16_t> forcedResends;
};
