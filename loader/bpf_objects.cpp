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

constexpr ObjectImage CORE_OBJECT = {TESU_CORE_OBJECT, TesuBpfDefineset::elf_bytes};
constexpr ObjectImage GPL_OBJECT = {TESU_GPL_OBJECT, TesuBpfGplDefineset::elf_bytes};
constexpr ObjectImage KERNEL_MEMORY_OBJECT = {"KernelMemory", ::KernelMemory::elf_bytes};

}  // namespace Tesu::Bpf
