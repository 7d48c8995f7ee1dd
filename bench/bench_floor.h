// What the benchmarks are measured against: bare calls that do the least that a workload asks for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// Reads the record at `path`, compresses it in one zlib call, writes header room and payload into a
// new file, syncs it, deletes the record and renames the file to `dropped`.
void floor_drop(const std::string& path, const std::string& dropped);

// One write(2).
void floor_append(int fd, std::span<const uint8_t> bytes);
