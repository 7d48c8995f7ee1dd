// Data and places that the benchmarks share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using byte_vector = std::vector<uint8_t>;

// CPU samples as a phone of eight CPUs and thirty thermal zones would give them: counters that
// grow, temperatures that wander. The same at every call.
std::vector<byte_vector> bench_cpu_samples(size_t count);

// `size` bytes of CPU samples, of log-like text, and of noise that does not compress.
byte_vector bench_cpu_bytes(size_t size);
byte_vector bench_text_bytes(size_t size);
byte_vector bench_noise_bytes(size_t size);

// Cores of the phone that the benchmarks run in.
inline constexpr int BENCH_PHONE_CPUS = 8;

// Enters a fresh phone with this machine's processes. To be called first. Throws std::exception.
void bench_enter_phone();

// A folder for the benchmarks' files, gone when the program ends: in TMPDIR, or else in the phone's
// memory, where syncing costs nothing and the figures are the code's own.
const std::string& bench_dir();
