# The warnings that all of the project's own code is compiled with. -Wshadow keeps a name's meaning in one place,
# -Wconversion makes every narrowing visible (32-bit sizes and times), the rest is the compilers' common ground. clang
# also proves what src/util/Mutex.h says about locks: nothing that a mutex guards is touched without it.
add_library(sso_warnings INTERFACE)
target_compile_options(sso_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wformat=2 $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes -Wmissing-prototypes>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Werror=thread-safety>)
if(SSO_WARNINGS_AS_ERRORS)
  target_compile_options(sso_warnings INTERFACE -Werror)
endif()
