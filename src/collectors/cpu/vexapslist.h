// The table of processes seen by the periodic scan, with a smoothed CPU load for each, in ascending
// PID order. A table belongs to one thread, the CPU collector's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/unique_handle.h"
#include "collectors/cpu/network_stats.h"

// Cpuset classes of a process.
enum cpuset_class : uint8_t {
    CPUSET_FOREGROUND = 0,
    CPUSET_BACKGROUND = 1,  // or system
    CPUSET_TOP_APP = 2,
    CPUSET_OTHER = 3,
};

struct vexa_proc_entry {
    int32_t pid;
    int32_t ppid;
    uint32_t uid;
    float load;          // clock ticks per scan, smoothed
    uint64_t user_time;  // clock ticks, as the next three
    uint64_t system_time;
    uint64_t child_user_time;
    uint64_t child_system_time;
    char state;
    uint8_t cpuset;  // cpuset_class
    uint8_t tick;    // scan in which the entry was last updated
    char name[256];
};
using unique_proc_entry = unique_malloc<vexa_proc_entry>;

struct proc_slot {
    int32_t pid;
    vexa_proc_entry* entry;
};

struct proc_table {
    proc_table() = default;
    ~proc_table() { clear(); }
    proc_table(const proc_table&) = delete;
    proc_table& operator=(const proc_table&) = delete;

    void clear();

    proc_slot* slots = nullptr;
    size_t count = 0;
    size_t capacity = 0;
    uint8_t tick = 0;
    // Slots before this one were looked at for their age in this scan, and stay: a scan in
    // ascending order looks at each slot once.
    size_t aged = 0;
    // An entry for reuse, so that a scan of known processes allocates nothing.
    unique_proc_entry spare{};
};

// Reserves room for the first processes.
void vexa_init_proc_tbl(proc_table* table);

// Forgets all processes and gives the table's memory back, as its end does.
void vexa_release_proc_tbl(proc_table* table);

// Begins a new scan.
void vexa_inc_proc_tbl_tick(proc_table* table);

// An entry of zeroes for vexa_insert_proc_tbl_entry; null when there is no memory.
unique_proc_entry vexa_make_proc_entry(proc_table* table);

// Merges a process that the present scan met. Of a known one only times and load are updated;
// processes of smaller PID that six scans did not meet are removed. New processes and high loads
// are traced on standard output.
void vexa_insert_proc_tbl_entry(proc_table* table, unique_proc_entry entry);

// Whether the table has the process.
int vexa_process_in_table(const proc_table& table, int32_t pid);

// Sizes (buffer null) or writes the process block: for each process its name with a zero byte, u16
// load * 500, u8 cpuset class, and four network rows of its UID from `network` (null: none).
// Writing takes the traffic of the rows out of the list, so that a UID's traffic is reported once.
// Never writes past `limit` bytes. Sets *count to the number of processes, at most 65535, and *size
// to the bytes. Returns 0, or -EINVAL for a null argument.
int vexaps_store_ps_info(const proc_table& table, uint8_t* buffer, network_list* network,
                         uint16_t* count, uint64_t* size, uint64_t limit);
