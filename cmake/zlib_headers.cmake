# For a phone only static libraries are built, so zlib's headers are enough: those of this machine,
# which are the same for every architecture, in a directory of their own (a cross compiler must not see
# the rest of /usr/include). On the phone the platform's own zlib stands behind them.
find_path(ZLIB_HEADERS zlib.h PATHS /usr/include NO_DEFAULT_PATH REQUIRED)
foreach(header zlib.h zconf.h)
  configure_file(${ZLIB_HEADERS}/${header} ${PROJECT_BINARY_DIR}/zlib/${header} COPYONLY)
endforeach()
add_library(ZLIB::ZLIB INTERFACE IMPORTED GLOBAL)
target_include_directories(ZLIB::ZLIB SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/zlib)
