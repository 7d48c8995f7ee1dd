# Packages that the host tools, tests and benchmarks use; scripts/setup installs them.
find_package(GTest REQUIRED)
find_package(benchmark REQUIRED)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(fmt REQUIRED)
find_package(ZLIB REQUIRED)
