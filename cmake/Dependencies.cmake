# The libraries that we call: spdlog with fmt, CLI11, nlohmann-json, Boost (header-only) and GoogleTest.
#
# Debian's headers of all but the last do not depend on the architecture, but all of /usr/include
# must not be on the cross compiler's path: each is linked alone into a folder of the build tree.
set(HEADERS_DIR ${CMAKE_BINARY_DIR}/headers)
file(MAKE_DIRECTORY ${HEADERS_DIR})

function(header_only_library name folder header)
  find_path(${name}_INCLUDE NAMES ${folder}/${header} NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  file(CREATE_LINK ${${name}_INCLUDE}/${folder} ${HEADERS_DIR}/${folder} SYMBOLIC)
  add_library(${name} INTERFACE)
  target_include_directories(${name} SYSTEM INTERFACE ${HEADERS_DIR})
endfunction()

header_only_library(fmt_headers fmt core.h)
target_compile_definitions(fmt_headers INTERFACE FMT_HEADER_ONLY)
header_only_library(spdlog_headers spdlog spdlog.h)
target_compile_definitions(spdlog_headers INTERFACE SPDLOG_FMT_EXTERNAL)
target_link_libraries(spdlog_headers INTERFACE fmt_headers)
header_only_library(cli11_headers CLI CLI.hpp)
header_only_library(json_headers nlohmann json.hpp)
header_only_library(boost_headers boost version.hpp)

# Debian has GoogleTest as sources, which are compiled like the tests; MSYS2 has it as a package. It
# is compiled without optimisation and without debug information, which takes only seconds.
set(GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources")
if(EXISTS ${GOOGLETEST_SOURCE})
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory(${GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  foreach(library gtest gtest_main gmock gmock_main)
    target_compile_options(${library} PRIVATE -O0 -g0)
  endforeach()
else()
  find_package(GTest REQUIRED)
endif()
