# Defines the targets glib, icu_uc, pcre2, sqlite and pugixml, which pkg-config finds. For Windows
# they are static and lie in the prefix that tools/build-cross-prefix makes. On the development host
# they are the system's.
find_package(PkgConfig REQUIRED)

set(CROSS_PREFIX "")
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND ${CMAKE_SOURCE_DIR}/tools/build-cross-prefix --path
                  OUTPUT_VARIABLE CROSS_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(CROSS_PREFIX)
    set(ENV{PKG_CONFIG_LIBDIR} ${CROSS_PREFIX}/lib/pkgconfig)
  endif()
endif()

function(packaged_library target variable package)
  if(NOT "${${variable}_FOUND_IN}" STREQUAL "${CROSS_PREFIX}")
    unset(__pkg_config_checked_${variable} CACHE) # what was found lay in another prefix
  endif()
  pkg_check_modules(${variable} QUIET ${package})
  if(NOT ${variable}_FOUND)
    message(FATAL_ERROR "${package} is not there: tools/install-packages installs it for this "
                        "machine, tools/build-cross-prefix builds it for Windows")
  endif()
  set(${variable}_FOUND_IN "${CROSS_PREFIX}" CACHE INTERNAL "")
  set(kind ${variable})
  if(WIN32)
    set(kind ${variable}_STATIC)
  endif()
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} SYSTEM INTERFACE ${${kind}_INCLUDE_DIRS})
  target_compile_options(${target} INTERFACE ${${kind}_CFLAGS_OTHER})
  target_link_libraries(${target} INTERFACE ${${kind}_LDFLAGS})
endfunction()

packaged_library(glib GLIB glib-2.0)
packaged_library(icu_uc ICU_UC icu-uc)
packaged_library(pcre2 PCRE2 libpcre2-8)
packaged_library(sqlite SQLITE sqlite3)
packaged_library(pugixml PUGIXML pugixml)
