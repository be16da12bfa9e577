// The host's side of a stream to velmora-target, set up as the driver's
// start does it (fixed 1 ms cycles), and the statistics its sink writes.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "PatternSources.h"
#include "System/Threads.h"
#include "TargetProcess.h"
#include "WorkerPriority.h"

namespace StreamHost {

// The ring of the host's buffer worker: 8 slots of 4 ms. The sink's latency
// is 40 ms, in units of 100 us.
constexpr std::uint32_t ringSlots = 8;
constexpr std::uint32_t slotFrames = 192;
constexpr std::uint16_t latencyUnits = 400;

// Sets the stream to the target's first sink up and plays. Skips where the
// system refuses the worker its priority: callers return on a skip or a
// fatal failure.
inline void start(PatternBuffer& host, const TargetProcess& target, VELMORA::FormatID format) {
    using NORVA::TimeValue;
    ASSERT_TRUE(target.ready()) << "velmora-target did not start its sink:\n" << target.printed;
    if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
    ASSERT_TRUE(host.open(0, TimeValue::fromMs(50), 0, "acceptance", 0x4B45, -1, -1, 0));
    ASSERT_TRUE(host.getInfo(NORVA::IPAddress::loopback(target.sinkPort), TimeValue(), false, 1500));
    ASSERT_EQ(host.latency, latencyUnits);
    ASSERT_TRUE(host.format.setFormat(format));
    host.transfer.setInputs({host.format.streamFormat, host.maxPacketSize, host.maxPacketCount},
                            TimeValue::fromMs(1));
    ASSERT_TRUE(host.transfer.planFix(0, TimeValue::fromMs(1)));
    host.profiles[0] = host.transfer.profile();
    host.profileCount = 1;
    ASSERT_EQ(host.profiles[0].cycle, TimeValue::fromMs(1));
    ASSERT_TRUE(host.setupRing(slotFrames, ringSlots, 0, VELMORA::FormatID()));
    ASSERT_TRUE(host.connectPrepare() && host.connect() && host.connectWait());
    ASSERT_EQ(host.connectState, VELMORA::Sync::connected);
    host.play();
}

// Lets the ring play out, ends the stream, then the target.
inline void finish(PatternBuffer& host, TargetProcess& target) {
    host.stop();
    NORVA::sleepMilliseconds(100);  // silence after the audio shows a loss among its last packets
    ASSERT_EQ(host.connectState, VELMORA::Sync::connected) << "the stream ended before it was asked to";
    host.disconnect();
    EXPECT_EQ(host.connectState, VELMORA::Sync::idle);
    EXPECT_EQ(target.stop(), 0) << target.printed;
}

// What the sink wrote at the stream's end.
struct SinkReport {
    double underruns = -1, resends = -1, dropped = -1, xruns = -1;
    std::vector<std::pair<std::uint32_t, std::int32_t>> deviation;  // ms, Q14

    explicit SinkReport(const std::string& path) {
        const std::string json = readFile(path);
        for (auto [key, value] : {std::pair{"underruns", &underruns},
                                  {"resends", &resends},
                                  {"dropped", &dropped},
                                  {"xruns", &xruns}})
            *value = number(json, key);
        std::size_t at = json.find("\"deviation\":[");
        if (at == std::string::npos) return;
        const char* p = json.c_str() + at + 13;
        unsigned ms = 0;
        int q14 = 0, used = 0;
        while (std::sscanf(p, "[%u,%d]%n", &ms, &q14, &used) == 2) {
            deviation.emplace_back(ms, q14);
            p += used;
            if (*p == ',') ++p;
        }
    }

  private:
    static double number(const std::string& json, const std::string& key) {
        std::size_t at = json.find("\"" + key + "\":");
        return at == std::string::npos ? -1 : std::strtod(json.c_str() + at + key.size() + 3, nullptr);
    }
};

}  // namespace StreamHost
