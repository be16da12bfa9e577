#include "Report.h"

#include <cstdio>
#include <sstream>

namespace {

std::string fixed(double value, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(c));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace

std::string reportText(const PlayReport& r) {
    std::ostringstream out;
    out << "driver       " << r.driverOrigin;
    if (!r.driverName.empty()) out << " -> \"" << r.driverName << "\", version " << r.driverVersion;
    out << "\n";
    if (!r.errorMessage.empty()) out << "error text   " << r.errorMessage << "\n";
    if (r.outputs != 0 || r.inputs != 0)
        out << "channels     " << r.inputs << " in, " << r.outputs << " out\n";
    for (const PlayReport::Channel& c : r.channels) {
        if (c.name.empty()) continue;
        out << "  output " << c.index << "   " << HostSource::typeName(c.type) << " (" << c.type << "), \""
            << c.name << "\"" << (c.active ? ", active" : "") << "\n";
    }
    if (r.maxSize != 0) {
        out << "buffer sizes min " << r.minSize << ", max " << r.maxSize << ", preferred " << r.preferredSize
            << ", granularity " << r.granularity << "; using " << r.bufferSize << "\n";
    }
    if (r.rate != 0) out << "sample rate  " << fixed(r.rate, 0) << " Hz, " << (r.dsd ? "DSD" : "PCM") << "\n";
    for (const std::string& clock : r.clocks) out << "clock        " << clock << "\n";
    if (!r.channels.empty() && !r.channels[0].name.empty())
        out << "latencies    in " << r.inputLatency << ", out " << r.outputLatency << " samples\n";
    if (!r.source.empty()) {
        out << "source       " << r.source << ", " << r.sourceFrames << " frames; given " << r.framesGiven
            << " frames\n";
    }
    const PlayReport::Callbacks& cb = r.callbacks;
    if (cb.count != 0) {
        out << "callbacks    " << cb.count << " x " << (cb.timeInfo ? "bufferSwitchTimeInfo" : "bufferSwitch")
            << ", first " << fixed(cb.firstAfterStartMs, 1) << " ms after start\n";
        out << "intervals    expected " << fixed(cb.expectedMs, 3) << " ms; mean " << fixed(cb.meanMs, 3)
            << ", min " << fixed(cb.minMs, 3) << ", p50 " << fixed(cb.p50Ms, 3) << ", p99 "
            << fixed(cb.p99Ms, 3) << ", max " << fixed(cb.maxMs, 3) << " ms\n";
        out << "positions    " << cb.firstPosition << " to " << cb.lastPosition << "; " << cb.positionSteps
            << " steps of one buffer, " << cb.positionJumps << " other; " << cb.indexRepeats
            << " repeated halves\n";
    }
    std::uint64_t messages =
        r.resetRequests + r.resyncRequests + r.bufferSizeChanges + r.latencyChanges + r.rateChanges;
    if (messages != 0) {
        out << "messages     reset " << r.resetRequests << ", resync " << r.resyncRequests << ", buffer size "
            << r.bufferSizeChanges << ", latencies " << r.latencyChanges << ", rate " << r.rateChanges
            << "\n";
    }
    out << "calls       ";
    for (const PlayReport::Call& call : r.calls) {
        out << " " << call.name << "="
            << (call.name == "init" ? (call.result == ASIOTrue ? "true" : "false")
                                    : asioErrorName(call.result))
            << " (" << fixed(call.ms, call.ms < 10 ? 2 : 0) << " ms)";
    }
    out << "\n";
    if (r.referencesLeft != 0) out << "release      " << r.referencesLeft << " references left\n";
    out << "result       " << (r.failure.empty() ? "played" : r.failure) << "\n";
    return out.str();
}

std::string reportJson(const PlayReport& r) {
    const PlayReport::Callbacks& cb = r.callbacks;
    std::ostringstream out;
    out << "{\"driver\":" << quoted(r.driverOrigin) << ",\"driverName\":" << quoted(r.driverName)
        << ",\"driverVersion\":" << r.driverVersion << ",\"errorMessage\":" << quoted(r.errorMessage)
        << ",\"inputs\":" << r.inputs << ",\"outputs\":" << r.outputs << ",\"channels\":[";
    for (std::size_t i = 0; i < r.channels.size(); ++i) {
        const PlayReport::Channel& c = r.channels[i];
        out << (i == 0 ? "" : ",") << "{\"channel\":" << c.index << ",\"name\":" << quoted(c.name)
            << ",\"type\":" << c.type << ",\"typeName\":" << quoted(HostSource::typeName(c.type))
            << ",\"active\":" << (c.active ? "true" : "false") << "}";
    }
    out << "],\"bufferSize\":{\"min\":" << r.minSize << ",\"max\":" << r.maxSize
        << ",\"preferred\":" << r.preferredSize << ",\"granularity\":" << r.granularity
        << ",\"used\":" << r.bufferSize << "},\"rate\":" << fixed(r.rate, 0)
        << ",\"dsd\":" << (r.dsd ? "true" : "false") << ",\"latencies\":{\"input\":" << r.inputLatency
        << ",\"output\":" << r.outputLatency << "},\"clocks\":[";
    for (std::size_t i = 0; i < r.clocks.size(); ++i) out << (i == 0 ? "" : ",") << quoted(r.clocks[i]);
    out << "],\"source\":" << quoted(r.source) << ",\"sourceFrames\":" << r.sourceFrames
        << ",\"framesGiven\":" << r.framesGiven << ",\"callbacks\":{\"count\":" << cb.count
        << ",\"timeInfo\":" << (cb.timeInfo ? "true" : "false")
        << ",\"firstAfterStartMs\":" << fixed(cb.firstAfterStartMs, 3)
        << ",\"expectedMs\":" << fixed(cb.expectedMs, 3) << ",\"meanMs\":" << fixed(cb.meanMs, 3)
        << ",\"minMs\":" << fixed(cb.minMs, 3) << ",\"p50Ms\":" << fixed(cb.p50Ms, 3)
        << ",\"p99Ms\":" << fixed(cb.p99Ms, 3) << ",\"maxMs\":" << fixed(cb.maxMs, 3)
        << ",\"firstPosition\":" << cb.firstPosition << ",\"lastPosition\":" << cb.lastPosition
        << ",\"positionSteps\":" << cb.positionSteps << ",\"positionJumps\":" << cb.positionJumps
        << ",\"indexRepeats\":" << cb.indexRepeats << ",\"rateChangedFlags\":" << cb.rateChangedFlags
        << "},\"messages\":{\"reset\":" << r.resetRequests << ",\"resync\":" << r.resyncRequests
        << ",\"bufferSize\":" << r.bufferSizeChanges << ",\"latencies\":" << r.latencyChanges
        << ",\"rate\":" << r.rateChanges << "},\"calls\":[";
    for (std::size_t i = 0; i < r.calls.size(); ++i) {
        out << (i == 0 ? "" : ",") << "{\"call\":" << quoted(r.calls[i].name)
            << ",\"result\":" << r.calls[i].result << ",\"ms\":" << fixed(r.calls[i].ms, 3) << "}";
    }
    out << "],\"timeline\":[";
    for (std::size_t i = 0; i < r.timeline.size(); ++i)
        out << (i == 0 ? "" : ",") << "[" << r.timeline[i].position << "," << r.timeline[i].ns << "]";
    out << "]";
    if (r.hasDigest) {
        out << ",\"digest\":{\"leadFrames\":" << r.digestLeadFrames << ",\"lead\":" << r.digest.lead()
            << ",\"length\":" << r.digest.length() << ",\"checkpoints\":[";
        const auto& points = r.digest.checkpoints();
        for (std::size_t i = 0; i < points.size(); ++i) {
            char hash[24];
            std::snprintf(hash, sizeof hash, "%016llx", static_cast<unsigned long long>(points[i].hash));
            out << (i == 0 ? "" : ",") << "[" << points[i].bytes << ",\"" << hash << "\"]";
        }
        out << "]}";
    }
    out << ",\"referencesLeft\":" << r.referencesLeft << ",\"failure\":" << quoted(r.failure)
        << ",\"exitCode\":" << r.exitCode << "}\n";
    return out.str();
}
