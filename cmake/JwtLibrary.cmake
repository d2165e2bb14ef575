# The target sso_jwt: whatever gives <jwt-cpp/jwt.h>. An installed jwt-cpp is taken where there is one; otherwise the
# project's compat/jwt-cpp/jwt.h stands in, which offers what the service calls on top of libjwt.
add_library(sso_jwt INTERFACE)

find_package(jwt-cpp CONFIG QUIET)
if(TARGET jwt-cpp::jwt-cpp)
  target_link_libraries(sso_jwt INTERFACE jwt-cpp::jwt-cpp)
  message(STATUS "JWT: installed jwt-cpp ${jwt-cpp_VERSION} (CMake package)")
  return()
endif()

find_path(JWT_CPP_INCLUDE_DIR jwt-cpp/jwt.h)
if(JWT_CPP_INCLUDE_DIR)
  target_include_directories(sso_jwt SYSTEM INTERFACE ${JWT_CPP_INCLUDE_DIR})
  message(STATUS "JWT: installed jwt-cpp (header in ${JWT_CPP_INCLUDE_DIR})")
  return()
endif()

find_path(LIBJWT_INCLUDE_DIR jwt.h)
find_library(LIBJWT_LIBRARY jwt)
if(NOT LIBJWT_INCLUDE_DIR OR NOT LIBJWT_LIBRARY)
  message(FATAL_ERROR "JWT: neither jwt-cpp nor libjwt (libjwt-dev) is installed")
endif()
target_include_directories(sso_jwt INTERFACE ${PROJECT_SOURCE_DIR}/compat)
target_include_directories(sso_jwt SYSTEM INTERFACE ${LIBJWT_INCLUDE_DIR})
target_link_libraries(sso_jwt INTERFACE ${LIBJWT_LIBRARY})
message(STATUS "JWT: compat/jwt-cpp/jwt.h on libjwt (${LIBJWT_LIBRARY})")
