// A ring of bytes between one writer and one reader that never wait for
// each other: the sink's receive thread writes the stream, a device's
// callback or write loop reads it. Positions only grow; each has one writer.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace VELMORA {

class SampleRing {
  public:
    // Allocates: only while neither side runs. `unit` (a frame) divides the
    // size, so that a whole frame never wraps.
    void reset(std::size_t bytes, std::size_t unit) {
        std::size_t size = std::max<std::size_t>(unit, bytes / unit * unit);
        storage.assign(size, 0);
        head.store(0);
        tail.store(0);
    }
    std::size_t size() const { return storage.size(); }

    // The writer: all of it or nothing.
    bool write(const std::uint8_t* bytes, std::size_t count) {
        std::uint64_t at = head.load(std::memory_order_relaxed);
        if (count > storage.size() - (at - tail.load(std::memory_order_acquire))) return false;
        std::size_t offset = std::size_t(at % storage.size());
        std::size_t first = std::min(count, storage.size() - offset);
        std::memcpy(storage.data() + offset, bytes, first);
        std::memcpy(storage.data(), bytes + first, count - first);
        head.store(at + count, std::memory_order_release);
        return true;
    }

    // The reader: bytes waiting, and where they lie without wrapping.
    std::size_t readable() const {
        return std::size_t(head.load(std::memory_order_acquire) - tail.load(std::memory_order_relaxed));
    }
    const std::uint8_t* readAt(std::size_t offset) const {
        return storage.data() + (tail.load(std::memory_order_relaxed) + offset) % storage.size();
    }
    void consume(std::size_t count) {
        tail.store(tail.load(std::memory_order_relaxed) + count, std::memory_order_release);
    }
    // The reader drops all that waits.
    void clear() { tail.store(head.load(std::memory_order_acquire), std::memory_order_release); }

  private:
    std::vector<std::uint8_t> storage;
    std::atomic<std::uint64_t> head{0};  // written
    std::atomic<std::uint64_t> tail{0};  // read
};

}  // namespace VELMORA
