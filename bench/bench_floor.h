// What the benchmarks are measured against: bare calls that do the least that a workload asks for.
#pragma once

#include <dirent.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// Reads the record at `path`, compresses it in one zlib call, writes header room and payload into a
// new file, syncs it, deletes the record and renames the file to `dropped`.
void floor_drop(const std::string& path, const std::string& dropped);

// One write(2).
void floor_append(int fd, std::span<const uint8_t> bytes);

// Reads, of every process that "/proc" lists, the files that a scan has to read: its stat, its
// cpuset unless that is known to be the root, and for a new process its cmdline and status too.
class floor_scanner {
  public:
    void scan(DIR* proc, bool all_new);

  private:
    void read_cpuset(int proc_fd, const char* name);

    // PIDs known to be in the root cpuset; a slice is forgotten after each scan.
    std::array<bool, 8192> in_root_{};
    size_t forget_at_ = 0;
};

// Reads every file that goes into a sample of a phone of `cpus` CPUs, and writes as many bytes as
// it takes to `fd`.
void floor_sample(int fd, int cpus);
