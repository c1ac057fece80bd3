// SPDX-License-Identifier: Apache-2.0
#include "loader/btf_offsets.h"

#include <android-base/file.h>
#include <bpf/btf.h>
#include <linux/btf.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

namespace Tesu::Bpf {

namespace {

using BtfPointer = std::unique_ptr<::btf, decltype(&btf__free)>;

constexpr uint32_t BITS_PER_BYTE = 8;
// More than there is in a kernel's structure with all that it holds without a name. Type
// information may be wrong: a structure that holds itself has no end.
constexpr int MAX_DEPTH = 16;
constexpr uint32_t MAX_MEMBERS = 4096;

struct WantedMember {
    const char* structName;
    const char* name;
    uint32_t TesuKernelLayout::*offset;
};

constexpr WantedMember WANTED_MEMBERS[] = {
    {"task_struct", "flags", &TesuKernelLayout::taskFlags},
    {"task_struct", "tgid", &TesuKernelLayout::taskTgid},
    {"task_struct", "real_parent", &TesuKernelLayout::taskRealParent},
    {"task_struct", "group_leader", &TesuKernelLayout::taskGroupLeader},
    {"task_struct", "comm", &TesuKernelLayout::taskComm},
    {"task_struct", "signal", &TesuKernelLayout::taskSignal},
    {"signal_struct", "live", &TesuKernelLayout::signalLive},
    {"inode", "i_ino", &TesuKernelLayout::inodeIno},
    {"file", "f_inode", &TesuKernelLayout::fileInode},
    {"dma_buf", "size", &TesuKernelLayout::dmaBufSize},
};

// Byte offset of a member, looked for in anonymous structs and unions too. `membersLeft`: how many
// more are looked at.
Result<std::optional<uint32_t>> FindMember(const ::btf* types, const btf_type* composite,
                                           std::string_view name, uint32_t* membersLeft,
                                           int depth = 0) {
    if (depth > MAX_DEPTH || btf_vlen(composite) > *membersLeft) {
        return Failure("a structure without end");
    }
    *membersLeft -= btf_vlen(composite);
    const btf_member* const members = btf_members(composite);
    for (uint32_t i = 0; i < btf_vlen(composite); ++i) {
        const uint32_t offset = btf_member_bit_offset(composite, i) / BITS_PER_BYTE;
        const char* const memberName = btf__name_by_offset(types, members[i].name_off);
        if (memberName == nullptr) {
            return Failure("a member whose name is nowhere");
        }
        if (memberName == name) {
            return offset;
        }
        const btf_type* const type = btf__type_by_id(types, members[i].type);
        if (*memberName == '\0' && type != nullptr && btf_is_composite(type)) {
            auto inner = FindMember(types, type, name, membersLeft, depth + 1);
            if (!inner) {
                return inner;
            }
            if (*inner) {
                return offset + **inner;
            }
        }
    }
    return std::nullopt;
}

// libbpf reads types where the header says they are, aligned or not.
bool HasAlignedTypes(std::string_view btfBytes) {
    btf_header header = {};
    if (btfBytes.size() < sizeof(header)) {
        return false;
    }
    std::memcpy(&header, btfBytes.data(), sizeof(header));
    return header.magic == BTF_MAGIC && (header.hdr_len + header.type_off) % alignof(btf_type) == 0;
}

}  // namespace

Result<> ParseBtfOffsets(std::string_view btfBytes, TesuKernelLayout* layout) {
    if (!HasAlignedTypes(btfBytes)) {
        return Failure("no type information of this machine");
    }
    const BtfPointer types(btf__new(btfBytes.data(), static_cast<uint32_t>(btfBytes.size())),
                           &btf__free);
    if (types == nullptr) {
        return SystemFailure("no type information");
    }
    TesuKernelLayout found = *layout;
    for (const WantedMember& wanted : WANTED_MEMBERS) {
        const int id = btf__find_by_name_kind(types.get(), wanted.structName, BTF_KIND_STRUCT);
        if (id < 0) {
            continue;
        }
        uint32_t membersLeft = MAX_MEMBERS;
        const auto offset =
            FindMember(types.get(), btf__type_by_id(types.get(), static_cast<uint32_t>(id)),
                       wanted.name, &membersLeft);
        if (!offset) {
            return Failure(std::string("struct ") + wanted.structName + ": " + offset.error());
        }
        found.*wanted.offset = offset->value_or(found.*wanted.offset);
    }
    *layout = found;
    return {};
}

Result<> FindOffsetsInBtf(const std::string& btfPath, TesuKernelLayout* layout) {
    std::string bytes;
    if (!android::base::ReadFileToString(btfPath, &bytes)) {
        return SystemFailure(btfPath);
    }
    const auto parsed = ParseBtfOffsets(bytes, layout);
    return parsed ? parsed : Failure(btfPath + ": " + parsed.error());
}

}  // namespace Tesu::Bpf
