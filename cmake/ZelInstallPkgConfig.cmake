# Runs at install time: installs one .pc file (zelcapi.pc, zelcapi_sqlite.pc, zelcapi_postgres.pc)
# into the libdir of the prefix being installed. When that libdir is not one the toolchain and the
# dynamic linker search anyway, Libs also gets a run path to it, so that a client linked through
# pkg-config starts without LD_LIBRARY_PATH.
# Set before inclusion: zel_pc_file, zel_libdir (relative), zel_system_libdirs.
set(zel_pc_libdir "${CMAKE_INSTALL_PREFIX}/${zel_libdir}")
file(READ "${zel_pc_file}" zel_pc)
list(FIND zel_system_libdirs "${zel_pc_libdir}" zel_pc_system)
if(zel_pc_system EQUAL -1)
  string(REPLACE "-L\${libdir} " "-L\${libdir} -Wl,-rpath,\${libdir} " zel_pc "${zel_pc}")
endif()
get_filename_component(zel_pc_out_dir "${zel_pc_file}" DIRECTORY)
get_filename_component(zel_pc_name "${zel_pc_file}" NAME)
file(WRITE "${zel_pc_out_dir}/install/${zel_pc_name}" "${zel_pc}")
file(INSTALL DESTINATION "${zel_pc_libdir}/pkgconfig" TYPE FILE
  FILES "${zel_pc_out_dir}/install/${zel_pc_name}")
