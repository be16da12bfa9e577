#include "PlayOptions.h"

#include <cstdlib>
#include <functional>
#include <map>

#include "DriverLoader.h"

namespace {

bool real(const std::string& text, double least, double greatest, double& out) {
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || !(value >= least && value <= greatest))
        return false;
    out = value;
    return true;
}

bool whole(const std::string& text, int least, int greatest, int& out) {
    double value = 0;
    if (!real(text, least, greatest, value) || value != double(int(value))) return false;
    out = int(value);
    return true;
}

// "sine", "sine:HZ" or "noise"
bool signalKind(const std::string& text, SignalSpec& signal) {
    if (text == "noise") {
        signal.kind = SignalSpec::noise;
        return true;
    }
    if (text == "sine") return true;
    return text.starts_with("sine:") && real(text.substr(5), 1, 1e6, signal.frequency);
}

}  // namespace

const char* PlayOptions::usage() {
    return "usage: velmora-play [options]          play through the driver as an ASIO host\n"
           "       velmora-play --compare GIVEN SINK  compare what was given with a sink's WAV\n"
           "  --driver PATH        the driver library (Linux default: asio_kestrane.so beside\n"
           "                       this program; Windows default: the registered driver)\n"
           "  --name NAME          the driver's key under HKLM\\SOFTWARE\\ASIO (Windows;\n"
           "                       default \"KESTRANE Velmora\")\n"
           "  --settings DIR       per-user folder holding \"KESTRANE Velmora/setting.inf\" (Linux)\n"
           "  --rate HZ            sample rate (default: the WAV file's, else 48000; DSD 2822400)\n"
           "  --channels N         output channels to use (default: the WAV file's, else all)\n"
           "  --buffer N           buffer size in samples (default: the driver's preferred)\n"
           "  --dsd                ask for DSD through kAsioSetIoFormat\n"
           "  --wav FILE           play FILE (integer PCM of 8 to 32 bits, float of 32 or 64)\n"
           "  --signal KIND        sine (997 Hz), sine:HZ or noise (default sine)\n"
           "  --seconds S          how long to play (default: the whole file, or 3)\n"
           "  --plain-callbacks    say no to kAsioSupportsTimeInfo: bufferSwitch instead\n"
           "  --given FILE         write the samples handed to the driver (WAV; 1 bit for DSD)\n"
           "  --json FILE          write the report as JSON, with the callbacks' times and a\n"
           "                       fingerprint of the stream handed over\n"
           "exit codes: 0 played, 1 the stream failed or the files differ, 2 bad arguments or\n"
           "input, 3 the driver can't be loaded, 4 the driver refused a call\n";
}

bool PlayOptions::parse(int argc, char** argv, std::string& error) {
    auto text = [](std::string& field) {
        return [&field](const std::string& value) { return !value.empty() && (field = value, true); };
    };
    const std::map<std::string, std::function<bool(const std::string&)>> withValue = {
        {"--driver", text(driverPath)},
        {"--name", text(driverName)},
        {"--settings", text(settingsFolder)},
        {"--rate", [this](const std::string& v) { return real(v, 1000, 1e8, rate); }},
        {"--channels", [this](const std::string& v) { return whole(v, 1, 64, channels); }},
        {"--buffer", [this](const std::string& v) { return whole(v, 1, 1 << 24, bufferSize); }},
        {"--wav", text(wavPath)},
        {"--signal", [this](const std::string& v) { return signalGiven = true, signalKind(v, signal); }},
        {"--seconds", [this](const std::string& v) { return real(v, 0.001, 3600, seconds); }},
        {"--given", text(givenPath)},
        {"--json", text(jsonPath)},
    };
    int others = 0;
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        others += option != "--compare";
        if (option == "--help" || option == "-h") {
            help = true;
        } else if (option == "--dsd") {
            dsd = true;
        } else if (option == "--plain-callbacks") {
            timeInfo = false;
        } else if (option == "--compare") {
            if (i + 2 >= argc) return error = "--compare needs two files: GIVEN SINK", false;
            compare[0] = argv[++i];
            compare[1] = argv[++i];
        } else if (auto entry = withValue.find(option); entry != withValue.end()) {
            if (i + 1 >= argc) return error = option + " needs a value", false;
            std::string value = argv[++i];
            if (!entry->second(value)) return error = "bad value for " + option + ": '" + value + "'", false;
        } else {
            return error = "unknown option '" + option + "'", false;
        }
    }
    if (!compare[0].empty() && others != 0) return error = "--compare takes no other options", false;
    if (!wavPath.empty() && signalGiven) return error = "--wav and --signal exclude each other", false;
    if (!wavPath.empty() && dsd) return error = "a WAV file can't feed a DSD stream; use --signal", false;
    if (!driverName.empty() && !driverPath.empty())
        return error = "--name picks a registered driver, --driver a file: give one", false;
    if (!driverName.empty() && !DriverLoader::hasRegistry())
        return error = "--name picks a registered driver; this system has no registry: use --driver", false;
    return true;
}
