// What the kernel says of the cores: how many there are, what they spent their time on, how fast
// they run. All functions: the collector's thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// Cores that a phone can have; a larger number is taken as damage.
inline constexpr int32_t MAX_CPU_COUNT = 1024;

// Clock ticks since boot, as in the first seven columns of a core's line of "/proc/stat".
struct cpu_times {
    uint32_t user = 0;
    uint32_t nice = 0;
    uint32_t system = 0;
    uint32_t idle = 0;
    uint32_t iowait = 0;
    uint32_t irq = 0;
    uint32_t softirq = 0;
};

// Path of a core's current frequency.
struct cpu_frequency_path {
    char text[64];
};
cpu_frequency_path cpu_frequency_path_of(int32_t cpu);

// The number of cores that can exist, from "/sys/devices/system/cpu/possible", or -1, logged.
int32_t read_cpu_count();

// The number of cores in a list such as "0-7": the number behind the first dash, plus one. Returns
// -1 when there is none, as in the list "0" of a single core, or when it is absurd.
int32_t parse_cpu_possible(std::string_view text);

// Fills the slots of the cores that have a line in "/proc/stat"; the others (offline) keep what
// they have. Returns 0, or -EINVAL, logged.
int read_cpu_times(cpu_times* slots, int32_t cpu_count);

enum class cpu_line {
    STORED,
    OTHER,  // not the line of a core that has a slot
    INVALID,
};

// Parses one line of "/proc/stat" into the slot of the core that it names.
cpu_line parse_cpu_line(std::string_view line, cpu_times* slots, int32_t cpu_count);

// Reads a core's current frequency in kHz; 0 where the file does not hold a number. Returns 0, or
// -EINVAL, logged.
int read_cpu_frequency(int32_t cpu, int32_t* frequency_kHz);
