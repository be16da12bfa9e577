// A sink scripted by a test of the stream worker: it answers the connect
// request, takes audio packets in header framing or, with a data port of its
// own, with a 7-bit tag in front, accepts them strictly in order (go-back-N,
// as a real sink does), asks again after a gap, answers feedback requests
// in the encoding the test chooses, and answers DISCONNECT_REQ.
#pragma once

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "Stream/StreamMessages.h"
#include "System/Log.h"

struct SinkScript {
    std::uint32_t msMode = VELMORA::msModeNone;  // 2: audio to a port of its own, tag first
    int encoding = 1;                            // of the feedback: 1 centred, 2 signed, 3 level
    std::int16_t deviation = 0;                  // Q14, reported on each feedback request
    std::set<std::uint16_t> lose;                // sequence numbers lost on their first trip
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
        open(control);
        if (script.msMode != VELMORA::msModeNone) open(data);
        thread = std::thread([this] { serve(); });
    }
    ~ScriptedSink() {
        stopping = true;
        thread.join();
    }
    ScriptedSink(const ScriptedSink&) = delete;
    ScriptedSink& operator=(const ScriptedSink&) = delete;

    NORVA::IPAddress address() const { return controlAddress; }

    // Everything accepted in order.
    std::vector<std::uint8_t> stream() {
        std::lock_guard<std::mutex> lock(mutex);
        return accepted;
    }
    std::vector<Packet> arrivals() {
        std::lock_guard<std::mutex> lock(mutex);
        return arrived;
    }
    std::size_t count(std::uint16_t type) {
        std::lock_guard<std::mutex> lock(mutex);
        return requests[type];
    }
    std::size_t feedbackRequests() {
        std::lock_guard<std::mutex> lock(mutex);
        return feedbackAsked;
    }
    // Answers the next feedback request with resend requests for each of
    // `froms`, back to back.
    void askFrom(std::initializer_list<std::uint16_t> froms) {
        std::lock_guard<std::mutex> lock(mutex);
        forcedResends.assign(froms);
    }

  private:
    struct Port {
        NORVA::UDPV6 socket;
        NORVA::IPAddress address;
    };

    void open(Port& port) {
        port.address = NORVA::IPAddress::loopback(0);
        if (!port.socket.openNonBlocking() || !port.socket.bind(port.address)) std::abort();
        if (&port == &control) controlAddress = port.address;
    }

    void serve() {
        std::vector<std::uint8_t> datagram(4096);
        while (!stopping) {
            bool any = false;
            for (Port* port : {&control, &data}) {
                if (!port->socket.isOpen()) continue;
                std::size_t size = 0;
                NORVA::IPAddress from;
                if (!port->socket.receiveFrom(datagram.data(), datagram.size(), size, from) || size == 0)
                    continue;
                any = true;
                if (script.silent) continue;
                if (port == &data) {
                    taggedPacket(datagram.data(), size, from);
                } else {
                    message(VELMORA::Receive(datagram.data(), std::uint32_t(size)), from);
                }
            }
            if (!any) control.socket.waitReadable(NORVA::TimeValue::fromUs(500));
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
            case MessageType::CONNECT_REQ:
            case MessageType::MSCONNECT_REQ: {
                ConnectAnswer route;
                route.statusPort = controlAddress.port();
                route.dataPort = data.socket.isOpen() ? data.address.port() : 0;
                buildConnectAnswer(reply, frame.type(), route);
                break;
            }
            case MessageType::STREAM_DATA:
                packet(frame.param0(), (frame.flags() & streamWantsFeedback) != 0, frame.body(),
                       frame.bodySize(), from);
                return;
            case MessageType::DISCONNECT_REQ:
                if (!script.answerDisconnect) return;
                buildEmptyAnswer(reply, frame.type());
                break;
            case MessageType::HOSTDEBUG_REQ:
            case MessageType::SYNCHRO_STATUS_REQ:
                buildEmptyAnswer(reply, frame.type());
                break;
            default:
                return;
        }
        control.socket.sendTo(from, true, reply.bytes.data, reply.bytes.size);
    }

    void taggedPacket(const std::uint8_t* bytes, std::size_t size, const NORVA::IPAddress& from) {
        if (size < 2) return;
        std::uint8_t tag = bytes[0];
        // The tag holds 7 bits of the sequence number: take the full number
        // nearest to the one expected.
        std::uint16_t next = std::uint16_t(lastTagged + 1);
        std::int32_t step = std::int32_t((tag - next) & 0x7F);
        if (step >= 64) step -= 128;
        std::uint16_t seq = std::uint16_t(next + step);
        lastTagged = seq;
        packet(seq, (tag & 0x80) != 0, bytes + 2, std::uint32_t(size - 2), from);
    }

    void packet(std::uint16_t seq, bool wantsFeedback, const std::uint8_t* body, std::uint32_t size,
                const NORVA::IPAddress& from) {
        if (script.lose.erase(seq) != 0) return;
        {
            std::lock_guard<std::mutex> lock(mutex);
            arrived.push_back({seq, std::vector<std::uint8_t>(body, body + size), wantsFeedback});
            if (seq == expected) {
                accepted.insert(accepted.end(), body, body + size);
                ++expected;
                gapReported = false;
            } else if (std::int16_t(seq - expected) > 0 && !gapReported) {
                gapReported = true;
                answer(from, VELMORA::streamAnswerResend, 0, expected, seq, 0);
            }
            if (wantsFeedback) ++feedbackAsked;
        }
        if (wantsFeedback) feedback(from);
    }

    void feedback(const NORVA::IPAddress& from) {
        std::vector<std::uint16_t> forced;
        {
            std::lock_guard<std::mutex> lock(mutex);
            forced.swap(forcedResends);
        }
        for (std::uint16_t resendFrom : forced)
            answer(from, VELMORA::streamAnswerResend, 0, resendFrom, 0, 0);
        if (!forced.empty()) return;
        std::int16_t d = script.deviation;
        const std::uint16_t phase = script.invert ? 0x100 : 0;
        switch (script.encoding) {
            case 1:
                answer(from, phase, std::uint16_t(0x2000 + d / 2), 0, 0, 0);
                break;
            case 2:
                answer(from, phase, std::uint16_t(0x8000 | (std::uint16_t(d) & 0x7FFF)), 0, 0, 0);
                break;
            default: {
                // A level against the wanted one: d / 16384 of it above.
                constexpr std::int32_t wanted = 4000;
                answer(from, phase, 0, std::uint16_t(wanted + wanted * d / 16384), wanted, 0);
                break;
            }
        }
    }

    void answer(const NORVA::IPAddress& to, std::uint16_t flags, std::uint16_t p0, std::uint16_t p1,
                std::uint16_t p2, std::uint16_t p3) {
        VELMORA::SendBuffer reply(VELMORA::MessageType::STREAM_ANS, flags, p0, p1, p2, p3);
        reply.finish();
        control.socket.sendTo(to, true, reply.bytes.data, reply.bytes.size);
    }

    SinkScript& script;
    Port control;
    Port data;
    NORVA::IPAddress controlAddress;
    std::atomic<bool> stopping{false};
    std::thread thread;
    std::uint16_t lastTagged = 0xFFFF;

    std::mutex mutex;
    std::uint16_t expected = 0;
    bool gapReported = false;
    std::vector<std::uint8_t> accepted;
    std::vector<Packet> arrived;
    std::map<std::uint16_t, std::size_t> requests;
    std::size_t feedbackAsked = 0;
    std::vector<std::uint16_t> forcedResends;
};
