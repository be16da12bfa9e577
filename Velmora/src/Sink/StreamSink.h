// A sink as a host sees it: one UDP port that answers what a host asks
// before it streams (formats, latency, packet size and its probe, the cycle
// profile, transfer modes, connect preparation and name, connect, status and
// disconnect), as a plain configuration says; then it takes the stream, on
// that port or, in the compact framings, on a data port of its own, and
// plays it (SinkPlayout).
//
// It runs on a thread of its own between start and stop, so a target program
// can hold several and register their ports with its target.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Format/FormatID.h"
#include "Network/IPAddress.h"
#include "Network/Socket.h"
#include "Network/SocketSet.h"
#include "Network/TimeValue.h"
#include "Protocol/Receive.h"
#include "Sink/SinkPlayout.h"
#include "Sink/SinkRaw.h"
#include "Stream/StreamMessages.h"

namespace VELMORA {

struct StreamSinkConfig {
    // Port 0: one of the system's choice.
    NORVA::IPAddress address = NORVA::IPAddress::loopback(0);

    // The capability masks of FORMAT_ANS; kinds follow from them.
    FormatID pcm;
    FormatID dsdLsb;
    FormatID dsdMsb;

    // LATENCY_ANS, units of 100 us. A request is granted within
    // [latencyLeast, latencyGreatest]; 0 only asks and gets `latency`.
    std::uint16_t latency = 50;
    std::uint16_t latencyLeast = 10;
    std::uint16_t latencyGreatest = 5000;
    std::uint16_t latencyHardware = 10;

    // DATASIZE_ANS. A `dataMax` of 0 leaves the greatest packet unsaid.
    bool answerDataSize = true;
    std::uint16_t dataMin = 64;
    std::uint16_t cycleDataMax = 0xFFFF;
    std::uint16_t dataReq = 1500;
    std::uint32_t dataMax = 0;
    // Probes above this link MTU go unanswered, as a link of that MTU would
    // drop them; 0 leaves it to the real path.
    std::uint32_t linkMtu = 0;

    // SINKINFO_ANS: least and greatest cycle in units of 10 us, profile bits.
    std::uint16_t cycleMin = 0;
    std::uint16_t cycleMax = 0;
    std::uint16_t profile = 0;

    // SYNCHRO_CHANNEL_ANS; without an answer the host uses no transfer mode.
    bool answerSynchroChannel = true;
    std::uint16_t msa = channelOffersMode2;

    // The phase bits of the connect answer and of feedback.
    bool invertPhase = false;

    // Raw frames (offered in `msa` too): the interface they arrive on.
    SinkRawConfig raw;

    // How the stream is played, and where its statistics go at its end
    // (empty: nowhere).
    SinkPlayConfig play;
    std::string statsPath;
};

class StreamSink {
  public:
    // One request as it arrived.
    struct Request {
        std::uint16_t type = 0;
        std::uint16_t flags = 0;
        std::uint64_t value = 0;
        std::uint32_t size = 0;  // bytes received
    };
    // The requests kept for looking at; older ones are dropped.
    static constexpr std::size_t keptRequests = 1024;
    // The receive loop looks at the stop flag at least this often.
    static constexpr NORVA::TimeValue pollInterval = NORVA::TimeValue::fromMs(10);

    struct Datagram {
        std::vector<std::uint8_t> bytes;
        std::size_t size = 0;
        NORVA::IPAddress from;
        std::chrono::nanoseconds waited{};  // in the socket before it was taken
        bool onDataPort = false;
    };
    // What the loop does with one datagram: the control port's messages, or
    // audio in a compact framing on the data port. True if it was a stream's
    // audio. Callable without sockets while no loop runs.
    bool dispatch(const Datagram& datagram);
    // Without an output the sink plays as `settings.play` says.
    explicit StreamSink(const StreamSinkConfig& settings, std::unique_ptr<PlayoutOutput> output = nullptr);
    ~StreamSink();
    StreamSink(const StreamSink&) = delete;
    StreamSink& operator=(const StreamSink&) = delete;

    // Binds the port and starts answering. False, with the reason logged,
    // if the port can't be had or the sink already runs.
    bool start();
    // Ends the loop and closes the port; the kept requests stay.
    void stop();

    // The address the sink answers on, with its port once started.
    NORVA::IPAddress address() const { return bound; }
    std::uint16_t port() const { return bound.port(); }

    std::vector<Request> requests() const;
    // Requests of one type, in order.
    std::vector<Request> requestsOf(std::uint16_t type) const;
    ConnectName connectName() const;
    // Between a connect answer and a disconnect.
    bool isConnected() const { return connected.load(); }
    // The transfer mode of the last connect.
    std::uint32_t connectedMode() const { return mode.load(); }
    // The port of the compact framings' audio.
    std::uint16_t dataPort() const { return dataBound.port(); }
    // Of the stream under way, or of the last one.
    SinkStats playStats() const { return playout.stats(); }
    bool isStreaming() const { return playout.isStreaming(); }

  private:
    void run();
    // True for a stream's audio, as dispatch.
    bool handle(const Receive& request, const Datagram& datagram);
    bool answer(const Receive& request, SendBuffer& reply);
    std::uint64_t formatAnswer(std::uint64_t query) const;
    LatencyAnswer latencyAnswer(std::uint16_t wanted) const;
    bool dataSizeAnswer(const Receive& request, DataSizeAnswer& sizes) const;
    bool connectAnswer(const Receive& request, SendBuffer& reply);
    void record(const Receive& request);
    // One audio packet, in any framing; answers go back to `from`.
    void play(const SinkPlayout::Packet& packet, const NORVA::IPAddress& from);

    // Reads and handles every datagram that waits on the sockets the last
    // wait found readable, audio first; false if a socket failed. True in
    // `tookAudio` if a stream's packets came.
    bool drain(bool& tookAudio);
    bool drainSocket(NORVA::UDPV6& from, bool& tookAudio);
    bool receiveData(const Datagram& datagram);
    void sendAnswer(const SinkPlayout::Answer& answer, const NORVA::IPAddress& to);
    void receiveRaw();
    void endStream();

    const StreamSinkConfig config;
    NORVA::UDPV6 socket;
    NORVA::IPAddress bound;
    std::thread thread;
    std::atomic<bool> stopping{false};
    std::atomic<bool> connected{false};
    std::atomic<std::uint32_t> mode{msModeNone};
    NORVA::UDPV6 dataSocket;
    NORVA::IPAddress dataBound;
    NORVA::SocketSet sockets;
    std::uint16_t grantedLatency = 0;  // units of 100 us, the last granted
    SinkPlayout playout;
    // Datagrams taken in one read.
    static constexpr std::size_t batchSize = 16;
    Datagram datagrams[batchSize];
    std::uint8_t* batchData[batchSize] = {};
    std::size_t batchLengths[batchSize] = {};
    NORVA::IPAddress batchPeers[batchSize];
    std::chrono::nanoseconds batchAges[batchSize];
    // Audio read in a batch is counted as it comes and played out once at
    // the batch's end, where its feedback goes to the stream's sender.
    bool backlog = false;
    NORVA::IPAddress audioFrom;
    SinkRaw raw{config.raw};
    NORVA::IPAddress requester;  // the sender of the request being answered

    mutable std::mutex seenMutex;
    std::deque<Request> seen;
    ConnectName name;
};

}  // namespace VELMORA
