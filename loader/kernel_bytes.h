// SPDX-License-Identifier: Apache-2.0
//
// Numbers out of bytes that were copied from kernel memory.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

namespace Tesu::Bpf {

// The number at `offset`; none where the bytes do not reach.
template <typename T>
std::optional<T> Load(const std::vector<uint8_t>& bytes, uint32_t offset) {
    T value;
    if (offset > bytes.size() || bytes.size() - offset < sizeof(value)) {
        return std::nullopt;
    }
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

// A pointer or a long of the kernel; 0 where the bytes do not reach.
inline uint64_t LoadPointer(const std::vector<uint8_t>& bytes, uint32_t offset,
                            uint32_t pointerSize) {
    return pointerSize == sizeof(uint32_t) ? Load<uint32_t>(bytes, offset).value_or(0)
                                           : Load<uint64_t>(bytes, offset).value_or(0);
}

}  // namespace Tesu::Bpf
