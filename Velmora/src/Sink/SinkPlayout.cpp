#include "Sink/SinkPlayout.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>

#include "System/Log.h"

using NORVA::LogLine;

namespace VELMORA {

namespace {

constexpr double q14 = 16384;
// A request not answered within this is made again.
constexpr std::chrono::milliseconds resendRetry{20};
constexpr std::chrono::milliseconds samplePeriod{100};

double microseconds(SinkPlayout::Clock::duration span) {
    return std::chrono::duration<double, std::micro>(span).count();
}

}  // namespace

bool SinkPlayout::start(FormatID streamFormat, std::uint32_t latencyUs) {
    std::lock_guard<std::mutex> lock(mutex);
    wav.close();
    format = streamFormat;
    frameBytes = std::max<std::uint32_t>(1, format.frameBytes());
    rate = format.rate() * (1 + config.ppm / 1e6);
    capacity = std::max(1.0, format.rate() * latencyUs / 1e6);
    centre = capacity / 2;
    counts = SinkStats{};
    counts.deviation.reserve(4096);
    streaming = true;
    started = false;
    awaitingResend = false;
    feedbackOwed = 0;
    receivedFrames = silentFrames = level = 0;
    inUnderrun = hasTransit = false;
    dropState = config.dropSeed != 0 ? config.dropSeed : 1;
    if (config.wavPath.empty()) return true;
    bool opened = wav.open(config.wavPath, format.rate(), std::uint16_t(format.channelCount()),
                           std::uint16_t(format.bitsPerSample()));
    if (!opened) LogLine(3) << "StreamSink can't write " << config.wavPath;
    return opened;
}

void SinkPlayout::end() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!streaming) return;
    streaming = false;
    if (!wav.close()) LogLine(3) << "StreamSink WAV file incomplete";
}

bool SinkPlayout::isStreaming() const {
    std::lock_guard<std::mutex> lock(mutex);
    return streaming;
}

// The compact framings carry 7 bits: the nearest number to the one expected.
std::uint16_t SinkPlayout::fullSequence(const Packet& packet) const {
    if (!packet.compact) return packet.sequence;
    int ahead = (packet.sequence - expected) & 0x7F;
    if (ahead >= 64) ahead -= 128;
    return std::uint16_t(expected + ahead);
}

bool SinkPlayout::dropOnPurpose() {
    if (config.dropShare <= 0) return false;
    // xorshift32: the same losses on every run of a seed.
    dropState ^= dropState << 13;
    dropState ^= dropState >> 17;
    dropState ^= dropState << 5;
    return dropState < config.dropShare * 4294967296.0;
}

int SinkPlayout::receive(const Packet& packet, Clock::time_point now, Answer (&answers)[2]) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!streaming) return 0;
    if (dropOnPurpose()) {
        ++counts.dropped;
        return 0;
    }
    if (!started) {
        started = true;
        expected = fullSequence(packet);
        firstArrival = nextSample = now;
    }
    int given = 0;
    std::uint16_t sequence = fullSequence(packet);
    auto ahead = std::int16_t(sequence - expected);
    if (ahead < 0) {
        ++counts.duplicates;
    } else if (ahead > 0) {
        ++counts.outOfOrder;
        if (!awaitingResend) ++counts.gaps;
        if (!awaitingResend || now - lastResend >= resendRetry) {
            awaitingResend = true;
            lastResend = now;
            ++counts.resends;
            answers[given++] = {false, true, 0, expected, std::uint16_t(ahead)};
        }
    } else {
        awaitingResend = false;
        ++expected;
        ++counts.packets;
        counts.bytes += packet.size;
        if (wav.isOpen() && !wav.write(packet.body, packet.size)) LogLine(3) << "StreamSink WAV write failed";
        // Jitter: how the arrival moves against the audio's own time.
        double transit = microseconds(now - firstArrival) - receivedFrames / format.rate() * 1e6;
        if (hasTransit) counts.jitterUs += (std::fabs(transit - lastTransitUs) - counts.jitterUs) / 16;
        lastTransitUs = transit;
        hasTransit = true;
        receivedFrames += double(packet.size / frameBytes);
    }
    if (packet.wantsFeedback) ++feedbackOwed;
    if (packet.queuedBehind) return given;
    playUntil(now);
    if (feedbackOwed != 0) {
        feedbackOwed = 0;
        ++counts.feedbacks;
        answers[given++] = feedbackAnswer();
    }
    return given;
}

void SinkPlayout::advance(Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mutex);
    if (streaming && started) playUntil(now);
}

// The clock starts once the buffer holds its centre; from then on it plays
// whether audio is there or not, and what was missing is silence.
void SinkPlayout::playUntil(Clock::time_point now) {
    if (!counts.playing) {
        if (receivedFrames < centre) {
            level = receivedFrames;
            return;
        }
        counts.playing = true;
        playStart = now;
        nextSample = now;
    }
    double played = microseconds(now - playStart) * rate / 1e6;
    level = receivedFrames + silentFrames - played;
    if (level < 0) {
        silentFrames -= level;
        level = 0;
        if (!inUnderrun) ++counts.underruns;
        inUnderrun = true;
    } else if (level > 0) {
        inUnderrun = false;
    }
    if (level > capacity) ++counts.overruns;
    while (now >= nextSample) {
        std::int32_t d = deviationNow();
        auto ms = std::uint32_t(
            std::chrono::duration_cast<std::chrono::milliseconds>(nextSample - firstArrival).count());
        counts.deviation.push_back({ms, d});
        counts.deviationLeast = std::min(counts.deviationLeast, d);
        counts.deviationGreatest = std::max(counts.deviationGreatest, d);
        nextSample += samplePeriod;
    }
}

std::int32_t SinkPlayout::deviationNow() const {
    double d = std::round((level - centre) / centre * q14);
    return std::int32_t(std::clamp(d, -q14, q14));
}

std::int32_t SinkPlayout::deviation() const {
    std::lock_guard<std::mutex> lock(mutex);
    return deviationNow();
}

SinkPlayout::Answer SinkPlayout::feedbackAnswer() const {
    std::int32_t d = deviationNow();
    Answer answer;
    answer.feedback = true;
    switch (config.feedbackEncoding) {
        case 2:
            // Signed 15 bits under bit 15.
            answer.param0 = std::uint16_t(0x8000 | (std::min(d, 16383) & 0x7FFF));
            break;
        case 3: {
            // Level against the level wanted, in units of 10 us.
            double unit = format.rate() / 1e5;
            answer.param1 = std::uint16_t(std::min(65535.0, std::round(level / unit)));
            answer.param2 = std::uint16_t(std::clamp(std::round(centre / unit), 1.0, 65535.0));
            break;
        }
        default:
            // 0x2000 is the centre; 0 would read as another encoding.
            answer.param0 = std::uint16_t(std::max(1, 0x2000 + d / 2));
            break;
    }
    return answer;
}

SinkStats SinkPlayout::stats() const {
    std::lock_guard<std::mutex> lock(mutex);
    return counts;
}

std::string SinkStats::text() const {
    std::ostringstream out;
    out << "packets " << packets << ", bytes " << bytes << ", gaps " << gaps << ", resends " << resends
        << ", duplicates " << duplicates << ", out of order " << outOfOrder << ", dropped " << dropped
        << ", underruns " << underruns << ", overruns " << overruns << ", feedbacks " << feedbacks
        << ", jitter " << std::lround(jitterUs) << " us, deviation " << deviationLeast << " to "
        << deviationGreatest << " (Q14)";
    return out.str();
}

std::string SinkStats::json() const {
    std::ostringstream out;
    out << "{\"packets\":" << packets << ",\"bytes\":" << bytes << ",\"gaps\":" << gaps
        << ",\"resends\":" << resends << ",\"duplicates\":" << duplicates << ",\"outOfOrder\":" << outOfOrder
        << ",\"dropped\":" << dropped << ",\"underruns\":" << underruns << ",\"overruns\":" << overruns
        << ",\"feedbacks\":" << feedbacks << ",\"jitterUs\":" << jitterUs
        << ",\"deviationLeast\":" << deviationLeast << ",\"deviationGreatest\":" << deviationGreatest
        << ",\"deviation\":[";
    for (std::size_t i = 0; i < deviation.size(); ++i) {
        out << (i == 0 ? "" : ",") << "[" << deviation[i].ms << "," << deviation[i].q14 << "]";
    }
    out << "]}";
    return out.str();
}

}  // namespace VELMORA
