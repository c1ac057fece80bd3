// SPDX-License-Identifier: Apache-2.0
#include "client/export/proto_message.h"

namespace Tesu::Bpf {

namespace {

constexpr uint32_t WIRE_VARINT = 0;
constexpr uint32_t WIRE_LENGTH_DELIMITED = 2;

}  // namespace

// Seven bits a byte, the lowest first; all but the last have the highest bit.
void ProtoMessage::addVarint(uint64_t value) {
    for (; value >= 0x80; value >>= 7) {
        encoded += static_cast<char>(value | 0x80);
    }
    encoded += static_cast<char>(value);
}

ProtoMessage& ProtoMessage::add(uint32_t field, int64_t value) {
    addVarint(field << 3 | WIRE_VARINT);
    addVarint(static_cast<uint64_t>(value));
    return *this;
}

ProtoMessage& ProtoMessage::add(uint32_t field, std::string_view value) {
    addVarint(field << 3 | WIRE_LENGTH_DELIMITED);
    addVarint(value.size());
    encoded += value;
    return *this;
}

}  // namespace Tesu::Bpf
