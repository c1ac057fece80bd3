// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace Tesu::Bpf {

// Whether the running kernel takes programs with 64-bit atomic operations; asked by loading a small
// one. 32-bit just-in-time compilers have none, and kernels before 5.12 only the addition.
bool HasAtomics();

}  // namespace Tesu::Bpf
