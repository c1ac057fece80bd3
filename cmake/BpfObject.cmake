# SPDX-License-Identifier: Apache-2.0
#
# Compiling eBPF objects. They depend neither on the machine that builds them nor on its kernel; only
# the integer types of the kernel's headers are taken from the host, and those are the same
# everywhere.
find_program(BPF_CLANG NAMES clang clang-14 REQUIRED)
find_program(BPF_STRIP NAMES llvm-strip llvm-strip-14 REQUIRED)
find_program(BPFTOOL NAMES bpftool REQUIRED)
find_path(BPF_ASM_INCLUDE_DIR asm/types.h
          PATHS /usr/include/${CMAKE_LIBRARY_ARCHITECTURE} /usr/include/x86_64-linux-gnu
                /usr/include/aarch64-linux-gnu /usr/include/arm-linux-gnueabihf
          REQUIRED)

# tesubpf_add_bpf_object(SOURCE OUTPUT): compiles SOURCE, a path from the project's root, to OUTPUT.
# DWARF is stripped, the type information that describes the maps stays. No path of the host gets in.
function(tesubpf_add_bpf_object source output)
  get_filename_component(name ${source} NAME_WE)
  set(depfile ${CMAKE_CURRENT_BINARY_DIR}/${name}.d)
  add_custom_command(
    OUTPUT ${output}
    COMMAND ${BPF_CLANG} -O2 -g -target bpfel -mcpu=v3 -ffreestanding
            -Wall -Wextra -Werror -Wno-unused-parameter
            -ffile-prefix-map=${PROJECT_SOURCE_DIR}=/tesubpf
            -I${PROJECT_SOURCE_DIR} -idirafter ${BPF_INCLUDE_DIR}
            -idirafter ${BPF_ASM_INCLUDE_DIR}
            -MD -MF ${depfile} -MT ${output}
            -c ${PROJECT_SOURCE_DIR}/${source} -o ${output}
    COMMAND ${BPF_STRIP} -g ${output}
    DEPENDS ${PROJECT_SOURCE_DIR}/${source}
    DEPFILE ${depfile}
    COMMENT "Building eBPF object ${source}"
    VERBATIM
  )
endfunction()

# tesubpf_add_bpf_skeleton(SOURCE OUTPUT): compiles SOURCE and makes OUTPUT of it, a header with the
# object's bytes. Its functions are named after the source.
function(tesubpf_add_bpf_skeleton source output)
  get_filename_component(name ${source} NAME_WE)
  set(object ${CMAKE_CURRENT_BINARY_DIR}/${name}.bpf.o)
  tesubpf_add_bpf_object(${source} ${object})
  add_custom_command(
    OUTPUT ${output}
    COMMAND sh -c "\"$1\" gen skeleton \"$2\" name \"$3\" >\"$4\"" sh
            ${BPFTOOL} ${object} ${name} ${output}
    DEPENDS ${object}
    COMMENT "Generating eBPF skeleton ${name}"
    VERBATIM
  )
endfunction()
