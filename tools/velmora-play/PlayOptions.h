// The command line of velmora-play.
#pragma once

#include <string>

#include "HostSource.h"

struct PlayOptions {
    std::string driverPath;      // a library to load instead of the registered one
    std::string driverName;      // the registered driver (Windows); empty: "KESTRANE Velmora"
    std::string settingsFolder;  // holds "KESTRANE Velmora/setting.inf" (Linux)
    double rate = 0;             // 0: the WAV file's, or 48000 (PCM), 2822400 (DSD)
    int channels = 0;            // 0: the WAV file's, or every output
    int bufferSize = 0;          // 0: the driver's preferred size
    bool dsd = false;
    bool timeInfo = true;  // answer kAsioSupportsTimeInfo with yes
    std::string wavPath;
    SignalSpec signal;
    bool signalGiven = false;
    double seconds = 0;     // 0: the whole WAV file, or 3 s of the signal
    std::string givenPath;  // the exact samples handed to the driver
    std::string jsonPath;
    std::string compare[2];  // --compare GIVEN SINK
    bool help = false;

    // False with `error` set on a bad argument.
    bool parse(int argc, char** argv, std::string& error);
    static const char* usage();
};
