// velmora-target: a network audio endpoint's control side. It answers the
// protocol on the control port, takes local registrations, and registers
// its test sinks, until a signal or a restart or commit ends it.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "Network/Socket.h"
#include "Protocol/Connection.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "Sink/StreamSink.h"
#include "SinkOutput.h"
#include "System/Log.h"
#include "System/Threads.h"
#include "TargetOptions.h"
#include "ToolTarget.h"

namespace {

volatile std::sig_atomic_t signalled = 0;

void onSignal(int) {
    signalled = 1;
}

void printLine(const char* line) {
    std::fprintf(stderr, "%s\n", line);
}

// Sinks register again well within the target's 10 seconds.
constexpr std::uint32_t registerEveryMs = 3000;
constexpr std::uint32_t pollMs = 50;
constexpr std::uint32_t listWaitMs = 5000;

// A stream sink and the registration that tells the target of it.
class RegisteredSink {
  public:
    RegisteredSink(const TestSink& sink, VELMORA::StreamSinkConfig stream, bool several)
        : sink(sink), config(withPort(stream, sink.port, several ? sink.index : -1)) {}

    // Opens the sink's output and registers it; its line is printed once
    // the target lists it.
    bool start(std::uint16_t registrationPort) {
        std::string error;
        std::unique_ptr<VELMORA::PlayoutOutput> output = openSinkOutput(sink, config, error);
        if (!error.empty()) {
            std::fprintf(stderr, "velmora-target: sink %u, %s %s: %s\n", sink.index,
                         sink.output == TestSink::jack ? "JACK client" : "ALSA device", sink.device.c_str(),
                         error.c_str());
            return false;
        }
        stream = std::make_unique<VELMORA::StreamSink>(config, std::move(output));
        if (!stream->start() || !socket.openNonBlocking()) {
            std::fprintf(stderr, "velmora-target: can't open sink %u on port %u\n", sink.index, sink.port);
            return false;
        }
        registration.setHeader(VELMORA::MessageType::PORT_REGIST, 0, sink.index, 0, stream->port(), 0);
        registration.setBodyText(sink.name);
        registration.finish();
        announce(registrationPort);
        return true;
    }
    // Whether the target answers for this sink as a host would ask for it.
    bool isListed(VELMORA::Connection& asker, std::uint16_t controlPort) {
        const NORVA::IPAddress control = NORVA::IPAddress::loopback(controlPort);
        VELMORA::ConnectionBuffer request(*asker.socket, control, VELMORA::MessageType::PORT_REQ, sink.index,
                                          0, 1, 1);
        VELMORA::ConnectionBuffer answer(*asker.socket);
        return asker.sendAck(request, control, VELMORA::MessageType::PORT_ANS, answer,
                             VELMORA::Connection::ackTimeout) &&
               !answer.isEmpty() && answer.param2() == stream->port();
    }
    // The line that tells whoever started this program that the sink is there.
    void printReady() const {
        std::printf("sink %u: port %u, %s\n", sink.index, stream->port(), sink.name.c_str());
    }
    void printStats() {
        if (stream == nullptr) return;
        VELMORA::SinkStats stats = stream->playStats();
        if (stats.packets != 0) std::printf("sink %u: %s\n", sink.index, stats.text().c_str());
    }
    void announce(std::uint16_t registrationPort) {
        socket.sendTo(NORVA::IPAddress::loopback(registrationPort), false, registration.bytes.data,
                      registration.bytes.size);
    }

  private:
    // Several sinks write files of their own, told apart by their index.
    static VELMORA::StreamSinkConfig withPort(VELMORA::StreamSinkConfig config, std::uint16_t port,
                                              int index) {
        config.address.setPort(port);
        if (index >= 0) {
            std::string suffix = "." + std::to_string(index);
            if (!config.play.wavPath.empty()) config.play.wavPath += suffix;
            if (!config.statsPath.empty()) config.statsPath += suffix;
            // Raw frames reach every sink on the interface: the link byte says whose.
            config.raw.linkByte = std::uint8_t(index & 0x7F);
        }
        return config;
    }

    TestSink sink;
    VELMORA::StreamSinkConfig config;
    std::unique_ptr<VELMORA::StreamSink> stream;
    NORVA::UDPV6 socket;
    VELMORA::SendBuffer registration;
};

// A host that reads a sink's line asks the target for that sink at once; the
// target takes registrations in its own time, so the lines wait until it
// lists every sink.
bool waitUntilListed(ToolTarget& target, std::vector<std::unique_ptr<RegisteredSink>>& sinks) {
    VELMORA::Connection asker;
    NORVA::IPAddress local = NORVA::IPAddress::loopback(0);
    if (sinks.empty()) return true;
    if (!asker.open(local)) return false;
    for (std::uint32_t waited = 0; waited < listWaitMs; waited += pollMs) {
        bool all = true;
        for (auto& sink : sinks) {
            if (sink->isListed(asker, target.boundPorts().control)) continue;
            all = false;
            sink->announce(target.boundPorts().registration);
        }
        if (all) return true;
        NORVA::sleepMilliseconds(pollMs);
    }
    return false;
}

int run(const TargetOptions& options) {
    ToolTarget target(options.config, options.slotDirectory);
    if (!target.open(options.scope, options.withLog)) {
        std::fprintf(stderr, "velmora-target: can't open the target (ports in use, or no such interface)\n");
        return 2;
    }
    std::printf("velmora-target: control port %u, registration port %u\n", target.boundPorts().control,
                target.boundPorts().registration);
    std::fflush(stdout);

    std::vector<std::unique_ptr<RegisteredSink>> sinks;
    for (const TestSink& sink : options.testSinks) {
        sinks.push_back(std::make_unique<RegisteredSink>(sink, options.stream, options.testSinks.size() > 1));
        if (!sinks.back()->start(target.boundPorts().registration)) return 2;
    }
    if (!waitUntilListed(target, sinks)) {
        std::fprintf(stderr, "velmora-target: the target does not list its sinks\n");
        return 2;
    }
    for (auto& sink : sinks) sink->printReady();
    std::fflush(stdout);

    std::uint32_t sinceRegistration = 0;
    while (signalled == 0 && target.loopResult() == VELMORA::Target::loopRunning) {
        if (sinceRegistration >= registerEveryMs) {
            for (auto& sink : sinks) sink->announce(target.boundPorts().registration);
            sinceRegistration = 0;
        }
        NORVA::sleepMilliseconds(pollMs);
        sinceRegistration += pollMs;
    }
    std::uint32_t result = target.loopResult();
    target.close();
    for (auto& sink : sinks) sink->printStats();
    std::fflush(stdout);
    if (result == VELMORA::Target::loopEndedByMessage) return target.exitCode();
    return signalled != 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    TargetOptions options;
    std::string error;
    if (!options.parse(argc, argv, error)) {
        std::fprintf(stderr, "velmora-target: %s\n%s", error.c_str(), TargetOptions::usage());
        return 2;
    }
    if (options.help) {
        std::printf("%s", TargetOptions::usage());
        return 0;
    }
    NORVA::Syslog log;
    log.configure(16, &printLine, 0);
    NORVA::Syslog::install(&log);
    NORVA::logThreshold = options.logLevel;

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    int code = run(options);
    NORVA::Syslog::install(nullptr);
    return code;
}
