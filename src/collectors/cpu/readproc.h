// The periodic walk over "/proc" that fills the process table.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "collectors/cpu/vexapslist.h"

// Every cpuset class but CPUSET_OTHER, in which a phone keeps what the owner does not notice.
inline constexpr uint32_t PROC_CLASSES_REPORTED =
    1u << CPUSET_FOREGROUND | 1u << CPUSET_BACKGROUND | 1u << CPUSET_TOP_APP;

// What the walks keep from one to the next. It belongs to one thread, the CPU collector's.
struct proc_scanner {
    static constexpr size_t BITMAP_BYTES = 1024;

    proc_table table{};

    // PIDs whose cpuset was found to be the root, so that it is not read at every scan. A slice is
    // forgotten after each scan, all of it every 32 scans.
    uint8_t root_cpusets[BITMAP_BYTES] = {};
    size_t slice = 0;

    // What the walks did so far.
    uint64_t entries = 0;      // directory entries examined
    uint64_t bitmap_hits = 0;  // processes whose cpuset was known without reading it
};

// Hands every process of the listing from `dir` on (open on "/proc"; null: none) whose cpuset class
// has its bit (1 << class) in `class_mask` to the process table. Nothing is logged: what cannot be
// read stays empty. Returns 0.
int vexa_ps_readproc(proc_scanner* scanner, DIR* dir, uint32_t class_mask);

// Takes parent, state, times and, while the entry has no name, the command's name from the text of
// "/proc/<pid>/stat", as far as the text holds them. The name may hold anything, ") R 1" included.
void parse_proc_stat(std::string_view text, vexa_proc_entry* entry);

// Takes the real UID from the text of "/proc/<pid>/status", if it has one.
void parse_proc_status(std::string_view text, vexa_proc_entry* entry);

// The class of a process with that text, or its first 9 bytes, in "/proc/<pid>/cpuset".
cpuset_class parse_proc_cpuset(std::string_view text);
