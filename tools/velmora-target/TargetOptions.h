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
    enum Output { file, jack, alsa };

    std::uint16_t index = 0;
    std::uint16_t port = 0;  // 0: a port of the system's choice
    std::string name;
    Output output = file;  // file: the --wav file, or nothing
    std::string device;    // the JACK client's name, or the ALSA device
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
    // --jack and --alsa name the output of the --sink before them.
    bool sinkOutput(TestSink::Output output, int argc, char** argv, int& i, std::string& error);
    // --raw offers raw frames; raw frames offered without it can't be taken.
    bool rawFramesFit(std::string& error);
    bool clockFits(std::string& error) const;
    // Stereo PCM of 16, 24 and 32 bits at 44.1 and 48 kHz times 1 to 8.
    static VELMORA::StreamSinkConfig defaultStream();
};
