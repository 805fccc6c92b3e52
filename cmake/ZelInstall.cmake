# Installs the CMake package (find_package(zelcapi CONFIG) -> zelcapi::zelcapi and
# zelcapi::zelcapi_sqlite) and the pkg-config files zelcapi.pc and zelcapi_sqlite.pc.
include(CMakePackageConfigHelpers)

install(EXPORT zelcapi-targets
  NAMESPACE zelcapi::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelcapi)
configure_package_config_file(cmake/zelcapi-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelcapi)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/zelcapi-config-version.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zelcapi)

configure_file(cmake/zelcapi.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zelcapi.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelcapi.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

configure_file(cmake/zelcapi_sqlite.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zelcapi_sqlite.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelcapi_sqlite.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
