// A phone whose processors a test keeps busy or idle, with one of the collectors that sample them.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "cpu_record.h"
#include "gpu_record.h"
#include "support/collector_phone.h"

inline constexpr char GPU_DIR[] = "/sys/class/kgsl/kgsl-3d0/";
inline constexpr char CPU_DIR[] = "/sys/devices/system/cpu/";
inline constexpr char CHARGE_COUNTER[] = "/sys/class/power_supply/bms/charge_counter";
inline constexpr char BACKLIGHT[] = "/sys/class/leds/lcd-backlight/brightness";

class sampled_phone : public collector_phone {
  public:
    static constexpr uint32_t GPU = 1, CPU = 2;

    // Two cores, a process, no zones and no traffic; two power levels; all of it idle.
    explicit sampled_phone(uint32_t client_id) : collector_phone(client_id), id_(client_id) {
        for (const char* dir : {CPU_DIR, GPU_DIR, "/sys/class/thermal", "/proc/net"}) remove(dir);
        for (const std::string& name : list_dir("/proc"))
            if (name[0] >= '1' && name[0] <= '9') remove("/proc/" + name);
        put_files({{CPU_DIR + std::string("possible"), "0-1\n"},
                   {frequency_file(0), "300000\n"},
                   {frequency_file(1), "500000\n"},
                   {"/proc/stat", "cpu 9\ncpu0 1 2 3 4 5 6 7\ncpu1 1 2 3 4 5 6 7\n"},
                   {gpu("gpu_busy_percentage"), "00%\n"},
                   {gpu("gpuclk"), "257000000\n"},
                   {gpu("num_pwrlevels"), "2\n"},
                   {gpu("gpu_available_frequencies"), "710000000 0x10 \n"},
                   {gpu("gpu_clock_stats"), "8589934593 010\n"},
                   {CHARGE_COUNTER, "-2494000\n"},
                   {"/sys/class/power_supply/battery/capacity", "83\n"},
                   {"/sys/class/power_supply/battery/status", "Discharging\n"},
                   {BACKLIGHT, "102\n"},
                   {"/proc/4242/cpuset", "/top-app\n"},
                   {"/proc/4242/cmdline", "org.example.browser"},
                   {"/proc/4242/stat", "4242 (browser) S 1 1 1 0 -1 4 5 6 7 8 10 0 0 0 20 0"},
                   {"/sys/class/thermal/"},
                   {"/proc/net/xt_qtaguid/stats", "header\n"}});
    }

    static std::string frequency_file(int core) {
        return CPU_DIR + ("cpu" + std::to_string(core)) + "/cpufreq/scaling_cur_freq";
    }
    static std::string gpu(const std::string& name) { return GPU_DIR + name; }

    // What the collector looks at, and waits for a change of.
    std::string load_file() const {
        return id_ == GPU ? gpu("gpu_busy_percentage") : frequency_file(0);
    }
    void busy() const { write(load_file(), id_ == GPU ? "37%\n" : "300001\n"); }
    void idle() const { write(load_file(), id_ == GPU ? "00%\n" : "300000\n"); }

    // When the samples of a payload, or of the record, were taken, in tenths of a second since
    // boot: "50000 50600".
    std::string stamps(const std::string& payload) const {
        const std::span bytes(reinterpret_cast<const uint8_t*>(payload.data()), payload.size());
        std::string all;
        const auto add = [&all](const auto& record) {
            for (const auto& sample : record.samples)
                all += (all.empty() ? "" : " ") + std::to_string(sample.uptime_100ms);
        };
        if (id_ == GPU) add(gpu_record_decode(bytes));
        if (id_ == CPU) add(cpu_record_decode(bytes));
        return all;
    }
    std::string stamps() const { return stamps(record()); }

  private:
    const uint32_t id_;
};
