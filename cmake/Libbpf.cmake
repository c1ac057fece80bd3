# SPDX-License-Identifier: Apache-2.0
find_path(BPF_INCLUDE_DIR bpf/libbpf.h REQUIRED)
find_library(BPF_LIBRARY bpf REQUIRED)
