#include "AsioHost.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

constexpr int exitStream = 1;
constexpr int exitInput = 2;
constexpr int exitRefused = 4;

// How long the host waits: for the first callback after start (the
// connection is made meanwhile), and for the next one once they come.
constexpr double firstCallbackLimitS = 10;
constexpr double callbackGapLimitS = 2;
// The timeline in the report keeps a callback per this much time.
constexpr std::int64_t timelineStepNs = 10'000'000;

std::int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::uint64_t joined(std::uint32_t hi, std::uint32_t lo) {
    return (std::uint64_t(hi) << 32) | lo;
}

std::string rateText(double rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", rate);
    return text;
}

// Sizes the driver offers, in ASIO's terms: a fixed size, powers of two, or
// steps of the granularity from the least.
bool sizeOffered(AsioLong size, const PlayReport& report) {
    if (size < report.minSize || size > report.maxSize) return false;
    if (report.granularity == -1) return (size & (size - 1)) == 0;
    if (report.granularity == 0) return size == report.preferredSize;
    return (size - report.minSize) % report.granularity == 0;
}

}  // namespace

std::atomic<AsioHost*> AsioHost::current{nullptr};

std::string asioErrorName(ASIOError code) {
    switch (code) {
        case ASE_OK:
            return "ASE_OK";
        case ASE_SUCCESS:
            return "ASE_SUCCESS";
        case ASE_NotPresent:
            return "ASE_NotPresent";
        case ASE_HWMalfunction:
            return "ASE_HWMalfunction";
        case ASE_InvalidParameter:
            return "ASE_InvalidParameter";
        case ASE_InvalidMode:
            return "ASE_InvalidMode";
        case ASE_SPNotAdvancing:
            return "ASE_SPNotAdvancing";
        case ASE_NoClock:
            return "ASE_NoClock";
        case ASE_NoMemory:
            return "ASE_NoMemory";
        default:
            return std::to_string(code);
    }
}

bool AsioHost::prepareInput(PlayReport& report) {
    if (options.wavPath.empty()) return true;
    std::string error;
    if (!readWav(options.wavPath, wav, error) || !wav.readable(error)) {
        report.failure = options.wavPath + ": " + error;
        report.exitCode = exitInput;
        return false;
    }
    double fileSeconds = double(wav.frames()) / wav.rate;
    if (options.seconds > fileSeconds) {
        report.failure = options.wavPath + " holds only " + std::to_string(fileSeconds) + " s";
        report.exitCode = exitInput;
        return false;
    }
    if (options.rate != 0 && options.rate != wav.rate) {
        report.failure = options.wavPath + " is at " + std::to_string(wav.rate) + " Hz, --rate says " +
                         rateText(options.rate) + ": velmora-play doesn't resample";
        report.exitCode = exitInput;
        return false;
    }
    if (options.channels != 0 && options.channels != wav.channels) {
        report.failure = options.wavPath + " has " + std::to_string(wav.channels) +
                         " channels, --channels says " + std::to_string(options.channels);
        report.exitCode = exitInput;
        return false;
    }
    return true;
}

bool AsioHost::failed(IASIO* driver, PlayReport& report, const std::string& call, ASIOError result,
                      const std::string& why) {
    if (result == ASE_OK || result == ASE_SUCCESS) return false;
    char text[128] = {};
    driver->getErrorMessage(text);
    report.errorMessage = text;
    report.failure = call + " returned " + asioErrorName(result) + (why.empty() ? "" : ": " + why);
    report.exitCode = exitRefused;
    return true;
}

bool AsioHost::negotiate(IASIO* driver, PlayReport& report) {
    ASIOBool initialised = record(report, "init", [&] { return driver->init(nullptr); });
    if (initialised != ASIOTrue) {
        char text[128] = {};
        driver->getErrorMessage(text);
        report.errorMessage = text;
        report.failure = std::string("init failed: ") + (text[0] != 0 ? text : "(no error message)");
        report.exitCode = exitRefused;
        return false;
    }
    char name[32] = {};
    driver->getDriverName(name);
    report.driverName.assign(name, strnlen(name, sizeof name));
    report.driverVersion = driver->getDriverVersion();

    if (refused(driver, report, "getChannels",
                [&] { return driver->getChannels(&report.inputs, &report.outputs); }))
        return false;
    int wanted = options.channels != 0 ? options.channels : wav.channels != 0 ? wav.channels : report.outputs;
    if (wanted == 0 || wanted > report.outputs) {
        report.failure = "the driver has " + std::to_string(report.outputs) + " outputs; " +
                         std::to_string(wanted) + " wanted";
        report.exitCode = report.outputs == 0 ? exitRefused : exitInput;
        return false;
    }
    report.channels.resize(std::size_t(wanted));

    if (options.dsd) {
        ASIOIoFormat format{};
        format.FormatType = kASIODSDFormat;
        if (refused(
                driver, report, "future(kAsioCanDoIoFormat, DSD)",
                [&] { return driver->future(kAsioCanDoIoFormat, &format); }, "the sink takes no DSD") ||
            refused(driver, report, "future(kAsioSetIoFormat, DSD)",
                    [&] { return driver->future(kAsioSetIoFormat, &format); })) {
            return false;
        }
        report.dsd = true;
    }

    if (refused(driver, report, "getBufferSize", [&] {
            return driver->getBufferSize(&report.minSize, &report.maxSize, &report.preferredSize,
                                         &report.granularity);
        })) {
        return false;
    }
    report.bufferSize = options.bufferSize != 0 ? options.bufferSize : report.preferredSize;
    if (!sizeOffered(report.bufferSize, report)) {
        report.failure = "buffer size " + std::to_string(report.bufferSize) + " isn't offered: min " +
                         std::to_string(report.minSize) + ", max " + std::to_string(report.maxSize) +
                         ", preferred " + std::to_string(report.preferredSize) + ", granularity " +
                         std::to_string(report.granularity);
        report.exitCode = exitInput;
        return false;
    }

    report.rate = options.rate != 0 ? options.rate : wav.rate != 0 ? wav.rate : options.dsd ? 2822400 : 48000;
    std::string rate = rateText(report.rate);
    if (refused(
            driver, report, "canSampleRate(" + rate + ")", [&] { return driver->canSampleRate(report.rate); },
            "the driver can't run at " + rate + " Hz") ||
        refused(driver, report, "setSampleRate(" + rate + ")",
                [&] { return driver->setSampleRate(report.rate); })) {
        return false;
    }
    ASIOSampleRate current = 0;
    if (refused(driver, report, "getSampleRate", [&] { return driver->getSampleRate(&current); }))
        return false;
    if (current != report.rate) {
        report.failure = "getSampleRate answers " + rateText(current) + " after setSampleRate(" + rate + ")";
        report.exitCode = exitRefused;
        return false;
    }

    ASIOClockSource clocks[8] = {};
    AsioLong clockCount = 8;
    if (refused(driver, report, "getClockSources",
                [&] { return driver->getClockSources(clocks, &clockCount); }))
        return false;
    for (AsioLong i = 0; i < std::min<AsioLong>(clockCount, 8); ++i)
        report.clocks.emplace_back(clocks[i].name, strnlen(clocks[i].name, sizeof clocks[i].name));
    return true;
}

bool AsioHost::makeBuffers(IASIO* driver, PlayReport& report) {
    buffers.assign(report.channels.size(), ASIOBufferInfo{});
    for (std::size_t c = 0; c < buffers.size(); ++c) {
        buffers[c].isInput = ASIOFalse;
        buffers[c].channelNum = AsioLong(c);
    }
    callbacks = {&bufferSwitch, &sampleRateDidChange, &asioMessage, &bufferSwitchTimeInfo};
    current.store(this);
    buffersCreated = true;
    if (refused(driver, report, "createBuffers", [&] {
            return driver->createBuffers(buffers.data(), AsioLong(buffers.size()), report.bufferSize,
                                         &callbacks);
        })) {
        return false;
    }
    for (std::size_t c = 0; c < report.channels.size(); ++c) {
        ASIOChannelInfo info{};
        info.channel = AsioLong(c);
        info.isInput = ASIOFalse;
        if (refused(driver, report, "getChannelInfo(" + std::to_string(c) + ")",
                    [&] { return driver->getChannelInfo(&info); }))
            return false;
        report.channels[c] = {int(c), std::string(info.name, strnlen(info.name, sizeof info.name)), info.type,
                              info.isActive == ASIOTrue};
        if (info.type != report.channels[0].type) {
            report.failure = "the channels differ in sample type; velmora-play writes one type";
            report.exitCode = exitRefused;
            return false;
        }
    }
    if (refused(driver, report, "getLatencies",
                [&] { return driver->getLatencies(&report.inputLatency, &report.outputLatency); }))
        return false;

    ASIOSampleType type = report.channels[0].type;
    std::string error;
    double seconds = options.seconds != 0 ? options.seconds
                     : wav.rate != 0      ? double(wav.frames()) / wav.rate
                                          : 3;
    std::uint64_t frames = std::uint64_t(std::llround(seconds * report.rate));
    bool made = false;
    if (!options.wavPath.empty()) {
        made = source.fromWav(wav, type, frames, error);
        report.source = "WAV " + options.wavPath;
    } else {
        // DSD bytes hold eight samples each.
        if (HostSource::isDsd(type)) frames -= frames % 8;
        made = source.makeSignal(options.signal, type, unsigned(report.channels.size()), report.rate, frames,
                                 error);
        report.source = options.signal.kind == SignalSpec::noise
                            ? std::string("noise")
                            : "sine " + rateText(options.signal.frequency) + " Hz";
    }
    if (!made) {
        report.failure = error;
        report.exitCode = exitInput;
        return false;
    }
    unsigned bits = HostSource::sampleBits(type);
    report.sourceFrames = source.framesIn(source.bytesPerChannel());
    bufferBytes =
        bits == 1 ? std::uint32_t(report.bufferSize / 8) : std::uint32_t(report.bufferSize) * (bits / 8);
    return true;
}

bool AsioHost::stream(IASIO* driver, PlayReport& report) {
    double tailFrames = std::max(16.0 * report.bufferSize, 0.25 * report.rate);
    std::uint64_t tailBytes = std::uint64_t(tailFrames / report.bufferSize) * bufferBytes;
    std::uint64_t wantedBytes = source.bytesPerChannel() + tailBytes;
    ticks.assign(std::size_t(wantedBytes / bufferBytes) * 2 + 256, Tick{});
    startNs = nowNs();
    started = true;
    if (refused(
            driver, report, "start", [&] { return driver->start(); }, "the driver's log says why"))
        return false;

    double limitS = double(wantedBytes / bufferBytes) * report.bufferSize / report.rate * 2 + 15;
    std::uint64_t seen = 0;
    std::int64_t lastChange = startNs;
    while (bytesGiven.load() < wantedBytes) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        std::int64_t now = nowNs();
        std::uint64_t count = tickCount.load();
        if (count != seen) {
            seen = count;
            lastChange = now;
        }
        double quietS = double(now - lastChange) / 1e9;
        if (seen == 0 && quietS > firstCallbackLimitS) {
            report.failure = "no callback came within " + rateText(firstCallbackLimitS) + " s of start";
        } else if (seen != 0 && quietS > callbackGapLimitS) {
            report.failure = "the callbacks stopped after " + std::to_string(seen);
        } else if (double(now - startNs) / 1e9 > limitS) {
            report.failure =
                "the callbacks came too slowly: " + std::to_string(seen) + " in " + rateText(limitS) + " s";
        }
        if (!report.failure.empty()) {
            report.exitCode = exitStream;
            return false;
        }
    }
    return true;
}

void AsioHost::run(IASIO* hostDriver, PlayReport& report) {
    driver = hostDriver;
    if (negotiate(driver, report) && makeBuffers(driver, report)) stream(driver, report);
    // A host ends every start, good or not, with stop, and gives the
    // buffers back before it lets go of the driver.
    if (started) record(report, "stop", [&] { return driver->stop(); });
    if (buffersCreated) record(report, "disposeBuffers", [&] { return driver->disposeBuffers(); });
    current.store(nullptr);
    record(report, "release", [&] {
        report.referencesLeft = driver->Release();
        return ASIOError(ASE_OK);
    });
    driver = nullptr;
    summarise(report);
}

void AsioHost::summarise(PlayReport& report) const {
    if (!options.jsonPath.empty() && source.channelCount() != 0) {
        source.digest(bytesGiven.load(), report.digest);
        report.hasDigest = true;
        report.digestLeadFrames = source.framesIn(report.digest.lead() / source.channelCount());
    }
    PlayReport::Callbacks& out = report.callbacks;
    out.count = tickCount.load();
    out.timeInfo = options.timeInfo;
    out.rateChangedFlags = rateChangedFlags.load();
    report.resetRequests = resetRequests.load();
    report.resyncRequests = resyncRequests.load();
    report.bufferSizeChanges = bufferSizeChanges.load();
    report.latencyChanges = latencyChanges.load();
    report.rateChanges = rateChanges.load();
    if (bufferBytes != 0)
        report.framesGiven = bytesGiven.load() / bufferBytes * std::uint64_t(report.bufferSize);
    if (report.rate != 0) out.expectedMs = 1000.0 * report.bufferSize / report.rate;
    std::size_t kept = std::size_t(std::min<std::uint64_t>(out.count, ticks.size()));
    if (kept == 0) return;
    out.firstAfterStartMs = double(ticks[0].ns - startNs) / 1e6;
    out.firstPosition = ticks[0].position;
    out.lastPosition = ticks[kept - 1].position;
    for (std::size_t i = 0; i < kept; ++i) {
        if (i == 0 || i + 1 == kept || ticks[i].ns - report.timeline.back().ns >= timelineStepNs)
            report.timeline.push_back({ticks[i].position, ticks[i].ns});
    }
    std::vector<double> intervals;
    for (std::size_t i = 1; i < kept; ++i) {
        intervals.push_back(double(ticks[i].ns - ticks[i - 1].ns) / 1e6);
        if (ticks[i].position - ticks[i - 1].position == std::uint64_t(report.bufferSize)) {
            ++out.positionSteps;
        } else {
            ++out.positionJumps;
        }
        if (ticks[i].index == ticks[i - 1].index) ++out.indexRepeats;
    }
    if (intervals.empty()) return;
    double sum = 0;
    for (double interval : intervals) sum += interval;
    out.meanMs = sum / double(intervals.size());
    std::sort(intervals.begin(), intervals.end());
    auto quantile = [&](double q) { return intervals[std::size_t(q * double(intervals.size() - 1))]; };
    out.minMs = intervals.front();
    out.p50Ms = quantile(0.5);
    out.p99Ms = quantile(0.99);
    out.maxMs = intervals.back();
}

bool AsioHost::writeGiven(const std::string& path, const PlayReport& report, std::string& error) const {
    if (source.channelCount() == 0) {
        error = "nothing was given to the driver";
        return false;
    }
    return source.writeGiven(path, bytesGiven.load(), report.rate, error);
}

void AsioHost::onBuffer(AsioLong index, std::uint64_t position, bool rateChanged) {
    std::uint64_t n = tickCount.load(std::memory_order_relaxed);
    if (n < ticks.size()) ticks[std::size_t(n)] = {nowNs(), position, index};
    if (rateChanged) rateChangedFlags.fetch_add(1, std::memory_order_relaxed);
    std::uint64_t offset = bytesGiven.load(std::memory_order_relaxed);
    if (index == 0 || index == 1) {
        for (std::size_t c = 0; c < buffers.size(); ++c)
            source.fill(unsigned(c), offset, static_cast<std::uint8_t*>(buffers[c].buffers[index]),
                        bufferBytes);
    }
    bytesGiven.store(offset + bufferBytes, std::memory_order_release);
    tickCount.store(n + 1, std::memory_order_release);
}

void ASIO_CALLBACK AsioHost::bufferSwitch(AsioLong index, ASIOBool) {
    AsioHost* host = current.load(std::memory_order_acquire);
    if (host == nullptr) return;
    ASIOSamples position{};
    ASIOTimeStamp stamp{};
    host->driver->getSamplePosition(&position, &stamp);
    host->onBuffer(index, joined(position.hi, position.lo), false);
}

ASIOTime* ASIO_CALLBACK AsioHost::bufferSwitchTimeInfo(ASIOTime* time, AsioLong index, ASIOBool) {
    AsioHost* host = current.load(std::memory_order_acquire);
    if (host == nullptr || time == nullptr) return nullptr;
    const ASIOTimeInfo& info = time->timeInfo;
    host->onBuffer(index, joined(info.samplePosition.hi, info.samplePosition.lo),
                   (info.flags & kSampleRateChanged) != 0);
    return nullptr;
}

void ASIO_CALLBACK AsioHost::sampleRateDidChange(ASIOSampleRate) {
    if (AsioHost* host = current.load()) host->rateChanges.fetch_add(1);
}

AsioLong ASIO_CALLBACK AsioHost::asioMessage(AsioLong selector, AsioLong value, void*, double*) {
    AsioHost* host = current.load();
    switch (selector) {
        case kAsioSelectorSupported:
            return value == kAsioEngineVersion || value == kAsioSupportsTimeInfo ||
                           value == kAsioResetRequest || value == kAsioResyncRequest ||
                           value == kAsioBufferSizeChange || value == kAsioLatenciesChanged
                       ? 1
                       : 0;
        case kAsioEngineVersion:
            return 2;
        case kAsioSupportsTimeInfo:
            return host != nullptr && host->options.timeInfo ? 1 : 0;
        case kAsioResetRequest:
            if (host != nullptr) host->resetRequests.fetch_add(1);
            return 1;
        case kAsioResyncRequest:
            if (host != nullptr) host->resyncRequests.fetch_add(1);
            return 1;
        case kAsioBufferSizeChange:
            if (host != nullptr) host->bufferSizeChanges.fetch_add(1);
            return 1;
        case kAsioLatenciesChanged:
            if (host != nullptr) host->latencyChanges.fetch_add(1);
            return 1;
        default:
            return 0;
    }
}
