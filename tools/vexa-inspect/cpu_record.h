// The CPU collector's record (client 2, record version 6): samples one behind the other.
// docs/formats.md describes the bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

// Marks in a sample for a value that could not be read.
inline constexpr uint8_t CPU_BRIGHTNESS_UNKNOWN = 0xFC;  // also what 252 to 255 look like
inline constexpr uint8_t CPU_CAPACITY_UNKNOWN = 127;
inline constexpr int32_t CPU_TEMP_UNKNOWN = static_cast<int32_t>(0xDEADBEEF);

// Largest process load that the record can hold; more is written as this.
inline constexpr uint16_t CPU_LOAD_X500_MAX = 65535;

struct cpu_record_times {
    enum counter { USER, NICE, SYSTEM, IDLE, IOWAIT, IRQ, SOFTIRQ, COUNTERS };
    std::array<uint32_t, COUNTERS> ticks{};  // since boot; all zero: the CPU was offline
};

struct cpu_record_zone {
    std::string name;
    int32_t temp_mdegc = 0;
};

struct cpu_record_network_entry {
    uint8_t interface_class = 0;  // 1 wlan, 2 rmnet, 3 r_rmnet; 0: an unused row of a process
    uint16_t uid = 0;
    uint8_t counter_set = 0;  // 0 background, 1 foreground
    uint32_t rx_bytes = 0;
    uint32_t tx_bytes = 0;
};

struct cpu_record_process {
    std::string name;
    uint16_t load_x500 = 0;    // clock ticks a scan, times 500
    uint8_t cpuset_class = 0;  // 0 foreground, 1 background or system, 2 top application, 3 other
    std::vector<cpu_record_network_entry> network;  // the used ones of its four rows
};

struct cpu_record_sample {
    uint32_t uptime_100ms = 0;
    std::optional<int16_t> timezone_min;  // there when it changed since the sample before
    std::vector<cpu_record_times> times;  // per CPU
    std::vector<uint32_t> freq_khz;       // per CPU
    int32_t charge_counter_uah = 0;
    uint8_t brightness = 0;  // 0 to 252 in steps of 4
    uint8_t capacity_percent = 0;
    uint8_t charge_status = 0;
    std::vector<cpu_record_zone> thermal_zones;
    std::vector<cpu_record_network_entry> network;
    std::vector<cpu_record_process> processes;
};

struct cpu_record {
    // Bytes in front of the first whole sample. There are some only in a record that was begun
    // before the wall clock was set: its first line was rewritten with another length, over the
    // first sample.
    size_t skipped_bytes = 0;
    std::vector<cpu_record_sample> samples;
};

// Decodes a whole payload. Throws upload_error with the offset of the field that does not fit.
cpu_record cpu_record_decode(std::span<const uint8_t> payload);

// Share of the time between two samples that a CPU was busy, in per cent; nothing when it was
// offline in either or no tick has passed.
std::optional<double> cpu_load_percent(const cpu_record_times& before,
                                       const cpu_record_times& after);

// A process's load in per cent of one CPU, taking its scans to be 10 s apart and a clock tick 10
// ms.
double cpu_process_load_percent(uint16_t load_x500);
