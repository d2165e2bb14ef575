# In every build: what is bound at its first use instead leaves registers on the stack, with parts of a key in them.
add_link_options(-Wl,-z,now)

# What makes a release harder to attack. Other builds leave it out: _FORTIFY_SOURCE needs optimisation, the sanitizers
# watch over the same things, and debuggers and coverage show the code as it is written.
if(SSO_SANITIZERS OR NOT CMAKE_BUILD_TYPE MATCHES "^(Release|RelWithDebInfo|MinSizeRel)$")
  return()
endif()

include(CheckCCompilerFlag)
include(CheckPIESupported)

# Loaded at an address of its own each time. CMake links position-independent executables only after this check.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
get_property(languages GLOBAL PROPERTY ENABLED_LANGUAGES)
list(REMOVE_ITEM languages ASM NONE)
check_pie_supported(LANGUAGES ${languages})

# A write beyond a buffer on the stack ends the process when the function returns.
add_compile_options(-fstack-protector-strong)

# Calls that write into a buffer of known size end the process when they would go beyond it. Whoever builds may have
# asked for another level.
if(NOT "${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "_FORTIFY_SOURCE")
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# -fstack-clash-protection: a frame of more than a page is touched page by page, so that it cannot leap the guard page
# (not in clang for ARM). -fcf-protection: marks where indirect jumps may lead (x86 alone).
set(CMAKE_REQUIRED_FLAGS -Werror)
foreach(flag -fstack-clash-protection -fcf-protection)
  string(MAKE_C_IDENTIFIER "SSO_HAVE${flag}" known)
  check_c_compiler_flag(${flag} ${known})
  if(${known})
    add_compile_options(${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)

# What was bound at the start cannot be written any more.
add_link_options(-Wl,-z,relro)
