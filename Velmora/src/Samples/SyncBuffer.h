// A ring of audio slots between the source's thread (the buffer worker,
// which fills) and the stream worker (which takes through getBuffer).
//
// The ring starts full of silence, so a stream's start-up delay is exactly
// the ring's length. The data path has no lock: readPos is stored only by
// the stream worker, writePos only by the buffer worker, each with release
// order after its slot work. The reader never waits: an empty ring gives
// silence at once. ringMutex and ringChanged only let the buffer worker
// sleep; every wait is bounded, so a lost wake-up costs time, never a hang.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "Format/FormatID.h"
#include "Stream/Sync.h"
#include "System/Threads.h"

namespace VELMORA {

// One slot of the ring, and the silence buffer. Swapping two of them moves
// their contents without touching the bytes.
struct StreamBuffer {
    std::uint8_t* data = nullptr;
    std::uint64_t size = 0;
    std::vector<std::uint8_t> bytes;  // the storage `data` points into

    void swap(StreamBuffer& other) noexcept;
    // Makes `n` bytes of `value`; no allocation once the storage is large
    // enough. 0 empties it.
    void fill(std::uint64_t n, std::uint8_t value);
};

class SyncBuffer : public Sync {
  public:
    SyncBuffer() = default;
    SyncBuffer(NORVA::UDPV6& shared, NORVA::UDPV6* raw) : Sync(shared, raw) {}
    ~SyncBuffer() override;

    // `count` (at least 1) slots of `frames` frames of `format` (0: the
    // source format), all silence. Before either thread exists.
    bool setupRing(std::uint32_t frames, std::uint32_t count, std::uint32_t reserved, FormatID format);

    bool getBuffer(StreamChunk& chunk) override;
    bool onCycle() override;
    void onStateChange() override;
    // Fills `slot` completely; the source's hook. `mark`: the first fill
    // after a cycle since the ring was last full.
    virtual void fillBuffer(StreamBuffer& slot, bool mark);
    virtual bool startBufferThread();

    // Starts the connection, then the buffer worker.
    bool connect();
    void play();
    // Lets the ring play out, then stops audio; the connection stays.
    void stop();
    // Tells both threads that the end is coming.
    void pre_disconnect();
    // Ends the stream and joins both workers.
    void disconnect();

    // Swaps the caller's buffer into the next free slot, waiting as the
    // buffer worker does; false (nothing swapped) if that wait gives up.
    bool push(StreamBuffer& buffer);
    // Stops audio and puts the ring back to its start state, keeping what
    // the slots hold.
    void flush();
    // Moves readPos by `slots`, never past the data in the ring.
    void seek(std::int32_t slots);

    std::uint32_t slotBytes = 0;
    std::atomic<std::uint8_t> stopRequested{0};
    std::atomic<std::uint8_t> muteRequested{0};
    std::atomic<std::uint8_t> muteReached{0};
    std::atomic<std::uint8_t> cycleFlag{0};

    // Slots that hold data for the reader; the reader's own view.
    std::uint32_t filledSlots() const;
    std::uint32_t slotCount() const { return static_cast<std::uint32_t>(ring.size()); }

  protected:
    std::vector<StreamBuffer> ring;
    std::atomic<StreamBuffer*> readPos{nullptr};
    std::atomic<StreamBuffer*> writePos{nullptr};
    std::thread bufferThread;
    std::mutex ringMutex;
    std::condition_variable ringChanged;
    StreamBuffer muteBuffer;          // the stream worker's alone
    std::uint32_t progressWoken = 0;  // the stream worker's alone: ringProgress at its last wake
    bool pinBufferThread = false;     // to cpuOther, as connect found the flags

    // Counts the slots the stream worker has taken, and every other change
    // the buffer worker must see; it sleeps on this word while the ring is full.
    NORVA::WakeWord ringProgress;

    void bufferWorker();
    // Ends both workers. A subclass that overrides fillBuffer calls it from
    // its own destructor: the workers call virtual functions, which must not
    // run while the subclass's part is being taken down.
    void shutdown();
    void wakeRing() {
        ringProgress.bumpAndWake();
        ringChanged.notify_all();
    }

  private:
    StreamBuffer* next(StreamBuffer* slot);
    StreamBuffer* previous(StreamBuffer* slot);
    bool streamLive() const;
    // Waits, in bounded steps, for the slot after writePos to be free.
    bool waitFreeSlot();
    void joinBufferThread();
};

}  // namespace VELMORA
