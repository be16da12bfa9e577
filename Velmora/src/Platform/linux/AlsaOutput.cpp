#include "Platform/linux/AlsaOutput.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "System/Log.h"
#include "System/Threads.h"

using NORVA::LogLine;

namespace VELMORA {

namespace {

constexpr std::uint32_t candidateRates[] = {44100,  48000,  88200,  96000,  176400,
                                            192000, 352800, 384000, 705600, 768000};
constexpr unsigned candidateChannels[] = {1, 2, 4, 6, 8, 16};
constexpr SampleForm deviceForms[] = {SampleForm::s16, SampleForm::s24, SampleForm::s32, SampleForm::f32};
constexpr auto reopenEvery = std::chrono::seconds(1);
constexpr double leastRingSeconds = 0.5;

snd_pcm_format_t alsaFormat(SampleForm form) {
    switch (form) {
        case SampleForm::s16:
            return SND_PCM_FORMAT_S16_LE;
        case SampleForm::s24:
            return SND_PCM_FORMAT_S24_3LE;
        case SampleForm::s32:
            return SND_PCM_FORMAT_S32_LE;
        case SampleForm::f32:
            return SND_PCM_FORMAT_FLOAT_LE;
        default:
            return SND_PCM_FORMAT_UNKNOWN;
    }
}

// The device forms that hold a stream form exactly, the best first.
std::vector<SampleForm> exactHolders(SampleForm stream) {
    switch (stream) {
        case SampleForm::s16:
            return {SampleForm::s16, SampleForm::s24, SampleForm::s32, SampleForm::f32};
        case SampleForm::s24:
            return {SampleForm::s24, SampleForm::s32, SampleForm::f32};
        case SampleForm::s32:
            return {SampleForm::s32};
        case SampleForm::f32:
            return {SampleForm::f32, SampleForm::s32};
        default:
            return {};
    }
}

bool contains(const auto& list, const auto& value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

std::int64_t nanoseconds(PlayoutOutput::Clock::time_point at) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
}

}  // namespace

AlsaOutput::~AlsaOutput() {
    close();
}

bool AlsaOutput::probe(std::string& error) {
    snd_pcm_t* handle = nullptr;
    int result = snd_pcm_open(&handle, device.c_str(), SND_PCM_STREAM_PLAYBACK, 0);
    if (result < 0) {
        error = std::string("can't open it: ") + snd_strerror(result);
        return false;
    }
    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    snd_pcm_hw_params_any(handle, params);
    caps = Caps{};
    for (SampleForm f : deviceForms)
        if (snd_pcm_hw_params_test_format(handle, params, alsaFormat(f)) == 0) caps.forms.push_back(f);
    for (unsigned c : candidateChannels)
        if (snd_pcm_hw_params_test_channels(handle, params, c) == 0) caps.channels.push_back(c);
    for (std::uint32_t r : candidateRates)
        if (snd_pcm_hw_params_test_rate(handle, params, r, 0) == 0) caps.rates.push_back(r);
    snd_pcm_close(handle);
    if (caps.forms.empty() || caps.channels.empty() || caps.rates.empty()) {
        error = "it takes no PCM of 16, 24, 32 bits or float at 44.1 or 48 kHz times a power of two";
        return false;
    }
    return true;
}

bool AlsaOutput::playable(FormatID& pcm, FormatID& dsdLsb, FormatID& dsdMsb, std::string& error) const {
    if (dsdLsb.value != 0 || dsdMsb.value != 0) {
        error = "DSD isn't played to ALSA (no DoP); leave DSD out of an ALSA sink's formats";
        return false;
    }
    std::uint32_t forms = 0;
    for (SampleForm f : deviceForms) {
        for (SampleForm holder : exactHolders(f))
            if (contains(caps.forms, holder)) forms |= sampleBitOf(f);
    }
    std::uint32_t channelBits = 0;
    for (std::uint32_t bit = 1; bit <= 0x20; bit <<= 1) {
        unsigned count = FormatID(bit, 0).channelCount();
        if (std::any_of(caps.channels.begin(), caps.channels.end(), [&](unsigned c) { return c >= count; }))
            channelBits |= bit;
    }
    std::uint32_t rateBits = 0;
    for (std::uint32_t r : caps.rates) {
        FormatID rate;
        if (rate.setRate(r) && (pcm.high() & rate.high() & FormatID::baseMask) != 0 &&
            (pcm.high() & rate.high() & FormatID::multiplierMask) != 0)
            rateBits |= rate.high() & FormatID::rateMask;
    }
    std::uint32_t low = pcm.low() & (forms | channelBits);
    if ((low & FormatID::sampleMask) == 0 || (low & FormatID::channelMask) == 0 || rateBits == 0) {
        error = "the formats offered hold nothing the device plays";
        return false;
    }
    // A mask's rate field pairs every base with every multiplier: the rates
    // offered are those of the device's that the pairs of the result reach.
    pcm = FormatID(low | (pcm.low() & ~(FormatID::sampleMask | FormatID::channelMask)),
                   (pcm.high() & ~FormatID::rateMask) | (pcm.high() & rateBits));
    return true;
}

bool AlsaOutput::openDevice(std::string& error) {
    int result = snd_pcm_open(&pcm, device.c_str(), SND_PCM_STREAM_PLAYBACK, 0);
    if (result < 0) {
        pcm = nullptr;
        error = std::string("can't open ") + device + ": " + snd_strerror(result);
        return false;
    }
    snd_pcm_hw_params_t* params;
    snd_pcm_hw_params_alloca(&params);
    unsigned rate = unsigned(nominal);
    // A period of about 2.5 ms, the device's buffer four of them: well
    // inside the sink's buffer, which counts the device's as its own.
    snd_pcm_uframes_t wantedPeriod = std::max<snd_pcm_uframes_t>(32, snd_pcm_uframes_t(nominal / 400));
    snd_pcm_uframes_t bufferSize = wantedPeriod * 4;
    int dir = 0;
    bool set = snd_pcm_hw_params_any(pcm, params) >= 0 &&
               snd_pcm_hw_params_set_rate_resample(pcm, params, 0) >= 0 &&
               snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED) >= 0 &&
               snd_pcm_hw_params_set_format(pcm, params, alsaFormat(deviceForm)) >= 0 &&
               snd_pcm_hw_params_set_channels(pcm, params, deviceChannels) >= 0 &&
               snd_pcm_hw_params_set_rate(pcm, params, rate, 0) >= 0 &&
               snd_pcm_hw_params_set_period_size_near(pcm, params, &wantedPeriod, &dir) >= 0 &&
               snd_pcm_hw_params_set_buffer_size_near(pcm, params, &bufferSize) >= 0 &&
               snd_pcm_hw_params(pcm, params) >= 0;
    snd_pcm_sw_params_t* software;
    snd_pcm_sw_params_alloca(&software);
    set = set && snd_pcm_hw_params_get_period_size(params, &period, &dir) >= 0 &&
          snd_pcm_sw_params_current(pcm, software) >= 0 &&
          snd_pcm_sw_params_set_start_threshold(pcm, software, period) >= 0 &&
          snd_pcm_sw_params(pcm, software) >= 0;
    if (!set) {
        error = "the device refuses " + std::to_string(rate) + " Hz, " + std::to_string(deviceChannels) +
                " channels, " + snd_pcm_format_name(alsaFormat(deviceForm));
        closeDevice();
        return false;
    }
    converted.assign(period * deviceChannels * sampleBytes(deviceForm), 0);
    written = 0;
    return true;
}

void AlsaOutput::closeDevice() {
    if (pcm == nullptr) return;
    snd_pcm_drop(pcm);
    snd_pcm_close(pcm);
    pcm = nullptr;
}

bool AlsaOutput::open(FormatID streamFormat, double buffer, std::string& error) {
    close();
    format = streamFormat;
    form = sampleFormOf(format);
    nominal = format.rate();
    channels = format.channelCount();
    bufferFrames = buffer;
    deviceForm = SampleForm::none;
    for (SampleForm holder : exactHolders(form)) {
        if (contains(caps.forms, holder)) {
            deviceForm = holder;
            break;
        }
    }
    deviceChannels = 0;
    for (unsigned c : caps.channels) {
        if (c >= channels) {
            deviceChannels = c;
            break;
        }
    }
    if (deviceForm == SampleForm::none || deviceChannels == 0 ||
        !contains(caps.rates, std::uint32_t(nominal))) {
        error = "the device can't play format 0x" + std::to_string(format.value);
        return false;
    }
    frameBytes = sampleBytes(form) * channels;
    ring.reset(std::size_t(std::max(2 * bufferFrames, leastRingSeconds * nominal)) * frameBytes, frameBytes);
    playedBefore = 0;
    playedFrames.store(0);
    playedAtNs.store(0);
    playing = false;
    lost = !openDevice(error);
    if (lost) LogLine(3) << "ALSA " << error << ": playing on the system clock until it can be opened";
    running = true;
    writer = std::thread([this] { loop(); });
    return true;
}

bool AlsaOutput::write(const std::uint8_t* bytes, std::size_t size) {
    return ring.write(bytes, size);
}

void AlsaOutput::startClock(Clock::time_point now) {
    playedAtNs.store(nanoseconds(now));
    playing.store(true, std::memory_order_release);
}

// What the loop last published, carried on at the nominal rate for the
// time since, but never past what the device was given.
double AlsaOutput::played(Clock::time_point now) {
    std::int64_t at = playedAtNs.load(std::memory_order_acquire);
    double frames = playedFrames.load(std::memory_order_acquire);
    double since = std::max(0.0, double(nanoseconds(now) - at) / 1e9) * nominal;
    return frames + std::min(since, double(period != 0 ? period : 1));
}

void AlsaOutput::publish(double frames) {
    playedFrames.store(frames, std::memory_order_release);
    playedAtNs.store(nanoseconds(Clock::now()), std::memory_order_release);
}

bool AlsaOutput::close() {
    if (!writer.joinable()) return true;
    running = false;
    writer.join();
    closeDevice();
    playing = false;
    return true;
}

// Gives the device one period: stream frames while the ring has them,
// silence for the rest. False if the device has gone.
bool AlsaOutput::writeFrames(std::size_t frames) {
    std::size_t available = ring.readable() / frameBytes;
    std::size_t taken = std::min(frames, available);
    unsigned deviceFrameBytes = deviceChannels * sampleBytes(deviceForm);
    for (std::size_t f = 0; f < taken; ++f)
        convertFrames(ring.readAt(f * frameBytes), form, channels, converted.data() + f * deviceFrameBytes,
                      deviceForm, deviceChannels, 1);
    std::fill(converted.begin() + std::ptrdiff_t(taken * deviceFrameBytes),
              converted.begin() + std::ptrdiff_t(frames * deviceFrameBytes), 0);
    ring.consume(taken * frameBytes);
    std::size_t done = 0;
    while (done < frames) {
        snd_pcm_sframes_t result =
            snd_pcm_writei(pcm, converted.data() + done * deviceFrameBytes, snd_pcm_uframes_t(frames - done));
        if (result == -EAGAIN) continue;
        if (result == -EPIPE || result == -ESTRPIPE) {
            xrunCount.fetch_add(1, std::memory_order_relaxed);
            LogLine(4) << "ALSA xrun on " << device;
            if (snd_pcm_recover(pcm, int(result), 1) < 0) return false;
            continue;
        }
        if (result < 0) {
            if (snd_pcm_recover(pcm, int(result), 1) < 0) return false;
            continue;
        }
        done += std::size_t(result);
        written += std::size_t(result);
    }
    return true;
}

// Without the device the ring plays on the steady clock, into nothing.
void AlsaOutput::playWithoutDevice(Clock::time_point& last) {
    auto now = Clock::now();
    double frames = std::chrono::duration<double>(now - last).count() * nominal;
    last = now;
    if (playing.load(std::memory_order_acquire)) {
        std::size_t whole = std::min(std::size_t(frames), ring.readable() / frameBytes);
        ring.consume(whole * frameBytes);
        playedBefore += frames;
        publish(playedBefore);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

// The write loop: nothing allocated, no lock; logs only through the
// threshold-guarded log.
void AlsaOutput::loop() {
    NORVA::setCurrentThreadLevel(NORVA::levelHigh);
    auto last = Clock::now();
    auto nextOpen = last + reopenEvery;
    while (running.load()) {
        if (lost.load()) {
            playWithoutDevice(last);
            if (Clock::now() < nextOpen) continue;
            nextOpen = Clock::now() + reopenEvery;
            std::string error;
            if (!openDevice(error)) continue;
            LogLine(5) << "ALSA device " << device << " is back";
            lost = false;
            continue;
        }
        if (!playing.load(std::memory_order_acquire)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            last = Clock::now();
            continue;
        }
        // Blocks until the device has room for a period.
        if (snd_pcm_wait(pcm, 100) < 0 || !writeFrames(period)) {
            LogLine(3) << "ALSA device " << device << " gone: playing on the system clock until it is back";
            closeDevice();
            playedBefore += double(written);
            written = 0;
            lost = true;
            last = Clock::now();
            nextOpen = last + reopenEvery;
            continue;
        }
        snd_pcm_sframes_t delay = 0;
        if (snd_pcm_delay(pcm, &delay) < 0) delay = 0;
        publish(playedBefore + std::max(0.0, double(written) - double(delay)));
    }
}

}  // namespace VELMORA
