#include "Samples/SyncBuffer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "System/Log.h"
#include "System/Threads.h"

using NORVA::LogLine;

namespace VELMORA {

namespace {
constexpr std::chrono::milliseconds slotWait{10};
constexpr std::chrono::milliseconds muteWait{100};
// flush waits this long for the stream worker to stop asking.
constexpr std::uint32_t flushSettleMs = 100;
}  // namespace

// ---- StreamBuffer ---------------------------------------------------------------

void StreamBuffer::swap(StreamBuffer& other) noexcept {
    std::swap(data, other.data);
    std::swap(size, other.size);
    std::swap(bytes, other.bytes);
}

void StreamBuffer::fill(std::uint64_t n, std::uint8_t value) {
    if (n == 0) {
        data = nullptr;
        size = 0;
        return;
    }
    // Grows only: a smaller size keeps the storage.
    if (bytes.size() < n) bytes.resize(static_cast<std::size_t>(n));
    std::fill_n(bytes.begin(), n, value);
    data = bytes.data();
    size = n;
}

// ---- The ring -------------------------------------------------------------------

SyncBuffer::~SyncBuffer() {
    shutdown();
}

StreamBuffer* SyncBuffer::next(StreamBuffer* slot) {
    return slot + 1 == ring.data() + ring.size() ? ring.data() : slot + 1;
}

StreamBuffer* SyncBuffer::previous(StreamBuffer* slot) {
    return slot == ring.data() ? ring.data() + ring.size() - 1 : slot - 1;
}

bool SyncBuffer::streamLive() const {
    std::int32_t state = connectState;
    return state == starting || state == connected || state == disconnecting;
}

std::uint32_t SyncBuffer::filledSlots() const {
    if (ring.empty()) return 0;
    auto first = readPos.load(std::memory_order_acquire) - ring.data();
    auto last = writePos.load(std::memory_order_acquire) - ring.data();
    auto n = static_cast<std::ptrdiff_t>(ring.size());
    return static_cast<std::uint32_t>((last - first + n) % n);
}

bool SyncBuffer::setupRing(std::uint32_t frames, std::uint32_t count, std::uint32_t, FormatID format) {
    if (count < 1) return false;
    if (format.value == 0) format = this->format.sourceFormat;
    slotBytes = frames * format.frameBytes();
    std::uint8_t mute = format.muteByte();
    // Only here is ring memory made; the slots keep it while the stream runs.
    ring = std::vector<StreamBuffer>(count + 1);
    for (StreamBuffer& slot : ring) slot.fill(slotBytes, mute);
    writePos.store(&ring[0], std::memory_order_release);
    readPos.store(&ring[1], std::memory_order_release);
    cycleFlag.exchange(0);
    return true;
}

bool SyncBuffer::getBuffer(StreamChunk& chunk) {
    StreamBuffer* read = readPos.load(std::memory_order_relaxed);
    if (read != nullptr && read != writePos.load(std::memory_order_acquire)) {
        // What the ring holds goes out first, whatever has been asked for.
        chunk.data = read->data;
        chunk.size = static_cast<std::uint32_t>(read->size);
        readPos.store(next(read), std::memory_order_release);
        ringProgress.bump();
        return true;
    }
    if (stopRequested) {
        chunk = StreamChunk{};
        return false;
    }
    FormatID source = format.sourceFormat;
    if (muteRequested) {
        if (!muteReached.exchange(1)) wakeRing();
        muteBuffer.fill(slotBytes, source.muteByte());
    } else {
        // The buffer worker is behind: ten milliseconds of silence.
        wakeRing();
        std::uint64_t rate =
            std::uint64_t{source.bitsPerSample()} * source.channelCount() * source.rate() / 8;
        muteBuffer.fill(rate / 100, source.muteByte());
        timing.ringDry.fetch_add(1, std::memory_order_relaxed);
        LogLine(4) << "SyncBuffer not enough mute data return " << muteBuffer.size;
    }
    chunk.data = muteBuffer.data;
    chunk.size = static_cast<std::uint32_t>(muteBuffer.size);
    return true;
}

bool SyncBuffer::onCycle() {
    cycleFlag.exchange(1);
    // The buffer worker sleeps on ringProgress while the ring is full. Most
    // cycles take no slot, and a wake then would only cost it two context
    // switches to find nothing to do; the system call is saved with them.
    std::uint32_t progress = ringProgress.count();
    if (progress != progressWoken) {
        progressWoken = progress;
        ringProgress.wake();
    }
    ringChanged.notify_all();
    return true;
}

void SyncBuffer::onStateChange() {
    wakeRing();
}

void SyncBuffer::fillBuffer(StreamBuffer&, bool) {}

// ---- Stream life ----------------------------------------------------------------

bool SyncBuffer::connect() {
    stopRequested.exchange(1);
    if (bufferThread.joinable()) {
        LogLine(6) << "SyncBuffer::startBufferWorker close thread";
        joinBufferThread();
    }
    // Read here, on the caller's thread, like every other setting.
    pinBufferThread = (threadFlags & ThreadFlag::occupied) != 0 && cpuOther != -1 && cpuOtherCount >= 1;
    if (!Sync::connect()) return false;
    muteRequested.exchange(0);
    muteReached.exchange(0);
    stopRequested.exchange(0);
    if (!startBufferThread()) {
        LogLine(3) << "Buffer Worker Start Error";
        shutdown();
        return false;
    }
    return true;
}

bool SyncBuffer::startBufferThread() {
    if (bufferThread.joinable()) return false;
    bufferThread = std::thread([this] { bufferWorker(); });
    return true;
}

void SyncBuffer::play() {
    LogLine(6) << "SyncBuffer::play";
    muteRequested.exchange(0);
    muteReached.exchange(0);
    stopRequested.exchange(0);
    Sync::play();
    wakeRing();
}

void SyncBuffer::stop() {
    if (!playing) {
        LogLine(6) << "SyncBuffer::stop cancel";
        return;
    }
    LogLine(6) << "SyncBuffer::stop";
    muteRequested.exchange(1);
    // The ring plays out to its last slot. A stream worker that has gone
    // will never empty it, so its end also ends the wait.
    std::unique_lock<std::mutex> lock(ringMutex);
    while (!muteReached && streamLive()) {
        NORVA::waitFor(ringChanged, lock, slotWait, [this] { return muteReached != 0; });
    }
    lock.unlock();
    Sync::stop();
}

void SyncBuffer::pre_disconnect() {
    LogLine(6) << "SyncBuffer::pre_disconnect";
    stopRequested.exchange(1);
}

void SyncBuffer::disconnect() {
    pre_disconnect();
    LogLine(6) << "SyncBuffer::disconnect";
    LogLine(6) << "discone";
    std::int32_t state = connectState;
    if (state == connected || state == disconnecting) {
        Sync::requestDisconnect();
        disconnectRequested = true;
    }
    if (Sync::disconnectWait()) {
        joinBufferThread();
        LogLine(6) << "SyncBuffer::disconnect done";
    } else if (bufferThread.joinable()) {
        LogLine(6) << "SyncBuffer::disconnect cancel close thread";
        joinBufferThread();
    }
}

void SyncBuffer::shutdown() {
    pre_disconnect();
    connectState = idle;
    playing = 0;
    // The socket is shut before the join, so that a stream worker inside an
    // exchange leaves at once; it is closed only once nobody waits on it.
    Connection::interrupt();
    joinWorker();
    Connection::close();
    joinBufferThread();
}

void SyncBuffer::joinBufferThread() {
    if (!bufferThread.joinable()) return;
    wakeRing();
    bufferThread.join();
}

// ---- Operations the driver doesn't use ------------------------------------------

bool SyncBuffer::push(StreamBuffer& buffer) {
    if (ring.empty() || !waitFreeSlot()) return false;
    StreamBuffer* write = writePos.load(std::memory_order_relaxed);
    write->swap(buffer);
    writePos.store(next(write), std::memory_order_release);
    return true;
}

void SyncBuffer::flush() {
    if (playing) {
        Sync::stop();
        NORVA::sleepMilliseconds(flushSettleMs);
    }
    if (ring.empty()) return;
    writePos.store(&ring[0], std::memory_order_release);
    readPos.store(&ring[1], std::memory_order_release);
    cycleFlag.exchange(0);
}

void SyncBuffer::seek(std::int32_t slots) {
    if (playing) {
        Sync::stop();
        NORVA::sleepMilliseconds(flushSettleMs);
    }
    if (ring.empty()) return;
    StreamBuffer* read = readPos.load(std::memory_order_relaxed);
    StreamBuffer* write = writePos.load(std::memory_order_acquire);
    for (; slots > 0 && read != write; --slots) read = next(read);
    for (StreamBuffer* floor = next(write); slots < 0 && read != floor; ++slots) read = previous(read);
    readPos.store(read, std::memory_order_release);
}

// ---- The buffer worker ----------------------------------------------------------

bool SyncBuffer::waitFreeSlot() {
    StreamBuffer* free = next(writePos.load(std::memory_order_relaxed));
    while (free == readPos.load(std::memory_order_acquire)) {
        // A slot taken after this look bumps the word, and the sleep then
        // doesn't begin: no wake can be lost in between.
        std::uint32_t seen = ringProgress.count();
        if (free == readPos.load(std::memory_order_acquire)) ringProgress.waitWhile(seen, slotWait);
        if (!streamLive() || stopRequested || muteRequested) return false;
    }
    return true;
}

void SyncBuffer::bufferWorker() {
    if (pinBufferThread) {
        bool pinned = NORVA::setCurrentThreadProcessors(cpuOther, cpuOtherCount);
        LogLine(pinned ? 6 : 4) << (pinned ? "Buffer Thread CPU set " : "Buffer Thread CPU set error ")
                                << cpuOther << "," << cpuOtherCount;
    }
    if (NORVA::setCurrentThreadLevel(NORVA::levelHigh)) {
        LogLine(6) << "Buffer Thread Priority set HIGH";
    } else {
        LogLine(4) << "Buffer Thread Priority set Error";
    }

    bool markGiven = false;
    while (streamLive() && !stopRequested) {
        if (muteRequested) {
            std::unique_lock<std::mutex> lock(ringMutex);
            NORVA::waitFor(ringChanged, lock, muteWait,
                           [this] { return !muteRequested || !streamLive() || stopRequested; });
            continue;
        }
        if (!waitFreeSlot()) continue;
        StreamBuffer* write = writePos.load(std::memory_order_relaxed);
        // A cycle since the ring was last full marks one fill only.
        bool mark = cycleFlag.exchange(0) != 0 && !markGiven;
        if (mark) markGiven = true;
        fillBuffer(*write, mark);
        StreamBuffer* after = next(write);
        writePos.store(after, std::memory_order_release);
        if (next(after) == readPos.load(std::memory_order_acquire)) markGiven = false;
    }

    // The stream worker now gets silence until the connection is down; this
    // thread outlives it, so its join can't overtake that.
    muteRequested.exchange(1);
    muteReached.exchange(1);
    LogLine(6) << "finish BufferWorker";
    while (streamLive()) {
        std::unique_lock<std::mutex> lock(ringMutex);
        NORVA::waitFor(ringChanged, lock, slotWait, [this] { return !streamLive(); });
    }
    LogLine(6) << "done BufferWorker";
}

}  // namespace VELMORA
