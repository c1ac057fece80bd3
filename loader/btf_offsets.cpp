// SPDX-License-Identifier: Apache-2.0
#include "loader/btf_offsets.h"

#include <bpf/btf.h>

#include <memory>
#include <optional>
#include <string_view>

namespace Tesu::Bpf {

namespace {

using BtfPointer = std::unique_ptr<::btf, decltype(&btf__free)>;

constexpr uint32_t BITS_PER_BYTE = 8;

// Byte offset of a member, looked for in anonymous structs and unions too.
std::optional<uint32_t> FindMember(const ::btf* types, const btf_type* composite,
                                   std::string_view name) {
    const btf_member* const members = btf_members(composite);
    for (uint32_t i = 0; i < btf_vlen(composite); ++i) {
        const uint32_t offset = btf_member_bit_offset(composite, i) / BITS_PER_BYTE;
        const std::string_view memberName = btf__name_by_offset(types, members[i].name_off);
        if (memberName == name) {
            return offset;
        }
        const btf_type* const type = btf__type_by_id(types, members[i].type);
        if (memberName.empty() && type != nullptr && btf_is_composite(type)) {
            if (const auto inner = FindMember(types, type, name)) {
                return offset + *inner;
            }
        }
    }
    return std::nullopt;
}

void SetMember(const ::btf* types, const char* structName, const char* memberName,
               uint32_t* offset) {
    const int id = btf__find_by_name_kind(types, structName, BTF_KIND_STRUCT);
    if (id < 0) {
        return;
    }
    if (const auto found = FindMember(types, btf__type_by_id(types, id), memberName)) {
        *offset = *found;
    }
}

}  // namespace

Result<> FindOffsetsInBtf(const std::string& btfPath, TesuKernelLayout* layout) {
    const BtfPointer types(btf__parse(btfPath.c_str(), nullptr), &btf__free);
    if (types == nullptr) {
        return SystemFailure(btfPath);
    }
    const ::btf* const t = types.get();
    SetMember(t, "task_struct", "flags", &layout->taskFlags);
    SetMember(t, "task_struct", "tgid", &layout->taskTgid);
    SetMember(t, "task_struct", "real_parent", &layout->taskRealParent);
    SetMember(t, "task_struct", "group_leader", &layout->taskGroupLeader);
    SetMember(t, "task_struct", "comm", &layout->taskComm);
    SetMember(t, "task_struct", "signal", &layout->taskSignal);
    SetMember(t, "signal_struct", "live", &layout->signalLive);
    SetMember(t, "inode", "i_ino", &layout->inodeIno);
    SetMember(t, "file", "f_inode", &layout->fileInode);
    SetMember(t, "dma_buf", "size", &layout->dmaBufSize);
    return {};
}

}  // namespace Tesu::Bpf
