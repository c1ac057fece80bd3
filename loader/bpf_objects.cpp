// SPDX-License-Identifier: Apache-2.0
#include "loader/bpf_objects.h"

#include "bpf/kernel_layout.h"
#include "records/contract.h"

// The skeletons name the type of the objects' constants.
using Tesu::Bpf::TesuKernelLayout;  // NOLINT(misc-unused-using-decls)
#include "KernelMemory.skel.h"
#include "TesuBpfDefineset.skel.h"
#include "TesuBpfGplDefineset.skel.h"

namespace Tesu::Bpf {

namespace {

template <class Skeleton>
ObjectImage ImageOf(const char* name) {
    ObjectImage image = {.name = name, .bytes = nullptr, .size = 0};
    image.bytes = Skeleton::elf_bytes(&image.size);
    return image;
}

}  // namespace

ObjectImage CoreObject() {
    return ImageOf<TesuBpfDefineset>(TESU_CORE_OBJECT);
}

ObjectImage GplObject() {
    return ImageOf<TesuBpfGplDefineset>(TESU_GPL_OBJECT);
}

ObjectImage KernelMemoryObject() {
    return ImageOf<::KernelMemory>("KernelMemory");
}

}  // namespace Tesu::Bpf
