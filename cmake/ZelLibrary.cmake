# zel_add_library(NAME SOURCES ... [PUBLIC_DEPS ...] [PRIVATE_DEPS ...])
# Builds one shared library of the project: SONAME, hidden symbols, a generated export header
# <NAME/export.h>, headers under include/, an $ORIGIN run path, an install rule in the
# zelcapi package and a Debian runtime package of its own.
include(GenerateExportHeader)

set(ZEL_EXPORTED_TARGETS "" CACHE INTERNAL "")

function(zel_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(zelcapi::${name} ALIAS ${name})
  generate_export_header(${name}
    EXPORT_FILE_NAME ${CMAKE_CURRENT_BINARY_DIR}/include/${name}/export.h)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${CMAKE_CURRENT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${ARG_PUBLIC_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  # Calls inside a library bind to the library itself: no PLT hops on hot paths.
  target_compile_options(${name} PRIVATE -fno-semantic-interposition)
  target_link_options(${name} PRIVATE -Wl,-Bsymbolic-functions)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    INSTALL_RPATH "${ZEL_LIBRARY_INSTALL_RPATH}")
  # The shared object goes to the library's own runtime package (cmake/ZelPackage.cmake), the
  # link name and the headers to the development package.
  install(TARGETS ${name} EXPORT zelcapi-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${name} NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${name})
  install(DIRECTORY include/ ${CMAKE_CURRENT_BINARY_DIR}/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
  set_property(GLOBAL APPEND PROPERTY ZEL_LIBRARIES ${name})
endfunction()
