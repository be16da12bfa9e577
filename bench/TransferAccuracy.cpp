// How late transfer sends its frames after the deadline, per wait mode: each
// mode sends one frame per 1 ms cycle to a socket on [::1], with nothing to
// receive, and measures the lateness of the return from transfer. Beside the
// modes, the machine's floor: a plain sleep to each deadline. Every series
// runs at normal priority, and again at the stream worker's real-time
// priority where the system permits it (a mode that never sleeps then moves
// to the strongest normal priority, as the worker does).
//
//     transfer_accuracy [--cycles N] [--json FILE]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "Network/Socket.h"
#include "System/Threads.h"

namespace {

using NORVA::EthernetBuffer;
using NORVA::EthernetSocket;
using NORVA::IPAddress;
using NORVA::TimeValue;
using NORVA::UDPV6;

const TimeValue cycle = TimeValue::fromMs(1);

struct Series {
    std::string priority;  // "normal" or "realtime"
    std::string wait;      // "sleep" (the floor) or "mode N"
    std::vector<double> latenessUs;
    double cpuPct = 0;  // of one core, while the series ran
};

double percentile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

// Drains the peer's socket so that its receive buffer never fills.
void drain(UDPV6& socket) {
    char data[64];
    std::size_t received = 0;
    do {
        socket.receive(data, sizeof(data), received);
    } while (received != 0);
}

// Runs `cycles` deadlines 1 ms apart; `wait` returns when it is done with one.
template <typename Wait>
std::vector<double> measure(int cycles, Wait wait) {
    std::vector<double> lateness;
    lateness.reserve(std::size_t(cycles));
    TimeValue deadline = TimeValue::now() + cycle;
    for (int i = 0; i < cycles; ++i) {
        wait(deadline);
        TimeValue done = TimeValue::now();
        lateness.push_back(done > deadline ? double((done - deadline).raw()) / 1e6 : 0.0);
        deadline = deadline + cycle;
        // A cycle missed by far starts the schedule again.
        if (done > deadline) deadline = done + cycle;
    }
    return lateness;
}

class Bench {
  public:
    bool open() {
        senderAddress = IPAddress::loopback(0);
        peerAddress = IPAddress::loopback(0);
        if (!sender.openNonBlocking() || !sender.bind(senderAddress) || !peer.openNonBlocking() ||
            !peer.bind(peerAddress)) {
            return false;
        }
        frame = sender.newBuffer(nullptr, 0);
        frame->resize(64, 0);
        frame->setPeer(peerAddress);
        buffer = sender.newBuffer(nullptr, 0);
        return true;
    }

    std::vector<double> floor(int cycles) {
        return measure(cycles, [](TimeValue deadline) {
            TimeValue now = TimeValue::now();
            if (now < deadline) NORVA::sleepMicroseconds((deadline - now).toUs());
        });
    }

    std::vector<double> mode(int mode, int cycles) {
        sender.waitMode = mode;
        EthernetBuffer* const sendList[] = {frame.get()};
        EthernetBuffer* const receiveList[] = {buffer.get()};
        return measure(cycles, [&](TimeValue deadline) {
            buffer->length = 0;
            sender.transfer(sendList, deadline, receiveList, nullptr, nullptr);
            drain(peer);
        });
    }

  private:
    UDPV6 sender;
    UDPV6 peer;
    IPAddress senderAddress;
    IPAddress peerAddress;
    std::unique_ptr<EthernetBuffer> frame;
    std::unique_ptr<EthernetBuffer> buffer;
};

// The series and the share of a core the process took meanwhile (the
// benchmark's only thread that works).
template <typename Run>
Series timed(const std::string& priority, const std::string& wait, Run run) {
    std::clock_t cpuStart = std::clock();
    auto wallStart = std::chrono::steady_clock::now();
    Series series{priority, wait, run(), 0};
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
    series.cpuPct = 100.0 * double(std::clock() - cpuStart) / CLOCKS_PER_SEC / wall;
    return series;
}

void runAt(const std::string& priority, Bench& bench, int cycles, std::vector<Series>& out) {
    out.push_back(timed(priority, "sleep", [&] { return bench.floor(cycles); }));
    for (int mode = 0; mode <= 6; ++mode) {
        bool realtime = priority == "realtime";
        if (realtime) NORVA::setCurrentThreadLevel(NORVA::levelCritical);
        if (realtime && EthernetSocket::neverSleeps(mode)) NORVA::keepCurrentSpinnerRunnable();
        out.push_back(
            timed(priority, "mode " + std::to_string(mode), [&] { return bench.mode(mode, cycles); }));
    }
}

void writeJson(std::FILE* file, const std::vector<Series>& all, int cycles) {
    std::fprintf(file, "{\"cycleUs\": 1000, \"cycles\": %d, \"series\": [\n", cycles);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Series& s = all[i];
        std::fprintf(file, "{\"priority\": \"%s\", \"wait\": \"%s\", \"cpuPct\": %.1f, \"latenessUs\": [",
                     s.priority.c_str(), s.wait.c_str(), s.cpuPct);
        for (std::size_t j = 0; j < s.latenessUs.size(); ++j) {
            std::fprintf(file, "%s%.1f", j == 0 ? "" : ",", s.latenessUs[j]);
        }
        std::fprintf(file, "]}%s\n", i + 1 < all.size() ? "," : "");
    }
    std::fprintf(file, "]}\n");
}

}  // namespace

int main(int argc, char** argv) {
    int cycles = 2000;
    const char* jsonPath = nullptr;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--cycles") == 0) {
            cycles = std::max(1, std::atoi(argv[i + 1]));
        } else if (std::strcmp(argv[i], "--json") == 0) {
            jsonPath = argv[i + 1];
        } else {
            std::fprintf(stderr, "usage: transfer_accuracy [--cycles N] [--json FILE]\n");
            return 2;
        }
    }
    Bench bench;
    if (!bench.open()) {
        std::fprintf(stderr, "no sockets on [::1]\n");
        return 1;
    }

    std::vector<Series> all;
    runAt("normal", bench, cycles, all);
    if (NORVA::setCurrentThreadLevel(NORVA::levelCritical)) {
        runAt("realtime", bench, cycles, all);
    } else {
        std::printf("real-time priority not permitted here: normal priority only\n");
    }

    std::printf(
        "priority  wait     median_us   p99_us    max_us  cpu_%%  (lateness after the deadline, %d cycles of "
        "1 ms)\n",
        cycles);
    for (const Series& s : all) {
        std::printf("%-9s %-7s %10.1f %8.1f %9.1f %6.1f\n", s.priority.c_str(), s.wait.c_str(),
                    percentile(s.latenessUs, 0.5), percentile(s.latenessUs, 0.99),
                    *std::max_element(s.latenessUs.begin(), s.latenessUs.end()), s.cpuPct);
    }
    if (jsonPath != nullptr) {
        std::FILE* file = std::fopen(jsonPath, "w");
        if (file == nullptr) {
            std::fprintf(stderr, "can't write %s\n", jsonPath);
            return 1;
        }
        writeJson(file, all, cycles);
        std::fclose(file);
    }
    return 0;
}
