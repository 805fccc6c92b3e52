# Run paths: installed programs and libraries find the project's libraries relative to their own
# place ($ORIGIN), so a prefix works wherever it is put; the build tree keeps absolute run paths.
file(RELATIVE_PATH zel_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
# Every target's default: a program in bindir looks in libdir. zel_add_library gives libraries
# ZEL_LIBRARY_INSTALL_RPATH instead: their own directory.
set(CMAKE_INSTALL_RPATH "$ORIGIN/${zel_bin_to_lib}")
set(ZEL_LIBRARY_INSTALL_RPATH "$ORIGIN")
