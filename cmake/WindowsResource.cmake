# windows_resource(TARGET DESCRIPTION [UTF8]): the project's version, which Windows shows of the file.
#
# With UTF8 the code page of the program's process is UTF-8, from Windows 10, version 1903, on, so
# that narrow paths have all characters. A program that starts a service, and the service, do without:
# both compose the path of the service's socket in their code page, and it must be the same one as
# that of any drive application.
if(WIN32)
  enable_language(RC)
endif()

function(windows_resource target DESCRIPTION)
  if(NOT WIN32)
    return()
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(FILE ${target}.exe)
    set(KIND VFT_APP)
  else()
    set(FILE lib${target}.dll)
    set(KIND VFT_DLL)
  endif()
  set(MANIFEST "")
  if("UTF8" IN_LIST ARGN)
    set(MANIFEST "1 24 \"${PROJECT_SOURCE_DIR}/cmake/utf8.manifest\"")
  endif()
  string(REPLACE "." "," NUMBERS "${PROJECT_VERSION}.0")
  set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/resource.rc.in ${resource} @ONLY)
  set_source_files_properties(${resource} PROPERTIES
                              OBJECT_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/utf8.manifest)
  target_sources(${target} PRIVATE ${resource})
endfunction()
