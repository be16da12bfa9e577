// The command line of velmora-target: everything it puts into the
// TargetConfig, how it opens the target, and the test sinks it registers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Discovery/TargetConfig.h"
#include "Sink/StreamSink.h"

// A sink registered with the target at `index`; it answers the stream's
// set-up on its port as `TargetOptions::stream` says.
struct TestSink {
    std::uint16_t index = 0;
    std::uint16_t port = 0;  // 0: a port of the system's choice
    std::string name;
};

struct TargetOptions {
    VELMORA::TargetConfig config;
    std::vector<TestSink> testSinks;
    // What every sink offers: formats, latency, packet sizes, transfer modes.
    VELMORA::StreamSinkConfig stream = defaultStream();
    int scope = 0;  // the open form: 0 all interfaces, -1 loopback, else one scope
    bool withLog = true;
    int logLevel = 6;
    std::string slotDirectory;  // where a checked slot's data is written
    bool help = false;

    // False with `error` set on a bad argument.
    bool parse(int argc, char** argv, std::string& error);
    static const char* usage();
    // --raw offers raw frames; raw frames offered without it can't be taken.
    bool rawFramesFit(std::string& error);
    // Stereo PCM of 16, 24 and 32 bits at 44.1 and 48 kHz times 1 to 8.
    static VELMORA::StreamSinkConfig defaultStream();
};
