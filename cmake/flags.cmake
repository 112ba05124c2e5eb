# SPDX-License-Identifier: GPL-2.0
# Two worlds of objects. Hosted ones (tarnd, client, tools, tests) use the standard library. Kernel-side
# ones (module/, ukern/ but for ukern/host) see no header of the host at all: only the compiler's own.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

add_library(tarn_hosted INTERFACE)
target_compile_options(tarn_hosted INTERFACE -Wall -Wextra -Werror)
# Who may touch what under which lock: base/mutex.h.
target_compile_options(tarn_hosted INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
target_include_directories(tarn_hosted INTERFACE ${CMAKE_SOURCE_DIR})
target_link_libraries(tarn_hosted INTERFACE Threads::Threads)

execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include
  OUTPUT_VARIABLE compiler_include OUTPUT_STRIP_TRAILING_WHITESPACE)

add_library(tarn_kernel_side INTERFACE)
target_compile_options(tarn_kernel_side INTERFACE
  -ffreestanding -nostdinc -nostdinc++ -fno-exceptions -fno-rtti -fno-threadsafe-statics
  -fno-use-cxa-atexit -fno-asynchronous-unwind-tables -fno-unwind-tables -fno-omit-frame-pointer
  -fno-stack-protector -fno-strict-aliasing -fno-delete-null-pointer-checks -fno-common
  -Wall -Wextra -Wno-missing-field-initializers -Werror) # operation tables leave slots empty
# A unique symbol cannot be made local, and tarn_kernel_image makes local what it can.
target_compile_options(tarn_kernel_side INTERFACE $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)
# A time stamp is of a class type; nothing in C calls what returns one.
target_compile_options(tarn_kernel_side INTERFACE $<$<CXX_COMPILER_ID:Clang>:-Wno-return-type-c-linkage>)
# Given as an option because cmake drops the compiler's own folder from include directories.
target_compile_options(tarn_kernel_side INTERFACE "SHELL:-isystem ${compiler_include}")

if(TARN_SANITIZE)
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARN_SANITIZE})
  if(TARN_SANITIZE MATCHES undefined)
    add_compile_options(-fno-sanitize-recover=undefined)
    target_compile_options(tarn_kernel_side INTERFACE -fno-sanitize=vptr)
  endif()
endif()

# Fuzzers are steered by what every object counts (fuzz/CMakeLists.txt).
option(TARN_FUZZ "instrument every object for libFuzzer and build the fuzzers (clang)" OFF)
if(TARN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    message(FATAL_ERROR "TARN_FUZZ needs clang")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# The checks of a debug kernel: on wherever tests run, off in what is shipped.
if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(tarn_kernel_side INTERFACE UKERN_DEBUG=1)
else()
  target_compile_definitions(tarn_kernel_side INTERFACE UKERN_DEBUG=0)
endif()
