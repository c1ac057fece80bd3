# SPDX-License-Identifier: Apache-2.0
#
# Builds 32-bit x86 programs with this machine's compiler, against the Debian packages that
# scripts/sysroot unpacks. They run as they are, with the libraries they were linked with.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/deps/i386-sysroot)
cmake_path(NORMAL_PATH CMAKE_SYSROOT)
if(NOT EXISTS ${CMAKE_SYSROOT}/made-of)
  message(FATAL_ERROR "No packages for 32-bit x86: run scripts/install-deps --i386 first")
endif()

# The compiler without its own 32-bit half, which is in the root folder too.
set(CMAKE_CXX_COMPILER g++-12)
set(gcc_directory ${CMAKE_SYSROOT}/usr/lib/gcc/i686-linux-gnu/12)
set(library_directory ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
string(CONCAT CMAKE_CXX_FLAGS_INIT
  "-m32 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64 -B${gcc_directory} -B${library_directory} -nostdinc++"
  " -isystem ${CMAKE_SYSROOT}/usr/include/c++/12"
  " -isystem ${CMAKE_SYSROOT}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}/c++/12"
  " -isystem ${CMAKE_SYSROOT}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}")
string(CONCAT CMAKE_EXE_LINKER_FLAGS_INIT
  "-L${gcc_directory} -L${library_directory} -Wl,--dynamic-linker=${CMAKE_SYSROOT}/lib/ld-linux.so.2"
  " -Wl,--disable-new-dtags,-rpath,${library_directory}:${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}")

set(CMAKE_FIND_ROOT_PATH ${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
