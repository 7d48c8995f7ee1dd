# As zlib_headers.cmake, for nanopb: on the phone the platform's own library stands behind the headers.
find_path(NANOPB_HEADERS pb_decode.h PATHS /usr/include NO_DEFAULT_PATH REQUIRED)
foreach(header pb.h pb_common.h pb_decode.h pb_encode.h)
  configure_file(${NANOPB_HEADERS}/${header} ${PROJECT_BINARY_DIR}/nanopb/${header} COPYONLY)
endforeach()
add_library(nanopb::protobuf-nanopb-static INTERFACE IMPORTED GLOBAL)
target_include_directories(nanopb::protobuf-nanopb-static SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/nanopb)
