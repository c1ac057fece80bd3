// SPDX-License-Identifier: Apache-2.0
//
// Reads a record or request of any length into its struct.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Tesu::Bpf {

// What `size` bytes at `data` hold of a T; the rest of it is 0, bytes past it are left alone.
// `data` may be unaligned.
template <class T>
T ReadPrefix(const void* data, int64_t size) {
    static_assert(std::is_trivially_copyable_v<T>);
    T record{};
    if (size > 0) {
        std::memcpy(&record, data, std::min<uint64_t>(static_cast<uint64_t>(size), sizeof(T)));
    }
    return record;
}

}  // namespace Tesu::Bpf
