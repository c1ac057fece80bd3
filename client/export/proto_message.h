// SPDX-License-Identifier: Apache-2.0
//
// A message of protocol buffers, field by field:
//
//   ProtoMessage().add(1, 42).add(2, "text").add(3, ProtoMessage().add(1, -1)).bytes()
//
// Which type a field has is a matter of whoever reads it. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tesu::Bpf {

class ProtoMessage {
  public:
    // An integer of any type but the zigzag and fixed ones, a bool or an enumerator.
    ProtoMessage& add(uint32_t field, int64_t value);
    // Text or bytes, as they are.
    ProtoMessage& add(uint32_t field, std::string_view value);
    ProtoMessage& add(uint32_t field, const ProtoMessage& value) {
        return add(field, std::string_view(value.encoded));
    }

    const std::string& bytes() const { return encoded; }

  private:
    void addVarint(uint64_t value);

    std::string encoded;
};

}  // namespace Tesu::Bpf
