// An owned heap buffer of run-time size for raw bytes (receive buffers, copy
// buffers). It never grows by itself: the owner sizes it with resize() and
// works on data() and size(). Not thread-safe.
#pragma once

#include <cstdint>
#include <memory>

namespace Common {
namespace Container {

class ByteArray {
public:
    ByteArray() = default;
    // A copy always owns a block, even a copy of an empty array (non-null, size 0).
    ByteArray(const ByteArray& other);
    ByteArray& operator=(const ByteArray& other);
    // Moves leave the source empty: data null, size 0.
    ByteArray(ByteArray&& other) noexcept;
    ByteArray& operator=(ByteArray&& other) noexcept;
    virtual ~ByteArray() = default;

    // Keeps the first min(old, new) bytes; added bytes are uninitialised.
    // Returns the data pointer, null after resize(0).
    uint8_t* resize(uint32_t newSize);
    uint8_t* data() { return bytes.get(); }
    uint32_t size() const { return count; }
    // Throws std::out_of_range("Byte array index") outside [0, size()).
    uint8_t& at(uint32_t index);

private:
    void copyFrom(const ByteArray& other);

    std::unique_ptr<uint8_t[]> bytes;
    uint32_t count = 0;
};

} // namespace Container
} // namespace Common
