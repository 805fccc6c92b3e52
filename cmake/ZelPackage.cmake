# Debian packages through CPack, split as Debian splits a library: one runtime package per
# shared library, named after its SONAME (libzelcapi0), a development package (headers, link
# names, CMake package, pkg-config file) and a tools package (the installed programs).
# `cmake --workflow --preset package` builds them; docs/packaging.md explains the choices.
get_property(zel_libraries GLOBAL PROPERTY ZEL_LIBRARIES)

# The project's libraries that `target` links directly.
function(zel_linked_libraries target out)
  get_target_property(linked ${target} LINK_LIBRARIES)
  set(found "")
  foreach(lib IN LISTS linked)
    string(REGEX REPLACE "^zelcapi::" "" lib "${lib}")
    if(lib IN_LIST zel_libraries)
      list(APPEND found ${lib})
    endif()
  endforeach()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

# The programs defined below code/ in `dir` and its subdirectories: the tools package's.
function(zel_programs dir out)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  set(found "")
  foreach(target IN LISTS targets)
    get_target_property(type ${target} TYPE)
    get_target_property(source_dir ${target} SOURCE_DIR)
    if(type STREQUAL "EXECUTABLE" AND source_dir MATCHES "^${PROJECT_SOURCE_DIR}/code/")
      list(APPEND found ${target})
    endif()
  endforeach()
  foreach(subdir IN LISTS subdirs)
    zel_programs(${subdir} below)
    list(APPEND found ${below})
  endforeach()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

# Debian's name for the runtime package of a library: lib<name><soversion>, '_' as '-', and a
# '-' before the soversion when the name ends in a digit.
function(zel_debian_library_package library out)
  get_target_property(soversion ${library} SOVERSION)
  string(REPLACE "_" "-" package "lib${library}")
  if(package MATCHES "[0-9]$")
    string(APPEND package "-")
  endif()
  set(${out} "${package}${soversion}" PARENT_SCOPE)
endfunction()

# Every package carries the copyright file and the changelog under /usr/share/doc/<package>;
# a prefix install (no component given) leaves them out.
configure_file(packaging/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog @ONLY)
execute_process(COMMAND gzip -9nc
  INPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog
  OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz
  COMMAND_ERROR_IS_FATAL ANY)
macro(zel_package component package section summary description)
  string(TOUPPER ${component} zel_upper)
  set(CPACK_DEBIAN_${zel_upper}_PACKAGE_NAME ${package})
  set(CPACK_DEBIAN_${zel_upper}_PACKAGE_SECTION ${section})
  set(CPACK_DEBIAN_${zel_upper}_DESCRIPTION "${summary}\n${description}")
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  install(FILES packaging/copyright ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endmacro()

# Extended descriptions: lines of less than 80 characters.
set(zel_about "zelcapi is the C++ client library of a cluster job and workflow system:
connection, login, requests, a replica of the cluster state and its workflows.")
set(CPACK_COMPONENTS_ALL "")
foreach(library IN LISTS zel_libraries)
  zel_debian_library_package(${library} package)
  zel_package(${library} ${package} libs "zelcapi: the ${library} shared library"
    "${zel_about}\nThis package holds the shared library ${library}.")
  zel_linked_libraries(${library} depends)
  string(TOUPPER ${library} upper)
  set(CPACK_COMPONENT_${upper}_DEPENDS ${depends})
  # A library in the linker's directories: ldconfig runs once, through its trigger.
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
endforeach()

zel_package(dev libzelcapi-dev libdevel "zelcapi: development files"
  "${zel_about}\nThis package holds the headers, the CMake package\n\
(find_package(zelcapi)) and the pkg-config file.")
set(CPACK_COMPONENT_DEV_DEPENDS ${zel_libraries})
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost-dev")

zel_package(tools zelcapi-tools utils "zelcapi: command line tools"
  "${zel_about}\nThis package holds the programs: zelctl, the command line client, and zelsim, a\nsimulated cluster.")
zel_programs(${PROJECT_SOURCE_DIR} programs)
set(CPACK_COMPONENT_TOOLS_DEPENDS "")
foreach(program IN LISTS programs)
  zel_linked_libraries(${program} depends)
  list(APPEND CPACK_COMPONENT_TOOLS_DEPENDS ${depends})
endforeach()
list(REMOVE_DUPLICATES CPACK_COMPONENT_TOOLS_DEPENDS)

if(ZEL_PYTHON_BUILT)
  zel_package(python python3-zelcapi python "zelcapi: Python 3 module"
    "${zel_about}\nThis package holds the Python 3 module zelcapi, with its asyncio\nsupport and type stubs.")
  set(CPACK_COMPONENT_PYTHON_DEPENDS zelcapi zelcapi_sqlite)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= ${zel_python_version}~), python3 (<< ${zel_python_next}~)")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zelcapi)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zelcapi maintainers <maintainers@zelcapi.example>")
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Dependencies on other packages of the distribution from dpkg-shlibdeps; among ours, from the
# link graph above, at this exact version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# dpkg-shlibdeps must find our own libraries to read the programs: CPack stages each component
# in a directory of its own before it makes any package.
set(CPACK_PACKAGE_FILE_NAME zelcapi)
foreach(library IN LISTS zel_libraries)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "${CMAKE_BINARY_DIR}/_CPack_Packages/${CMAKE_SYSTEM_NAME}/DEB/zelcapi/${library}${CMAKE_INSTALL_FULL_LIBDIR}")
endforeach()
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Each runtime package declares its library (DEBIAN/shlibs) for the packages built against it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
# Installs into DESTDIR with the real prefix, so that install-time code sees /usr.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
