# Toolchain file: 32-bit ARM, hard float, with clang and the Debian 11 root that scripts/armhf-root makes.
# ARMHF_ROOT, as a CMake or environment variable, names another root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# CMake reads this file once more for each of its try-compile projects, which do not see the cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ARMHF_ROOT)
if(NOT ARMHF_ROOT)
  set(ARMHF_ROOT $ENV{ARMHF_ROOT})
endif()
if(NOT ARMHF_ROOT)
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/armhf-root --path
    OUTPUT_VARIABLE ARMHF_ROOT OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
if(NOT IS_DIRECTORY ${ARMHF_ROOT}/usr/include)
  message(FATAL_ERROR "No root for 32-bit ARM in '${ARMHF_ROOT}': scripts/armhf-root makes one")
endif()
set(ARMHF_ROOT ${ARMHF_ROOT} CACHE PATH "Root for 32-bit ARM")  # kept when CMake runs again
set(CMAKE_SYSROOT ${ARMHF_ROOT})

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET arm-linux-gnueabihf)
set(CMAKE_CXX_COMPILER_TARGET arm-linux-gnueabihf)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT -fuse-ld=lld)
endforeach()

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${ARMHF_ROOT})
