#include "TargetOptions.h"

#include <charconv>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string part;
    std::istringstream stream(text);
    while (std::getline(stream, part, separator)) parts.push_back(part);
    if (!text.empty() && text.back() == separator) parts.emplace_back();
    return parts;
}

template <class Number>
bool number(const std::string& text, Number& out) {
    int base = text.starts_with("0x") ? 16 : 10;
    const char* begin = text.data() + (base == 16 ? 2 : 0);
    const char* end = text.data() + text.size();
    auto [last, failure] = std::from_chars(begin, end, out, base);
    return failure == std::errc() && last == end && begin != end;
}

// A decimal number within [least, greatest].
bool real(const std::string& text, double least, double greatest, double& out) {
    char* end = nullptr;
    double value = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || !(value >= least && value <= greatest))
        return false;
    out = value;
    return true;
}

// "port,index,name[,class[,second]]"
bool staticPort(const std::string& text, VELMORA::TargetConfig& config) {
    std::vector<std::string> parts = split(text, ',');
    VELMORA::StaticPort port;
    if (parts.size() < 3 || parts.size() > 5 || !number(parts[0], port.port) ||
        !number(parts[1], port.index)) {
        return false;
    }
    port.name = parts[2];
    if (parts.size() >= 4 && !number(parts[3], port.portClass)) return false;
    if (parts.size() == 5) {
        if (parts[4] != "second") return false;
        port.sink = false;
    }
    config.staticPorts.push_back(port);
    return true;
}

// "count,packetSize,packetsPerBlock,blockCount"
bool slots(const std::string& text, VELMORA::TargetConfig& config) {
    std::vector<std::string> parts = split(text, ',');
    std::uint32_t sizes[3];
    if (parts.size() != 4 || !number(parts[0], config.slotCount)) return false;
    for (int i = 0; i < 3; ++i) {
        if (!number(parts[i + 1], sizes[i]) || sizes[i] == 0 || sizes[i] > 65536) return false;
        config.slots[i] = static_cast<std::uint16_t>(sizes[i] - 1);
    }
    return true;
}

// "name,text,value"
bool slotDescription(const std::string& text, VELMORA::TargetConfig& config) {
    std::vector<std::string> parts = split(text, ',');
    VELMORA::SlotDescription description;
    if (parts.size() != 3 || !number(parts[2], description.value)) return false;
    description.name = parts[0];
    description.text = parts[1];
    config.slotDescriptions.push_back(description);
    return true;
}

// "kind,name,text,minimum,maximum,value[,choice...]"
bool setting(const std::string& text, VELMORA::TargetConfig& config) {
    std::vector<std::string> parts = split(text, ',');
    VELMORA::TargetSettingRow row;
    if (parts.size() < 6 || !number(parts[0], row.kind) || row.kind < 1 || row.kind > 7 ||
        !number(parts[3], row.minimum) || !number(parts[4], row.maximum) || !number(parts[5], row.value)) {
        return false;
    }
    row.name = parts[1];
    row.text = parts[2];
    row.choices.assign(parts.begin() + 6, parts.end());
    config.settings.push_back(row);
    return true;
}

// "number,width,height[,alpha]": a generated test pattern.
bool icon(const std::string& text, VELMORA::TargetConfig& config) {
    std::vector<std::string> parts = split(text, ',');
    unsigned which = 0, width = 0, height = 0;
    if (parts.size() < 3 || parts.size() > 4 || !number(parts[0], which) || which < 1 || which > 8 ||
        !number(parts[1], width) || !number(parts[2], height) || width == 0 || width > 1024 || height == 0 ||
        height > 1024 || (parts.size() == 4 && parts[3] != "alpha")) {
        return false;
    }
    VELMORA::TargetIcon& target = config.icons[which - 1];
    target.alphaOnly = parts.size() == 4;
    target.width = static_cast<std::uint16_t>(width);
    target.pixels.resize(std::size_t(width) * height);
    for (unsigned y = 0; y < height; ++y) {
        for (unsigned x = 0; x < width; ++x) {
            target.pixels[y * width + x] =
                0xFF000000u | (x * 255 / width) << 16 | (y * 255 / height) << 8 | which;
        }
    }
    return true;
}

// "index,port,name" with port 0 for one of the system's choice.
bool testSink(const std::string& text, std::vector<TestSink>& sinks) {
    std::vector<std::string> parts = split(text, ',');
    TestSink sink;
    if (parts.size() != 3 || !number(parts[0], sink.index) || sink.index == 0 ||
        !number(parts[1], sink.port)) {
        return false;
    }
    sink.name = parts[2];
    sinks.push_back(sink);
    return true;
}

// "LOW:HIGH", the two halves of a format mask.
bool formatMask(const std::string& text, VELMORA::FormatID& mask) {
    std::vector<std::string> parts = split(text, ':');
    std::uint32_t low = 0, high = 0;
    if (parts.size() != 2 || !number(parts[0], low) || !number(parts[1], high)) return false;
    mask = VELMORA::FormatID(low, high);
    return true;
}

// "PPM@SECONDS": the sink's clock moves by PPM after SECONDS of play.
bool ppmStep(const std::string& text, VELMORA::SinkPlayConfig& play) {
    std::vector<std::string> parts = split(text, '@');
    return parts.size() == 2 && real(parts[0], -1e5, 1e5, play.stepPpm) &&
           real(parts[1], 0, 1e6, play.stepAfterSeconds);
}

// "min,max,profile": SINKINFO's cycle limits (units of 10 us) and profile bits.
bool sinkCycle(const std::string& text, VELMORA::StreamSinkConfig& stream) {
    std::vector<std::string> parts = split(text, ',');
    return parts.size() == 3 && number(parts[0], stream.cycleMin) && number(parts[1], stream.cycleMax) &&
           number(parts[2], stream.profile);
}

}  // namespace

bool TargetOptions::sinkOutput(TestSink::Output output, int argc, char** argv, int& i, std::string& error) {
    std::string option = argv[i];
#ifndef VELMORA_WITH_JACK
    if (output == TestSink::jack) {
        error = "--jack: this build has no JACK";
        return false;
    }
#endif
#ifndef VELMORA_WITH_ALSA
    if (output == TestSink::alsa) {
        error = "--alsa: this build has no ALSA";
        return false;
    }
#endif
    if (testSinks.empty() || testSinks.back().output != TestSink::file) {
        error = option + " names the output of the --sink before it (one output per sink)";
        return false;
    }
    TestSink& sink = testSinks.back();
    bool named = i + 1 < argc && !std::string(argv[i + 1]).starts_with("--");
    if (output == TestSink::alsa && !named) {
        error = "--alsa needs a device (hw:1, default, ...)";
        return false;
    }
    sink.output = output;
    sink.device = named ? argv[++i] : "velmora-" + std::to_string(sink.index);
    if (sink.device.empty()) {
        error = option + " needs a non-empty name";
        return false;
    }
    return true;
}

// The file, the simulated clock and its ppm belong to sinks without a device.
bool TargetOptions::clockFits(std::string& error) const {
    bool anyFile = testSinks.empty();
    for (const TestSink& sink : testSinks) anyFile = anyFile || sink.output == TestSink::file;
    if (anyFile) return true;
    if (!stream.play.wavPath.empty()) error = "--wav: every sink plays to a device";
    if (stream.play.ppm != 0 || stream.play.stepPpm != 0)
        error = "--ppm, --ppm-step: every sink plays on its device's clock";
    return error.empty();
}

bool TargetOptions::rawFramesFit(std::string& error) {
    if (!stream.raw.interfaceName.empty()) {
        stream.msa |= VELMORA::channelOffersRawFrames;
    } else if ((stream.msa & VELMORA::channelOffersRawFrames) != 0) {
        error = "--modes with raw frames (4) needs --raw IFNAME";
        return false;
    }
    return true;
}

VELMORA::StreamSinkConfig TargetOptions::defaultStream() {
    VELMORA::StreamSinkConfig stream;
    // Every address: a host on the link reaches the sink where it found the target.
    stream.address = NORVA::IPAddress();
    stream.pcm = VELMORA::FormatID(0x0E02u, 0x007Eu);
    return stream;
}

const char* TargetOptions::usage() {
    return "usage: velmora-target [options]\n"
           "  --name TEXT               name in discovery answers\n"
           "  --target-name TEXT        target name (may hold [myaddress])\n"
           "  --product-id N            64-bit ProductID (0x... for hexadecimal)\n"
           "  --identity N              64-bit identity\n"
           "  --text1 TEXT, --text2 TEXT\n"
           "  --info TEXT, --info2 TEXT information texts\n"
           "  --info-item TEXT, --info2-item TEXT   entries of the information lists (repeat)\n"
           "  --port-class N            class reported for port requests of class 0 (default 1)\n"
           "  --static-port P,I,NAME[,CLASS[,second]]   a port that needs no registration\n"
           "  --sink I,P,NAME           a sink on port P (0: any) registered at index I\n"
           "  sinks offer (all sinks alike):\n"
           "  --pcm LOW:HIGH, --dsd-lsb LOW:HIGH, --dsd-msb LOW:HIGH   format masks\n"
           "  --latency N               latency granted when only asked, units of 100 us\n"
           "  --data-min N, --data-req N, --data-max N, --cycle-data-max N   packet sizes\n"
           "  --link-mtu N              leave size probes above N unanswered\n"
           "  --sink-cycle MIN,MAX,PROFILE   cycle limits in units of 10 us, profile bits\n"
           "  --modes N                 transfer modes offered (2: mode2, 4: raw frames, with --raw)\n"
           "  --raw IFNAME              offer raw frames, taken by a packet socket on IFNAME\n"
           "  --silent-datasize, --silent-modes   leave those questions unanswered\n"
           "  --invert-phase            report an inverting sink\n"
           "  --jack [CLIENT]           the sink before it plays to the JACK server (JACK_DEFAULT_SERVER),\n"
           "                            as client CLIENT (default velmora-N, N the sink's index)\n"
           "  --alsa DEVICE             the sink before it plays to ALSA device DEVICE (hw:1, default, ...)\n"
           "  sinks play what they receive:\n"
           "  --wav FILE                sinks without a device write each stream to FILE (FILE.N for the "
           "sink at index N\n"
           "                            when there are several); without it the audio is discarded\n"
           "  --ppm N                   the clock of sinks without a device against the nominal rate, ppm\n"
           "  --ppm-step PPM@SECONDS    the clock moves by PPM more after SECONDS of play\n"
           "  --drop SHARE              drop this share of packets on arrival, 0 to 1 (0.01: 1 %)\n"
           "  --feedback N              feedback encoding: 1 centred (default), 2 signed, 3 level\n"
           "  --batch-wait US           sinks take arrivals in batches, waking at most every US\n"
           "                            microseconds (capped at a fifth of the sink's centre); the\n"
           "                            level counts each packet from its arrival (default 4000;\n"
           "                            0: each packet as it comes, for more CPU)\n"
           "  --stats-json FILE         each stream's statistics as JSON, at its end\n"
           "  --window N                slot transfer window in bytes (65535: none)\n"
           "  --slots N,SIZE,PACKETS,BLOCKS   slot count and geometry\n"
           "  --slot-description NAME,TEXT,VALUE\n"
           "  --slot-dir DIR            write each checked slot's data to DIR/slotN.bin\n"
           "  --setting KIND,NAME,TEXT,MIN,MAX,VALUE[,CHOICE...]\n"
           "  --icon N,WIDTH,HEIGHT[,alpha]   a generated icon\n"
           "  --loopback                answer discovery from ::1\n"
           "  --restart-allowed         accept RESTART_REQ\n"
           "  --read-only               refuse setting writes, commits, restarts and slot data from the "
           "link\n"
           "  --forward-log             pass local log lines to the system log\n"
           "  --no-log-socket           don't take local log lines\n"
           "  --synchro                 handle clock reports, at high priority\n"
           "  --idle                    run the loop at idle priority\n"
           "  --scope N                 0 all interfaces (default), -1 loopback, else one scope\n"
           "  --control-port N, --registration-port N, --log-port N, --syslog-port N\n"
           "  --log-level N             0..7, -1 for none (default 6)\n";
}

bool TargetOptions::parse(int argc, char** argv, std::string& error) {
    config.idleWithoutSynchro = false;
    auto flag = [](bool& field) { return [&field](const std::string&) { return field = true; }; };
    auto text = [](std::string& field) {
        return [&field](const std::string& value) { return field = value, true; };
    };
    auto numeric = [](auto& field) {
        return [&field](const std::string& value) { return number(value, field); };
    };
    auto item = [](std::vector<std::string>& list) {
        return [&list](const std::string& value) { return list.push_back(value), true; };
    };
    VELMORA::TargetConfig& c = config;
    bool noLogSocket = false;
    const std::map<std::string, std::function<bool(const std::string&)>> withValue = {
        {"--name", text(c.name)},
        {"--target-name", text(c.targetName)},
        {"--product-id", numeric(c.productId)},
        {"--identity", numeric(c.identity)},
        {"--text1", text(c.text1)},
        {"--text2", text(c.text2)},
        {"--info", text(c.infoText)},
        {"--info2", text(c.infoText2)},
        {"--info-item", item(c.infoList)},
        {"--info2-item", item(c.infoList2)},
        {"--port-class", numeric(c.portClass)},
        {"--static-port", [&](const std::string& v) { return staticPort(v, c); }},
        {"--sink", [&](const std::string& v) { return testSink(v, testSinks); }},
        {"--window", numeric(c.window)},
        {"--slots", [&](const std::string& v) { return slots(v, c); }},
        {"--slot-description", [&](const std::string& v) { return slotDescription(v, c); }},
        {"--slot-dir", text(slotDirectory)},
        {"--setting", [&](const std::string& v) { return setting(v, c); }},
        {"--icon", [&](const std::string& v) { return icon(v, c); }},
        {"--scope", numeric(scope)},
        {"--control-port", numeric(c.ports.control)},
        {"--registration-port", numeric(c.ports.registration)},
        {"--log-port", numeric(c.ports.log)},
        {"--syslog-port", numeric(c.ports.systemLog)},
        {"--log-level", numeric(logLevel)},
        {"--pcm", [&](const std::string& v) { return formatMask(v, stream.pcm); }},
        {"--dsd-lsb", [&](const std::string& v) { return formatMask(v, stream.dsdLsb); }},
        {"--dsd-msb", [&](const std::string& v) { return formatMask(v, stream.dsdMsb); }},
        {"--latency", numeric(stream.latency)},
        {"--data-min", numeric(stream.dataMin)},
        {"--data-req", numeric(stream.dataReq)},
        {"--data-max", numeric(stream.dataMax)},
        {"--cycle-data-max", numeric(stream.cycleDataMax)},
        {"--link-mtu", numeric(stream.linkMtu)},
        {"--sink-cycle", [&](const std::string& v) { return sinkCycle(v, stream); }},
        {"--modes", numeric(stream.msa)},
        {"--raw", text(stream.raw.interfaceName)},
        {"--wav", text(stream.play.wavPath)},
        {"--ppm", [&](const std::string& v) { return real(v, -1e5, 1e5, stream.play.ppm); }},
        {"--ppm-step", [&](const std::string& v) { return ppmStep(v, stream.play); }},
        {"--drop", [&](const std::string& v) { return real(v, 0, 1, stream.play.dropShare); }},
        {"--batch-wait", [&](const std::string& v) { return real(v, 0, 1e6, stream.play.batchWaitUs); }},
        {"--feedback",
         [&](const std::string& v) {
             return number(v, stream.play.feedbackEncoding) && stream.play.feedbackEncoding >= 1 &&
                    stream.play.feedbackEncoding <= 3;
         }},
        {"--stats-json", text(stream.statsPath)},
    };
    const std::map<std::string, std::function<bool(const std::string&)>> switches = {
        {"--loopback", flag(c.allowLoopback)},
        {"--restart-allowed", flag(c.restartAllowed)},
        {"--read-only", flag(c.readOnly)},
        {"--forward-log", flag(c.forwardLog)},
        {"--no-log-socket", flag(noLogSocket)},
        {"--synchro", flag(c.synchro)},
        {"--idle", flag(c.idleWithoutSynchro)},
        {"--help", flag(help)},
        {"--invert-phase", flag(stream.invertPhase)},
        {"--silent-datasize", [&](const std::string&) { return stream.answerDataSize = false, true; }},
        {"--silent-modes", [&](const std::string&) { return stream.answerSynchroChannel = false, true; }},
    };
    for (int i = 1; i < argc; ++i) {
        std::string option = argv[i];
        if (option == "--jack" || option == "--alsa") {
            if (!sinkOutput(option == "--jack" ? TestSink::jack : TestSink::alsa, argc, argv, i, error))
                return false;
            continue;
        }
        if (auto found = switches.find(option); found != switches.end()) {
            found->second(option);
            continue;
        }
        auto found = withValue.find(option);
        if (found == withValue.end()) {
            error = "unknown option " + option;
            return false;
        }
        if (i + 1 >= argc) {
            error = option + " needs a value";
            return false;
        }
        std::string value = argv[++i];
        if (!found->second(value)) {
            error = "bad value for " + option + ": " + value;
            return false;
        }
    }
    withLog = !noLogSocket;
    if (c.readOnly && c.restartAllowed) {
        error = "--read-only refuses the restarts that --restart-allowed accepts";
        return false;
    }
    return rawFramesFit(error) && clockFits(error);
}
