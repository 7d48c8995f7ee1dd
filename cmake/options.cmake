# Compiler settings that every target shares.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -g")

find_package(Threads REQUIRED)

add_compile_options(-Wall -Wextra -Wshadow -Wformat=2 -fno-omit-frame-pointer -fstack-protector-strong)
add_compile_definitions(_GNU_SOURCE)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # libstdc++'s own mutexes carry no annotations; the daemon's wrappers in base/sync.h do.
  add_compile_options(-Wthread-safety)
endif()
if(VEXA_SANITIZE)
  add_compile_options(-fsanitize=${VEXA_SANITIZE} -fno-sanitize-recover=all -O1)
  add_link_options(-fsanitize=${VEXA_SANITIZE})
endif()
if(VEXA_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)  # the code under test tells the fuzzer its coverage
endif()

# The daemon's own code is compiled without exceptions and RTTI; tools and tests use both. The type is
# STATIC, or OBJECT for what has to be linked whole.
function(vexa_daemon_library name)
  cmake_parse_arguments(L "OBJECT" "" "" ${ARGN})
  if(L_OBJECT)
    add_library(${name} OBJECT ${L_UNPARSED_ARGUMENTS})
  else()
    add_library(${name} STATIC ${L_UNPARSED_ARGUMENTS})
  endif()
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR})
  target_compile_options(${name} PRIVATE -fno-exceptions -fno-rtti)
  target_link_libraries(${name} PUBLIC platform_headers Threads::Threads)
  if(NOT name STREQUAL "base")
    target_link_libraries(${name} PUBLIC base)
  endif()
endfunction()
