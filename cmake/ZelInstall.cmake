# Installs the CMake package (find_package(zelcapi CONFIG) -> zelcapi::zelcapi and
# zelcapi::zelcapi_sqlite, zelcapi::zelcapi_postgres) and the pkg-config files zelcapi.pc,
# zelcapi_sqlite.pc and zelcapi_postgres.pc.
include(CMakePackageConfigHelpers)

install(EXPORT zelcapi-targets
  NAMESPACE zelcapi::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelcapi
  COMPONENT dev)
configure_package_config_file(cmake/zelcapi-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelcapi)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelcapi
  COMPONENT dev)

# The .pc file finds its prefix from its own place, so that an installed tree can be moved.
file(RELATIVE_PATH ZEL_PC_PREFIX_FROM_PCDIR
  "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" ZEL_PC_PREFIX_FROM_PCDIR "${ZEL_PC_PREFIX_FROM_PCDIR}")
set(zel_system_libdirs
  ${CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES} ${CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES})
list(REMOVE_DUPLICATES zel_system_libdirs)
foreach(zel_pc zelcapi zelcapi_sqlite zelcapi_postgres)
  configure_file(cmake/${zel_pc}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${zel_pc}.pc @ONLY)
  install(CODE "
    set(zel_pc_file \"${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/${zel_pc}.pc\")
    set(zel_libdir \"${CMAKE_INSTALL_LIBDIR}\")
    set(zel_system_libdirs \"${zel_system_libdirs}\")"
    COMPONENT dev)
  install(SCRIPT cmake/ZelInstallPkgConfig.cmake COMPONENT dev)
endforeach()
