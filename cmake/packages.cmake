# Packages that the daemon on this machine, its tools, tests and benchmarks use; scripts/setup installs
# them.
find_package(GTest REQUIRED)
find_package(benchmark REQUIRED)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(fmt REQUIRED)
find_package(ZLIB REQUIRED)
find_package(nanopb CONFIG REQUIRED)
find_package(Protobuf REQUIRED)
