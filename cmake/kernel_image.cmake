# SPDX-License-Identifier: GPL-2.0
# tarn_kernel_image(NAME OBJECTS target...)
#
# Links the objects of kernel-side object libraries into one relocatable object in which only the names that
# begin with uk_ stay global, and makes an object library NAME of it. Everything else (printk, mount,
# gmtime_r, snprintf, ...) becomes local, so that no kernel name meets one of libc or of another library.

# GNU's, also where a compiler brings its own: only they resolve section groups in a relocatable link. Those for the machine
# that is built for, if it is another one.
find_program(TARN_LD NAMES ${CMAKE_LIBRARY_ARCHITECTURE}-ld.bfd ld.bfd ld REQUIRED)
find_program(TARN_OBJCOPY NAMES ${CMAKE_LIBRARY_ARCHITECTURE}-objcopy objcopy REQUIRED)

function(tarn_kernel_image name)
  cmake_parse_arguments(arg "" "" "OBJECTS" ${ARGN})
  set(inputs)
  foreach(target ${arg_OBJECTS})
    list(APPEND inputs $<TARGET_OBJECTS:${target}>)
  endforeach()
  set(whole ${CMAKE_CURRENT_BINARY_DIR}/${name}.whole.o)
  set(image ${CMAKE_CURRENT_BINARY_DIR}/${name}.image.o)
  add_custom_command(OUTPUT ${image}
    COMMAND ${TARN_LD} -r --force-group-allocation -o ${whole} ${inputs}
    COMMAND ${TARN_OBJCOPY} --wildcard --keep-global-symbol=uk_* ${whole} ${image}
    DEPENDS ${inputs} ${arg_OBJECTS} COMMAND_EXPAND_LISTS VERBATIM)
  add_custom_target(${name}_object DEPENDS ${image})
  add_library(${name} INTERFACE)
  add_dependencies(${name} ${name}_object)
  target_link_libraries(${name} INTERFACE ${image})
endfunction()
