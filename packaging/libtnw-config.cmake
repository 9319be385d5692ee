# find_package(libtnw) defines two targets: libtnw::tnw, the library, and libtnw::tarnd, the service.
# The package may lie in any folder.
#
# A program needs the DLL beside it, which $<TARGET_FILE:libtnw::tnw> names, and tells tnw_init where
# the service is.
if(TARGET libtnw::tnw)
  return()
endif()
get_filename_component(_libtnw "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)
set(_libtnw_import libtnw.dll.a)
if(MSVC)
  set(_libtnw_import tnw.lib)
endif()
add_library(libtnw::tnw SHARED IMPORTED)
set_target_properties(libtnw::tnw PROPERTIES
  IMPORTED_LOCATION "${_libtnw}/bin/libtnw.dll"
  IMPORTED_IMPLIB "${_libtnw}/lib/${_libtnw_import}"
  INTERFACE_INCLUDE_DIRECTORIES "${_libtnw}/include/libtnw")
add_executable(libtnw::tarnd IMPORTED)
set_target_properties(libtnw::tarnd PROPERTIES IMPORTED_LOCATION "${_libtnw}/bin/tarnd.exe")
unset(_libtnw)
unset(_libtnw_import)
