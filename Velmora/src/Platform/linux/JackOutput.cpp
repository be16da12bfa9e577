#include "Platform/linux/JackOutput.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "System/Log.h"

using NORVA::LogLine;

namespace VELMORA {

namespace {

constexpr std::uint32_t jackForms = 0x200 | 0x400 | 0x800 | 0x2000;
// The ring holds twice the sink's buffer, and at least half a second: the
// sink's own level keeps it from filling.
constexpr double leastRingSeconds = 0.5;
constexpr auto reconnectEvery = std::chrono::seconds(1);
constexpr auto lossPoll = std::chrono::milliseconds(100);

}  // namespace

JackOutput::JackOutput(std::string name, unsigned channelCount)
    : clientName(std::move(name)), portCount(channelCount), buffers(channelCount, nullptr) {}

JackOutput::~JackOutput() {
    {
        std::lock_guard<std::mutex> lock(lossMutex);
        ending = true;
    }
    lossChanged.notify_all();
    if (reconnector.joinable()) reconnector.join();
    leave();
}

bool JackOutput::connect(std::string& error) {
    if (!join(error)) return false;
    reconnector = std::thread([this] { reconnectLoop(); });
    return true;
}

bool JackOutput::join(std::string& error) {
    jack_status_t status{};
    jack_client_t* opened = jack_client_open(clientName.c_str(), JackNoStartServer, &status);
    if (opened == nullptr) {
        char text[64];
        std::snprintf(text, sizeof text, "can't reach the JACK server (status 0x%x)", unsigned(status));
        error = text;
        return false;
    }
    std::uint32_t serverRate = jack_get_sample_rate(opened);
    if (sampleRate != 0 && serverRate != sampleRate) {
        error = "the JACK server now runs at " + std::to_string(serverRate) + " Hz, not " +
                std::to_string(sampleRate);
        jack_client_close(opened);
        return false;
    }
    std::vector<jack_port_t*> registered;
    for (unsigned i = 0; i < portCount; ++i) {
        std::string port = "out_" + std::to_string(i + 1);
        jack_port_t* made =
            jack_port_register(opened, port.c_str(), JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
        if (made == nullptr) {
            error = "can't register JACK port " + port;
            jack_client_close(opened);
            return false;
        }
        registered.push_back(made);
    }
    jack_set_process_callback(opened, &JackOutput::onProcess, this);
    jack_set_xrun_callback(opened, &JackOutput::onXrun, this);
    jack_on_info_shutdown(opened, &JackOutput::onShutdown, this);
    {
        std::lock_guard<std::mutex> lock(clientMutex);
        client = opened;
        ports = registered;
        sampleRate = serverRate;
    }
    startSeen = false;
    if (jack_activate(opened) != 0) {
        error = "can't activate the JACK client";
        leave();
        return false;
    }
    // To the sound card where the server has one; a patchbay may change it.
    const char** playback =
        jack_get_ports(opened, nullptr, JACK_DEFAULT_AUDIO_TYPE, JackPortIsPhysical | JackPortIsInput);
    for (unsigned i = 0; playback != nullptr && i < portCount && playback[i] != nullptr; ++i)
        jack_connect(opened, jack_port_name(ports[i]), playback[i]);
    if (playback != nullptr) jack_free(playback);
    LogLine(6) << "JACK client " << jack_get_client_name(opened) << " at " << serverRate << " Hz, "
               << portCount << " ports";
    return true;
}

void JackOutput::leave() {
    jack_client_t* closing;
    {
        std::lock_guard<std::mutex> lock(clientMutex);
        closing = client;
        client = nullptr;
    }
    if (closing != nullptr) jack_client_close(closing);
}

// The server calls this as it would a signal handler: a flag, nothing more.
void JackOutput::onShutdown(jack_status_t, const char*, void* self) {
    static_cast<JackOutput*>(self)->lost.store(true);
}

int JackOutput::onXrun(void* self) {
    static_cast<JackOutput*>(self)->xrunCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void JackOutput::reconnectLoop() {
    std::unique_lock<std::mutex> lock(lossMutex);
    bool told = false;
    while (!ending) {
        if (!lost.load()) {
            lossChanged.wait_for(lock, lossPoll);
            continue;
        }
        if (!told) {
            LogLine(3) << "JACK server gone: playing on the system clock until it is back";
            told = true;
            lock.unlock();
            leave();
            lock.lock();
        }
        lock.unlock();
        std::string error;
        bool back = join(error);
        lock.lock();
        if (back) {
            LogLine(5) << "JACK server back";
            lost = false;
            told = false;
            continue;
        }
        lossChanged.wait_for(lock, reconnectEvery);
    }
}

int JackOutput::onProcess(jack_nframes_t frames, void* self) {
    return static_cast<JackOutput*>(self)->process(frames);
}

// The real-time callback: no lock, no allocation, no log.
int JackOutput::process(jack_nframes_t frames) {
    for (unsigned c = 0; c < portCount; ++c)
        buffers[c] = static_cast<float*>(jack_port_get_buffer(ports[c], frames));
    std::size_t taken = 0;
    unsigned playedChannels = 0;
    if (state.load(std::memory_order_acquire) == playing && callbackReads.load(std::memory_order_acquire)) {
        if (!startSeen.load(std::memory_order_relaxed)) {
            startFrame.store(jack_last_frame_time(client), std::memory_order_relaxed);
            startSeen.store(true, std::memory_order_release);
        }
        playedChannels = std::min(channels, portCount);
        taken = std::min<std::size_t>(frames, ring.readable() / frameBytes);
        unsigned step = sampleBytes(form);
        for (std::size_t f = 0; f < taken; ++f) {
            const std::uint8_t* frame = ring.readAt(f * frameBytes);
            for (unsigned c = 0; c < playedChannels; ++c)
                buffers[c][f] = sampleToFloat(frame + c * step, form);
        }
        ring.consume(taken * frameBytes);
    }
    for (unsigned c = 0; c < portCount; ++c) {
        std::size_t from = c < playedChannels ? taken : 0;
        std::fill(buffers[c] + from, buffers[c] + frames, 0.0f);
    }
    cycles.fetch_add(1, std::memory_order_release);
    return 0;
}

// A callback that may still see the last stream's format has ended.
void JackOutput::waitForCycles() {
    if (lost.load()) return;
    std::uint64_t seen = cycles.load(std::memory_order_acquire);
    auto limit = Clock::now() + std::chrono::milliseconds(200);
    while (cycles.load(std::memory_order_acquire) < seen + 2 && Clock::now() < limit && !lost.load())
        std::this_thread::sleep_for(std::chrono::microseconds(500));
}

bool JackOutput::playable(FormatID& pcm, FormatID& dsdLsb, FormatID& dsdMsb, std::string& error) const {
    if (dsdLsb.value != 0 || dsdMsb.value != 0) {
        error = "JACK plays PCM only; leave DSD out of a JACK sink's formats";
        return false;
    }
    FormatID atServerRate;
    if (!atServerRate.setRate(sampleRate)) {
        error = "the JACK server's rate of " + std::to_string(sampleRate) + " Hz isn't one a host can send";
        return false;
    }
    std::uint32_t forms = pcm.low() & jackForms;
    std::uint32_t rates = pcm.high() & atServerRate.high() & FormatID::rateMask;
    if (forms == 0 || (rates & FormatID::baseMask) == 0 || (rates & FormatID::multiplierMask) == 0) {
        error = "the formats offered hold no PCM of 16, 24, 32 bits or float at the JACK server's " +
                std::to_string(sampleRate) + " Hz";
        return false;
    }
    pcm = FormatID((pcm.low() & ~FormatID::sampleMask) | forms, (pcm.high() & ~FormatID::rateMask) | rates);
    return true;
}

bool JackOutput::open(FormatID format, double bufferFrames, std::string& error) {
    state.store(idle, std::memory_order_release);
    waitForCycles();
    SampleForm streamForm = sampleFormOf(format);
    if (streamForm == SampleForm::none || format.rate() != sampleRate || format.channelCount() > portCount) {
        error = "JACK can't play format 0x" + std::to_string(format.value) + " at " +
                std::to_string(sampleRate) + " Hz with " + std::to_string(portCount) + " ports";
        return false;
    }
    form = streamForm;
    channels = format.channelCount();
    frameBytes = sampleBytes(form) * channels;
    nominal = format.rate();
    double ringFrames = std::max(2 * bufferFrames, leastRingSeconds * nominal);
    ring.reset(std::size_t(ringFrames) * frameBytes, frameBytes);
    playedBefore = serverPlayed = 0;
    onServerClock = !lost.load();
    state.store(ready, std::memory_order_release);
    return true;
}

bool JackOutput::write(const std::uint8_t* bytes, std::size_t size) {
    return ring.write(bytes, size);
}

void JackOutput::startClock(Clock::time_point now) {
    steadyFrom = now;
    voidFrames = 0;
    startSeen.store(false);
    callbackReads.store(onServerClock, std::memory_order_release);
    state.store(playing, std::memory_order_release);
}

// Frames played: the server's frame time since the first cycle that took
// audio, and, for a span without the server, the steady clock's. The ring
// changes readers here: the callback stops reading once the server has gone
// (it no longer runs), and starts again only after this thread has stopped.
double JackOutput::played(Clock::time_point now) {
    bool gone = lost.load();
    if (gone && onServerClock) {
        callbackReads.store(false, std::memory_order_release);
        playedBefore += serverPlayed;
        serverPlayed = 0;
        onServerClock = false;
        steadyFrom = now;
        voidFrames = 0;
    } else if (!gone && !onServerClock) {
        playedBefore += std::chrono::duration<double>(now - steadyFrom).count() * nominal;
        onServerClock = true;
        startSeen.store(false);
        callbackReads.store(true, std::memory_order_release);
    }
    if (!onServerClock) {
        double frames = std::chrono::duration<double>(now - steadyFrom).count() * nominal;
        // What was due and not there isn't made up later, as on a device.
        auto due = std::uint64_t(frames) - voidFrames;
        ring.consume(std::min<std::size_t>(due, ring.readable() / frameBytes) * frameBytes);
        voidFrames += due;
        return playedBefore + frames;
    }
    if (!startSeen.load(std::memory_order_acquire)) return playedBefore;
    std::lock_guard<std::mutex> lock(clientMutex);
    if (client == nullptr) return playedBefore + serverPlayed;
    jack_nframes_t frame = jack_frame_time(client);
    jack_nframes_t start = startFrame.load(std::memory_order_relaxed);
    // The frame counter wraps at 2^32: count from the start once, then by steps.
    if (serverPlayed == 0) lastFrame = start;
    auto step = std::int32_t(frame - lastFrame);
    if (step > 0) {
        serverPlayed += step;
        lastFrame = frame;
    }
    return playedBefore + serverPlayed;
}

bool JackOutput::close() {
    state.store(idle, std::memory_order_release);
    return true;
}

}  // namespace VELMORA
