#include "common/container/ByteArray.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Common {
namespace Container {

ByteArray::ByteArray(const ByteArray& other)
{
    copyFrom(other);
}

ByteArray& ByteArray::operator=(const ByteArray& other)
{
    if (this != &other) {
        copyFrom(other);
    }
    return *this;
}

ByteArray::ByteArray(ByteArray&& other) noexcept : bytes(std::move(other.bytes)), count(other.count)
{
    other.count = 0;
}

ByteArray& ByteArray::operator=(ByteArray&& other) noexcept
{
    if (this != &other) {
        bytes = std::move(other.bytes);
        count = other.count;
        other.count = 0;
    }
    return *this;
}

void ByteArray::copyFrom(const ByteArray& other)
{
    // Old data goes first: if the allocation fails the array is left empty.
    bytes.reset();
    count = 0;
    bytes.reset(new uint8_t[other.count]);
    if (other.count != 0) {
        std::memmove(bytes.get(), other.bytes.get(), other.count);
    }
    count = other.count;
}

uint8_t* ByteArray::resize(uint32_t newSize)
{
    if (newSize == count) {
        return bytes.get();
    }
    if (newSize == 0) {
        bytes.reset();
        count = 0;
        return nullptr;
    }
    std::unique_ptr<uint8_t[]> block(new uint8_t[newSize]);
    if (bytes) {
        std::memcpy(block.get(), bytes.get(), std::min(newSize, count));
    }
    bytes = std::move(block);
    count = newSize;
    return bytes.get();
}

uint8_t& ByteArray::at(uint32_t index)
{
    if (!bytes || index >= count) {
        throw std::out_of_range("Byte array index");
    }
    return bytes[index];
}

} // namespace Container
} // namespace Common
