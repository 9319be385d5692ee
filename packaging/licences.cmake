# Installs the terms of everything that is linked into the package (THIRD_PARTY.md says what is
# where), as the packages from which it comes state them, and a list of the versions.
set(LINKED_PACKAGES
  gcc-mingw-w64-x86-64-posix libboost1.74-dev libcli11-dev libfmt-dev libglib2.0-dev libicu-dev libpcre2-dev
  libpugixml-dev libspdlog-dev libsqlite3-dev mingw-w64-x86-64-dev nlohmann-json3-dev)

function(list_versions cross_prefix file)
  file(READ ${cross_prefix}/versions built)
  execute_process(COMMAND dpkg-query -W -f "\${Package} \${Version}\n" ${LINKED_PACKAGES}
                  OUTPUT_VARIABLE installed COMMAND_ERROR_IS_FATAL ANY)
  file(WRITE ${file} "Built from these source packages of Debian:\n\n${built}\n"
                     "These packages were installed:\n\n${installed}")
endfunction()

function(install_licences cross_prefix work_dir)
  set(folder ${CMAKE_INSTALL_PREFIX}/share/doc/libtnw/licenses)
  if(NOT EXISTS /usr/share/common-licenses)
    message(WARNING "This system has no packages of Debian, so the licences of the linked libraries "
                    "are left out. Add them before you pass the package on.")
    return()
  endif()
  file(INSTALL /usr/share/common-licenses/LGPL-2.1 /usr/share/common-licenses/GPL-3
       DESTINATION ${folder} FOLLOW_SYMLINK_CHAIN)
  foreach(package ${LINKED_PACKAGES})
    file(INSTALL /usr/share/doc/${package}/copyright DESTINATION ${folder}
         RENAME ${package}.txt FOLLOW_SYMLINK_CHAIN)
  endforeach()
  list_versions(${cross_prefix} ${work_dir}/versions.txt)
  file(INSTALL ${work_dir}/versions.txt DESTINATION ${folder})
endfunction()
