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
// Where the level is held within the latency agreed. Above the centre the
// level only rises by a cycle or two, when a late host catches up; below
// it, a lost packet costs the three or four cycles its resend takes to come
// round, and a stalled host as long as its stall. So most of the room lies
// below.
constexpr double centreShare = 0.75;
// The receive loop's wait for a batch: at most a fifth of the centre.
constexpr double batchShareOfCentre = 0.2;
// An hour of samples: kept without allocating while the stream runs.
constexpr std::size_t samplesKept = 36000;

double microseconds(SinkPlayout::Clock::duration span) {
    return std::chrono::duration<double, std::micro>(span).count();
}

}  // namespace

SinkPlayout::SinkPlayout(const SinkPlayConfig& settings, std::unique_ptr<PlayoutOutput> device)
    : config(settings), output(std::move(device)) {
    if (output == nullptr)
        output = std::make_unique<FileOutput>(
            FileOutputConfig{config.ppm, config.stepPpm, config.stepAfterSeconds, config.wavPath});
}

bool SinkPlayout::start(FormatID streamFormat, std::uint32_t latencyUs) {
    std::lock_guard<std::mutex> lock(mutex);
    if (outputOpen) output->close();
    format = streamFormat;
    frameBytes = std::max(1.0, double(format.bitsPerSample())) * format.channelCount() / 8;
    capacity = std::max(1.0, double(format.rate()) * latencyUs / 1e6);
    centre = capacity * centreShare;
    batchSpan = std::min<Clock::duration>(
        std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double, std::micro>(config.batchWaitUs)),
        std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(centre / std::max(1u, format.rate()) * batchShareOfCentre)));
    counts = SinkStats{};
    counts.deviation.reserve(samplesKept);
    counts.timeline.reserve(samplesKept);
    counts.rate = format.rate();
    counts.centre = centre;
    counts.capacity = capacity;
    counts.frameBytes = frameBytes;
    std::uint8_t silence = !format.isDsd() ? 0 : (format.low() & FormatID::dsdMsbFirst) != 0 ? 0x96 : 0x69;
    counts.digest.reset(format.frameBytes(), silence);  // a DSD frame: a word per channel
    streaming = true;
    started = false;
    awaitingResend = false;
    feedbackOwed = 0;
    receivedFrames = silentFrames = level = levelArea = areaSpan = sampleArea = sampleSpan = 0;
    packetFrames = onTheirWay = takenFrames = takenLateness = 0;
    lastReported = 0;
    inUnderrun = inOverrun = hasTransit = false;
    dropState = config.dropSeed != 0 ? config.dropSeed : 1;
    std::string error;
    outputOpen = output->open(format, capacity, error);
    if (!outputOpen) LogLine(3) << "StreamSink can't play the stream: " << error;
    rate = output->rate(Clock::now());
    counts.playRate = rate;
    return outputOpen;
}

void SinkPlayout::end() {
    std::lock_guard<std::mutex> lock(mutex);
    if (!streaming) return;
    streaming = false;
    counts.xruns = output->xruns();
    if (outputOpen && !output->close()) LogLine(3) << "StreamSink output incomplete";
    outputOpen = false;
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
    Clock::time_point arrival = now - std::max(Clock::duration::zero(), packet.waited);
    if (!started) {
        started = true;
        expected = lastSequence = fullSequence(packet);
        newest = std::uint16_t(expected - 1);
        firstArrival = nextSample = lastUpdate = lastReport = arrival;
    }
    int given = 0;
    std::uint16_t sequence = fullSequence(packet);
    auto ahead = std::int16_t(sequence - expected);
    // The host going back to resend, but not to the packet wanted: the
    // head of its resend was lost too, so ask again now, not at the retry.
    bool resentShort = awaitingResend && std::int16_t(sequence - lastSequence) < 0;
    lastSequence = sequence;
    if (std::int16_t(sequence - newest) > 0) newest = sequence;
    if (ahead < 0) {
        ++counts.duplicates;
    } else if (ahead > 0) {
        ++counts.outOfOrder;
        if (!awaitingResend) ++counts.gaps;
        if (!awaitingResend || resentShort || now - lastResend >= resendRetry) {
            awaitingResend = true;
            lastResend = now;
            ++counts.resends;
            answers[given++] = {false, true, 0, expected, std::uint16_t(ahead)};
        }
    } else {
        awaitingResend = false;
        ++expected;
        ++counts.packets;
        packetFrames = std::floor(packet.size / frameBytes);
        counts.bytes += packet.size;
        if (outputOpen && !output->write(packet.body, packet.size))
            LogLine(4) << "StreamSink output lost audio";
        counts.digest.feed(packet.body, packet.size);
        // Jitter: how the arrival moves against the audio's own time.
        double transit = microseconds(arrival - firstArrival) - receivedFrames / format.rate() * 1e6;
        if (hasTransit) counts.jitterUs += (std::fabs(transit - lastTransitUs) - counts.jitterUs) / 16;
        lastTransitUs = transit;
        hasTransit = true;
        double frames = std::floor(packet.size / frameBytes);
        receivedFrames += frames;
        takenFrames += frames;
        takenLateness +=
            frames * std::chrono::duration<double>(std::max(arrival, lastUpdate) - lastUpdate).count();
    }
    if (packet.wantsFeedback) ++feedbackOwed;
    if (packet.queuedBehind) return given;
    return given + settleLocked(now, answers + given);
}

int SinkPlayout::settle(Clock::time_point now, Answer (&answers)[2]) {
    std::lock_guard<std::mutex> lock(mutex);
    if (!streaming || !started) return 0;
    return settleLocked(now, answers);
}

int SinkPlayout::settleLocked(Clock::time_point now, Answer* answers) {
    playUntil(now);
    if (feedbackOwed == 0) return 0;
    feedbackOwed = 0;
    ++counts.feedbacks;
    answers[0] = feedbackAnswer(reportedDeviation(now));
    return 1;
}

void SinkPlayout::advance(Clock::time_point now) {
    std::lock_guard<std::mutex> lock(mutex);
    if (streaming && started) playUntil(now);
}

SinkPlayout::Clock::duration SinkPlayout::batchWait(std::size_t packets) const {
    std::lock_guard<std::mutex> lock(mutex);
    // A resend under way is followed packet by packet: the host goes back
    // and runs on at once, and in the compact framings a sink that lags 64
    // packets behind what arrives can no longer tell their numbers apart.
    if (!streaming || rate <= 0 || awaitingResend) return Clock::duration::zero();
    auto arrival = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(packets * packetFrames / rate));
    return std::min(batchSpan, arrival);
}

// The clock starts once the buffer holds its centre; from then on it plays
// whether audio is there or not, and what was missing is silence.
void SinkPlayout::playUntil(Clock::time_point now) {
    double before = level;
    if (!counts.playing && receivedFrames >= centre) {
        counts.playing = true;
        nextSample = now;
        output->startClock(now);
    }
    if (!counts.playing) {
        level = receivedFrames;
    } else {
        level = receivedFrames + silentFrames - output->played(now);
    }
    // Since the last update the level only fell, as the clock played: a
    // straight line from where it stood, with what arrived meanwhile on top
    // from its arrival.
    double span = std::chrono::duration<double>(now - lastUpdate).count();
    double fallen = counts.playing ? std::max(0.0, before - span * rate) : before;
    // What was taken since stood in the buffer from its arrival on.
    double arrived = std::max(0.0, takenFrames * span - takenLateness);
    takenFrames = takenLateness = 0;
    levelArea += ((before + fallen) / 2 + onTheirWay) * span + arrived;
    areaSpan += span;
    sampleArea += (before + fallen) / 2 * span + arrived;
    sampleSpan += span;
    lastUpdate = now;
    onTheirWay = std::max(0, std::int16_t(newest - expected) + 1) * packetFrames;
    if (level < 0) {
        silentFrames -= level;
        counts.silenceSeconds = silentFrames / rate;
        level = 0;
        if (!inUnderrun) ++counts.underruns;
        inUnderrun = true;
    } else if (level > 0) {
        inUnderrun = false;
    }
    if (level > capacity && !inOverrun) ++counts.overruns;
    inOverrun = level > capacity;
    while (now >= nextSample) {
        sample(nextSample);
        nextSample += samplePeriod;
    }
}

// The deviation kept is that of the mean level since the last sample, as
// the host hears it; the timeline keeps the moment's level too.
void SinkPlayout::sample(Clock::time_point at) {
    double mean = sampleSpan > 0 ? sampleArea / sampleSpan : level;
    sampleArea = sampleSpan = 0;
    auto d = std::int32_t(std::clamp(std::round((mean - centre) / centre * q14), -q14, q14));
    auto ms = std::uint32_t(std::chrono::duration_cast<std::chrono::milliseconds>(at - firstArrival).count());
    if (counts.deviation.size() < counts.deviation.capacity()) counts.deviation.push_back({ms, d});
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
    if (counts.timeline.size() < counts.timeline.capacity())
        counts.timeline.push_back({ns, std::uint64_t(receivedFrames), level, mean, lastReported});
    counts.deviationLeast = std::min(counts.deviationLeast, d);
    counts.deviationGreatest = std::max(counts.deviationGreatest, d);
    if (counts.playing) counts.playRate = output->rate(at);
    counts.xruns = output->xruns();
}

std::int32_t SinkPlayout::deviationNow() const {
    double d = std::round((level - centre) / centre * q14);
    return std::int32_t(std::clamp(d, -q14, q14));
}

std::int32_t SinkPlayout::deviation() const {
    std::lock_guard<std::mutex> lock(mutex);
    return deviationNow();
}

// The rate loop, as the host closes it through these reports.
//
// On each report d (Q14) the host moves its rate correction a:
//   a -= kp d + kd (d - d_prev),   kp = 655/16384 (0.04), kd = 1638/16384 (0.1),
// one report per interval T (its infoTime, 100 ms by default). Between
// reports the level x (seconds of audio off the centre) integrates the rate
// error, x' = a - p, p being this clock's offset. With d = x / S, S the
// error that reads as 1.0, one report step is
//   x[n+1] - 2 x[n] + x[n-1] = -g (kp e[n] + kd (e[n] - e[n-1])),   g = T / S,
// where e is the error the report measured. Reporting the level of one
// moment (e = x[n]) is stable for g < 4 / (kp + 2 kd), about 16.7. A span
// tied to the centre therefore fails as the buffer shrinks: at T = 100 ms
// and a 5 ms centre g is 20, and a flips between its clamps each report.
//
// So S follows the interval instead: S = T / 5 (20 ms at the default T),
// with T measured as the time since the last report, which makes g = 5
// whatever the buffer, the rate or the host's infoTime; a report the host
// missed doubles T and S alike. And d is the mean level since the last
// report, which keeps the sawtooth of bursts (a cycle's audio at a time)
// out of it, for half an interval of delay: e[n] ~ (x[n] + x[n-1]) / 2.
// The characteristic polynomial is then
//   z^3 + (g (kp + kd) / 2 - 2) z^2 + (1 + g kp / 2) z - g kd / 2,
// stable for g below about 13.5 and fastest near 5 to 6, where its largest
// root is 0.75: an error shrinks tenfold in 8 reports, under a second at
// 100 ms. g = 5 leaves a factor of 2.7 for delays the model leaves out.
// The clamps of a (-10 %, +3 %) and of d (an error of S) only slow a start
// far from the centre.
//
// The level in that mean counts the packets known to be on their way: after
// a loss, those from the missing one to the newest seen, which the host has
// made and sends again. The loop then hears the audio the host has produced,
// not the dip of a resend's round trip, which heals by itself; chasing those
// dips swung the level by more than the dips themselves.
constexpr double loopGain = 5;
// Report intervals outside these are taken as the nearest.
constexpr double shortestInterval = 0.001;
constexpr double longestInterval = 2.0;

std::int32_t SinkPlayout::reportedDeviation(Clock::time_point now) {
    double interval = std::chrono::duration<double>(now - lastReport).count();
    lastReport = now;
    double mean = areaSpan > 0 ? levelArea / areaSpan : level;
    levelArea = areaSpan = 0;
    reportSpan = rate * std::clamp(interval, shortestInterval, longestInterval) / loopGain;
    reportError = mean - centre;
    lastReported = std::int32_t(std::clamp(std::round(reportError / reportSpan * q14), -q14, q14 - 1));
    return lastReported;
}

SinkPlayout::Answer SinkPlayout::feedbackAnswer(std::int32_t d) const {
    Answer answer;
    answer.feedback = true;
    switch (config.feedbackEncoding) {
        case 2:
            // Signed 15 bits under bit 15.
            answer.param0 = std::uint16_t(0x8000 | (d & 0x7FFF));
            break;
        case 3: {
            // The host divides the level's distance from the level wanted
            // by the level wanted: the span takes the second's place, in
            // units of 10 us.
            double unit = format.rate() / 1e5;
            double span = std::clamp(std::round(reportSpan / unit), 1.0, 32767.0);
            answer.param2 = std::uint16_t(span);
            answer.param1 = std::uint16_t(std::clamp(std::round(span + reportError / unit), 0.0, 65535.0));
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
    SinkStats now = counts;
    if (streaming) now.xruns = output->xruns();
    return now;
}

std::string SinkStats::text() const {
    std::ostringstream out;
    out << "packets " << packets << ", bytes " << bytes << ", gaps " << gaps << ", resends " << resends
        << ", duplicates " << duplicates << ", out of order " << outOfOrder << ", dropped " << dropped
        << ", underruns " << underruns << ", overruns " << overruns << ", xruns " << xruns << ", feedbacks "
        << feedbacks << ", jitter " << std::lround(jitterUs) << " us, deviation " << deviationLeast << " to "
        << deviationGreatest << " (Q14)";
    return out.str();
}

std::string SinkStats::json() const {
    std::ostringstream out;
    out.precision(12);
    out << "{\"packets\":" << packets << ",\"bytes\":" << bytes << ",\"gaps\":" << gaps
        << ",\"resends\":" << resends << ",\"duplicates\":" << duplicates << ",\"outOfOrder\":" << outOfOrder
        << ",\"dropped\":" << dropped << ",\"underruns\":" << underruns << ",\"overruns\":" << overruns
        << ",\"xruns\":" << xruns << ",\"silenceSeconds\":" << silenceSeconds
        << ",\"feedbacks\":" << feedbacks << ",\"jitterUs\":" << jitterUs
        << ",\"deviationLeast\":" << deviationLeast << ",\"deviationGreatest\":" << deviationGreatest
        << ",\"deviation\":[";
    for (std::size_t i = 0; i < deviation.size(); ++i) {
        out << (i == 0 ? "" : ",") << "[" << deviation[i].ms << "," << deviation[i].q14 << "]";
    }
    out << "],\"rate\":" << rate << ",\"playRate\":" << playRate << ",\"centre\":" << centre
        << ",\"capacity\":" << capacity << ",\"frameBytes\":" << frameBytes << ",\"timeline\":[";
    for (std::size_t i = 0; i < timeline.size(); ++i) {
        const Moment& m = timeline[i];
        out << (i == 0 ? "" : ",") << "[" << m.ns << "," << m.received << "," << m.level << "," << m.reported
            << "," << m.mean << "]";
    }
    out << "],\"digest\":" << digest.json(frameBytes) << "}";
    return out.str();
}

}  // namespace VELMORA
