# GLib and ICU for the target, static: imported targets glib_static and icu_uc_static, found with
# pkg-config: in the prefix that tools/build-cross-prefix makes when cross-building, on the system
# otherwise (MSYS2). Where neither has them the targets do not exist.
find_package(PkgConfig)

if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND ${CMAKE_SOURCE_DIR}/tools/build-cross-prefix --path
                  OUTPUT_VARIABLE CROSS_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(CROSS_PREFIX)
    set(ENV{PKG_CONFIG_LIBDIR} ${CROSS_PREFIX}/lib/pkgconfig)
  endif()
endif()

function(static_package target variable package)
  if(NOT "${${variable}_FOUND_IN}" STREQUAL "${CROSS_PREFIX}")
    unset(__pkg_config_checked_${variable} CACHE) # what was found lay in another prefix
  endif()
  pkg_check_modules(${variable} QUIET ${package})
  if(NOT ${variable}_FOUND)
    message(STATUS "${package} is not there yet: tools/build-cross-prefix builds it")
    return()
  endif()
  set(${variable}_FOUND_IN "${CROSS_PREFIX}" CACHE INTERNAL "")
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} SYSTEM INTERFACE ${${variable}_STATIC_INCLUDE_DIRS})
  target_compile_options(${target} INTERFACE ${${variable}_STATIC_CFLAGS_OTHER})
  target_link_libraries(${target} INTERFACE ${${variable}_STATIC_LDFLAGS})
endfunction()

if(PKG_CONFIG_FOUND)
  static_package(glib_static GLIB glib-2.0)
  static_package(icu_uc_static ICU_UC icu-uc)
endif()
