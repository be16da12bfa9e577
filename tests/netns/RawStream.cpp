// A whole stream across a real link, in whatever transfer mode the set-up
// settles on: the host side measures the path MTU, takes the target's first
// sink, prints the packet size the set-up settled on, then (for SECONDS > 0)
// connects, plays a counted pattern and ends; the compare side checks that
// the sink's WAV file holds the pattern bit for bit between silences.
//
//     netns_raw_stream play ADDRESS%SCOPE THREAD_FLAGS SECONDS
//     netns_raw_stream compare WAV SECONDS
//
// The pattern is 16-bit stereo at 48 kHz in 875 us cycles of 4 packets of
// 10 or 11 frames, so raw frames come both short (40 bytes of audio, below
// the Ethernet minimum) and full-sized (44 bytes).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Discovery/Find.h"
#include "PatternSources.h"
#include "Stream/Sync.h"
#include "System/Log.h"
#include "System/Threads.h"
#include "WavFile.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

const FormatID stereoS16At48k(0x202u, 0x000Cu);
constexpr std::uint32_t frameBytes = 4;
constexpr std::uint32_t bytesPerSecond = 48000 * frameBytes;

const char* modeName(std::uint32_t mode) {
    return mode == msModeRawFrames ? "RFS" : mode == msMode2 ? "mode2" : mode == msMode1 ? "mode1" : "none";
}

int play(const char* address, std::uint32_t flags, std::uint32_t seconds) {
    NORVA::IPAddress target;
    if (!target.parse(address)) return 2;
    FindSettings settings;
    settings.filterId = anyProductId;
    Find find(settings);
    std::uint32_t mtu = 0;
    NORVA::IPAddress sink;
    TargetRecord record;
    if (!find.open() || !find.measureMtu(target, mtu) || !find.readTarget(target, 0, sink, record) ||
        sink.isAnyNoPort()) {
        std::printf("no target or sink at %s\n", address);
        return 1;
    }
    PatternSync sync;
    if (!sync.open(flags, TimeValue::fromMs(50), std::uint16_t(sink.scope()), "netns host", 0, -1, -1, 0) ||
        !sync.getInfo(sink, TimeValue(), false, mtu)) {
        std::puts("the sink's set-up failed");
        return 1;
    }
    std::printf("mtu=%u smtu=%u maxPacketSize=%u\n", mtu, sync.smtu, sync.maxPacketSize);
    if (seconds == 0) return 0;
    if (!sync.format.setFormat(stereoS16At48k)) return 1;
    TransferProfile& profile = sync.profiles[0];
    profile.cycle = TimeValue::fromUs(875);
    profile.packetCount = 4;
    profile.sizeQ14 = 21u << 13;  // 10.5 frames
    profile.dataSize = 11 * frameBytes;
    profile.mode = transferFix;
    sync.profileCount = 1;
    sync.sourceBytes = std::uint64_t(seconds) * bytesPerSecond;

    std::printf("mode=%s\n", modeName(sync.msMode));
    std::fflush(stdout);
    if (!sync.connectPrepare() || !sync.connect() || !sync.connectWait() ||
        sync.connectState != Sync::connected) {
        std::puts("the stream didn't connect");
        return 1;
    }
    sync.play();
    sync.requestDisconnect();  // plays the source out first
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(seconds + 20);
    while (sync.connectState != Sync::idle && std::chrono::steady_clock::now() < limit)
        NORVA::sleepMilliseconds(20);
    bool ended = sync.connectState == Sync::idle;
    sync.joinWorker();
    std::printf("source %llu of %llu bytes given, %s\n", static_cast<unsigned long long>(sync.given.load()),
                static_cast<unsigned long long>(sync.sourceBytes), ended ? "ended" : "still running");
    return ended && sync.given == sync.sourceBytes ? 0 : 1;
}

int compare(const char* path, std::uint32_t seconds) {
    WavData wav;
    std::string error;
    if (!readWav(path, wav, error)) {
        std::printf("%s: %s\n", path, error.c_str());
        return 1;
    }
    const std::vector<std::uint8_t>& data = wav.data;
    const std::size_t source = std::size_t(seconds) * bytesPerSecond;
    std::size_t lead =
        std::size_t(std::find_if(data.begin(), data.end(), [](auto b) { return b != 0; }) - data.begin());
    bool whole = lead % frameBytes == 0 && data.size() >= lead + source;
    std::size_t wrong = 0;
    for (std::size_t n = 0; whole && n < source; ++n) wrong += data[lead + n] != patternByte(n);
    bool silentEnd = whole && std::all_of(data.begin() + std::ptrdiff_t(lead + source), data.end(),
                                          [](std::uint8_t b) { return b == 0; });
    std::printf("%zu bytes of silence, then %zu bytes: %zu of the source's %zu wrong, %s after it\n", lead,
                data.size() - lead, wrong, source, silentEnd ? "silence" : "no silence");
    return whole && wrong == 0 && silentEnd ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "play") == 0) {
        // The host's log, to explain a failure; it uninstalls itself when it goes.
        NORVA::Syslog log;
        log.configure(
            16, [](const char* line) { std::fprintf(stderr, "%s\n", line); }, 0);
        NORVA::Syslog::install(&log);
        NORVA::logThreshold = 3;
        return play(argv[2], std::uint32_t(std::strtoul(argv[3], nullptr, 0)),
                    std::uint32_t(std::strtoul(argv[4], nullptr, 0)));
    }
    if (argc == 4 && std::strcmp(argv[1], "compare") == 0)
        return compare(argv[2], std::uint32_t(std::strtoul(argv[3], nullptr, 0)));
    std::fputs("usage: netns_raw_stream play ADDRESS%SCOPE THREAD_FLAGS SECONDS | compare WAV SECONDS\n",
               stderr);
    return 2;
}
