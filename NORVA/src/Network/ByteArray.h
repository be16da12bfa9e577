// A byte array that grows when asked for more and never gives memory back:
// a smaller size only changes the size in use. A buffer that is reused for
// data of varying size therefore stops allocating after the largest one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace NORVA {

class ByteArray {
  public:
    ByteArray() = default;
    explicit ByteArray(std::size_t size) { resize(size); }
    ByteArray(const ByteArray&) = delete;
    ByteArray& operator=(const ByteArray&) = delete;

    std::uint8_t* data() { return bytes.get(); }
    const std::uint8_t* data() const { return bytes.get(); }
    // Bytes in use.
    std::size_t size() const { return used; }
    // Bytes allocated; never less than size().
    std::size_t allocated() const { return capacity; }
    bool empty() const { return used == 0; }

    // Sets the size in use, keeping the bytes in use up to the smaller of the
    // two sizes. Bytes beyond the old size are zero in new memory and as they
    // were otherwise. True if the storage moved (old pointers are invalid).
    bool resize(std::size_t size);
    // Allocates room for `size` bytes without changing the size in use.
    bool reserve(std::size_t size);
    void clear() { used = 0; }

  private:
    std::unique_ptr<std::uint8_t[]> bytes;
    std::size_t capacity = 0;
    std::size_t used = 0;
};

}  // namespace NORVA
