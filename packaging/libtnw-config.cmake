# find_package(libtnw) defines the target libtnw::tnw. The package may lie in any folder.
#
# Programs also need bin/libtnw.dll beside them: $<TARGET_FILE:libtnw::tnw> names it.
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
unset(_libtnw)
unset(_libtnw_import)
