// Each copy kernel's speed against memcpy on the same buffers, in the same
// run: a packet's payload (1440 bytes) and a 256 KiB block, each copied over
// and over from a source that stays in the cache, as the worker's are.
//
//     copy_kernels [--json FILE]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "Format/CopyKernel.h"

namespace {

using VELMORA::CopyKernel;
using Clock = std::chrono::steady_clock;

struct Kernel {
    const char* name;
    const char* kind;  // "copy" (with or without inversion) or "reversal" of bits or bytes
    CopyKernel run;
};

void memcpyKernel(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    std::memcpy(destination, source, byteCount);
}

const Kernel kernels[] = {
    {"plain", "copy", VELMORA::copyPlain},
    {"invert", "copy", VELMORA::copyInvert},
    {"swap", "reversal", VELMORA::copySwap},
    {"swap+invert", "reversal", VELMORA::copySwapInvert},
    {"reverse", "reversal", VELMORA::copyReverse},
    {"reverse+invert", "reversal", VELMORA::copyReverseInvert},
    {"reverse+swap", "reversal", VELMORA::copyReverseSwap},
    {"reverse+swap+invert", "reversal", VELMORA::copyReverseSwapInvert},
};

// GB/s of one timed round of about 4 MiB.
double roundSpeed(CopyKernel kernel, std::vector<std::uint8_t>& to, const std::vector<std::uint8_t>& from) {
    const std::size_t repeats = std::max<std::size_t>(1, (std::size_t(4) << 20) / from.size());
    auto start = Clock::now();
    for (std::size_t i = 0; i < repeats; ++i) {
        kernel(to.data(), from.data(), from.size());
        // Keeps the compiler from dropping copies whose result isn't read.
        asm volatile("" : : "r"(to.data()) : "memory");
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return double(repeats * from.size()) / seconds / 1e9;
}

// The kernel's and memcpy's best of many short rounds, taken in turn: on a
// shared machine the best round is the one others disturbed least, and
// taking turns gives both the same machine.
std::pair<double, double> bestSpeeds(CopyKernel kernel, std::vector<std::uint8_t>& to,
                                     const std::vector<std::uint8_t>& from) {
    double best = 0, reference = 0;
    for (int round = 0; round < 41; ++round) {
        reference = std::max(reference, roundSpeed(memcpyKernel, to, from));
        best = std::max(best, roundSpeed(kernel, to, from));
    }
    return {best, reference};
}

}  // namespace

int main(int argc, char** argv) {
    const char* jsonPath = argc == 3 && std::strcmp(argv[1], "--json") == 0 ? argv[2] : nullptr;
    if (argc != 1 && jsonPath == nullptr) {
        std::fprintf(stderr, "usage: copy_kernels [--json FILE]\n");
        return 2;
    }
    std::FILE* json = jsonPath != nullptr ? std::fopen(jsonPath, "w") : nullptr;
    if (jsonPath != nullptr && json == nullptr) {
        std::fprintf(stderr, "can't write %s\n", jsonPath);
        return 1;
    }
    if (json != nullptr) std::fprintf(json, "{\"kernels\": [\n");
    std::printf("%-20s %-9s %9s %9s %7s\n", "kernel", "bytes", "GB/s", "memcpy", "ratio");
    bool first = true;
    for (std::size_t size : {std::size_t(1440), std::size_t(256) << 10}) {
        std::vector<std::uint8_t> from(size), to(size);
        for (std::size_t i = 0; i < size; ++i) from[i] = std::uint8_t(i * 131 + 7);
        for (const Kernel& k : kernels) {
            auto [speed, reference] = bestSpeeds(k.run, to, from);
            std::printf("%-20s %-9zu %9.2f %9.2f %7.2f\n", k.name, size, speed, reference, speed / reference);
            if (json != nullptr) {
                std::fprintf(json,
                             "%s{\"kernel\": \"%s\", \"kind\": \"%s\", \"bytes\": %zu, \"gbps\": %.3f, "
                             "\"memcpyGbps\": %.3f}",
                             first ? "" : ",\n", k.name, k.kind, size, speed, reference);
            }
            first = false;
        }
    }
    if (json != nullptr) {
        std::fprintf(json, "\n]}\n");
        std::fclose(json);
    }
    return 0;
}
