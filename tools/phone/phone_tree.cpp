#include "phone/phone_tree.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "phone/file_tree.h"
#include "phone/mounts.h"

namespace {

constexpr int CPUS = 8;

std::string text(int64_t number) {
    return std::to_string(number);
}
std::string line(int64_t number) {
    return std::to_string(number) + "\n";
}

// /sys: eight cores in two clusters, the zones and supplies of a phone, and its graphics processor.

struct thermal_zone {
    const char* type;
    int temp_mC;
};
constexpr thermal_zone THERMAL_ZONES[] = {
    {"aoss0-usr", 36400},       {"cpu-0-0-usr", 38900},    {"cpu-0-1-usr", 38500},
    {"cpu-0-2-usr", 38900},     {"cpu-0-3-usr", 39200},    {"cpu-1-0-usr", 41000},
    {"cpu-1-1-usr", 40700},     {"cpu-1-2-usr", 41300},    {"cpu-1-3-usr", 40700},
    {"gpuss-0-usr", 37800},     {"gpuss-1-usr", 37400},    {"ddr-usr", 37100},
    {"mdm-core-usr", 36700},    {"camera-usr", 36100},     {"wlan-usr", 36900},
    {"battery", 31200},         {"skin-therm-adc", 33000}, {"xo-therm-adc", 34100},
    {"quiet-therm-adc", 33700}, {"pa-therm-adc", 34500},   {"charger-therm-adc", 32400},
};

file_tree cpu_files() {
    file_tree files = {
        {"sys/devices/system/cpu/possible", "0-7\n"},
        {"sys/devices/system/cpu/present", "0-7\n"},
        {"sys/devices/system/cpu/online", "0-7\n"},
    };
    for (int cpu = 0; cpu < CPUS; ++cpu) {
        const bool big = cpu >= 4;
        const std::string dir = "sys/devices/system/cpu/cpu" + text(cpu) + "/cpufreq/";
        files.push_back({dir + "cpuinfo_min_freq", line(big ? 825600 : 300000)});
        files.push_back({dir + "cpuinfo_max_freq", line(big ? 2803200 : 1766400)});
        files.push_back({dir + "scaling_governor", "schedutil\n"});
        files.push_back({dir + "scaling_cur_freq", line(big ? 825600 : 576000)});
    }
    return files;
}

file_tree thermal_files() {
    file_tree files;
    int number = 0;
    for (const thermal_zone& zone : THERMAL_ZONES) {
        const std::string dir = "sys/class/thermal/thermal_zone" + text(number++) + "/";
        files.push_back({dir + "type", std::string(zone.type) + "\n"});
        files.push_back({dir + "temp", line(zone.temp_mC)});
    }
    files.push_back({"sys/class/thermal/cooling_device0/type", "thermal-cpufreq-0\n"});
    return files;
}

const file_tree SYS_FILES = {
    {"sys/class/power_supply/battery/capacity", "83\n"},
    {"sys/class/power_supply/battery/status", "Discharging\n"},
    {"sys/class/power_supply/battery/temp", "312\n"},
    {"sys/class/power_supply/bms/charge_counter", "2494000\n"},
    {"sys/class/leds/lcd-backlight/brightness", "102\n"},
    {"sys/class/backlight/panel0-backlight/brightness", "102\n"},
    {"sys/class/kgsl/kgsl-3d0/gpu_busy_percentage", "3%\n"},
    {"sys/class/kgsl/kgsl-3d0/gpuclk", "257000000\n"},
    {"sys/class/kgsl/kgsl-3d0/num_pwrlevels", "6\n"},
    {"sys/class/kgsl/kgsl-3d0/gpu_available_frequencies",
     "710000000 675000000 596000000 520000000 414000000 257000000 \n"},
    {"sys/class/kgsl/kgsl-3d0/gpu_clock_stats", "1204711 90225 310984 822310 4107725 88120945 \n"},
};

// /proc: what the kernel counts, and a few dozen processes from init to apps.

struct phone_process {
    int pid;
    int ppid;
    unsigned uid;
    char state;
    const char* cpuset;
    const char* comm;
    const char* cmdline;  // first argument; empty: a kernel thread
    unsigned utime, stime, cutime, cstime;
};
constexpr phone_process PROCESSES[] = {
    {1, 0, 0, 'S', "/", "init", "/system/bin/init", 412, 1804, 2210, 1950},
    {2, 0, 0, 'S', "/", "kthreadd", "", 0, 6, 0, 0},
    {3, 2, 0, 'I', "/", "rcu_gp", "", 0, 0, 0, 0},
    {8, 2, 0, 'S', "/", "ksoftirqd/0", "", 0, 390, 0, 0},
    {9, 2, 0, 'I', "/", "rcu_preempt", "", 0, 911, 0, 0},
    {21, 2, 0, 'S', "/", "migration/1", "", 0, 57, 0, 0},
    {118, 2, 0, 'I', "/", "kworker/0:1H-kblockd", "", 0, 64, 0, 0},
    {263, 2, 0, 'S', "/", "irq/117-spmi", "", 0, 12, 0, 0},
    {402, 1, 0, 'S', "/", "ueventd", "/system/bin/ueventd", 31, 77, 0, 0},
    {517, 1, 1036, 'S', "/system-background", "logd", "/system/bin/logd", 2801, 1913, 0, 0},
    {518, 1, 1000, 'S', "/foreground", "servicemanager", "/system/bin/servicemanager", 1103, 1440,
     0, 0},
    {519, 1, 1000, 'S', "/foreground", "hwservicemanage", "/system/bin/hwservicemanager", 140, 171,
     0, 0},
    {522, 1, 0, 'S', "/foreground", "vold", "/system/bin/vold", 25, 61, 4, 9},
    {640, 1, 0, 'S', "/", "netd", "/system/bin/netd", 702, 940, 0, 0},
    {642, 1, 0, 'S', "/", "zygote64", "zygote64", 611, 240, 830, 402},
    {643, 1, 0, 'S', "/", "zygote", "zygote", 377, 151, 102, 66},
    {655, 1, 1041, 'S', "/foreground", "audioserver", "/system/bin/audioserver", 1206, 955, 0, 0},
    {659, 1, 1000, 'S', "/foreground", "surfaceflinger", "/system/bin/surfaceflinger", 20519, 17330,
     0, 0},
    {671, 1, 1000, 'S', "/system-background", "thermal-engine", "/vendor/bin/thermal-engine", 803,
     1209, 0, 0},
    {688, 1, 1001, 'S', "/foreground", "rild", "/vendor/bin/hw/rild", 920, 744, 0, 0},
    {701, 1, 1010, 'S', "/foreground", "wpa_supplicant", "/vendor/bin/hw/wpa_supplicant", 211, 340,
     0, 0},
    {744, 1, 1000, 'S', "/system-background", "vexastatsd", "/vendor/bin/vexastatsd", 18, 44, 0, 0},
    {1203, 642, 1000, 'S', "/foreground", "system_server", "system_server", 60411, 31882, 9, 21},
    {1388, 642, 10074, 'S', "/foreground", "ndroid.systemui", "com.android.systemui", 14120, 4402,
     0, 0},
    {1502, 642, 1001, 'S', "/foreground", "m.android.phone", "com.android.phone", 1830, 720, 0, 0},
    {1544, 642, 10053, 'S', "/foreground", "id.ext.services", "android.ext.services", 110, 60, 0,
     0},
    {1690, 642, 10061, 'S', "/foreground", "example.launcher", "org.example.launcher", 5110, 1530,
     0, 0},
    {2011, 642, 10088, 'S', "/background", "xample.calendar", "org.example.calendar", 310, 122, 0,
     0},
    {2417, 642, 10092, 'S', "/background", "rg.example.mail", "org.example.mail:sync", 922, 514, 0,
     0},
    {2806, 642, 10110, 'S', "/foreground", "e.music:service", "org.example.music:playback service",
     8042, 3300, 0, 0},
    {3554, 642, 10131, 'R', "/top-app", "example.browser", "org.example.browser", 33120, 9021, 0,
     0},
    {3611, 3554, 99001, 'S', "/top-app", "dboxed_process0",
     "org.example.browser:sandboxed_process0", 21077, 3110, 0, 0},
    {4120, 643, 10140, 'S', "/background", "xample.old (32)", "org.example.old", 207, 98, 0, 0},
    {5012, 2, 0, 'I', "/", "kworker/u16:7-events_unbound", "", 0, 133, 0, 0},
    {8191, 1, 2000, 'S', "/foreground", "adbd", "/apex/com.android.adbd/bin/adbd", 12, 31, 0, 0},
    {12044, 642, 10131, 'S', "/background", "browser:webview",
     "org.example.browser:webview_service", 140, 55, 0, 0},
    {20833, 642, 10150, 'S', "/background", "xample.podcasts", "org.example.podcasts", 77, 40, 0,
     0},
};

std::string process_stat(const phone_process& p) {
    return text(p.pid) + " (" + p.comm + ") " + p.state + " " + text(p.ppid) + " " + text(p.pid) +
           " 0 0 -1 " + (*p.cmdline ? "4194560" : "2129984") + " 1034 0 12 0 " + text(p.utime) +
           " " + text(p.stime) + " " + text(p.cutime) + " " + text(p.cstime) + " 20 0 1 0 " +
           text(300 + p.pid) +
           " 0 0 18446744073709551615 0 0 0 0 0 0 0 4096 1073775864 0 0 0 17 2 0 0 0 0 0\n";
}

std::string process_status(const phone_process& p) {
    const std::string id = text(p.uid);
    const std::string four = id + "\t" + id + "\t" + id + "\t" + id + "\n";
    return std::string("Name:\t") + p.comm + "\nUmask:\t0077\nState:\t" + p.state + "\nTgid:\t" +
           text(p.pid) + "\nNgid:\t0\nPid:\t" + text(p.pid) + "\nPPid:\t" + text(p.ppid) +
           "\nTracerPid:\t0\nUid:\t" + four + "Gid:\t" + four + "FDSize:\t64\nThreads:\t1\n";
}

file_tree process_files() {
    file_tree files;
    for (const phone_process& p : PROCESSES) {
        const std::string dir = "proc/" + text(p.pid) + "/";
        files.push_back({dir + "stat", process_stat(p)});
        files.push_back({dir + "status", process_status(p)});
        files.push_back({dir + "cmdline", *p.cmdline ? std::string(p.cmdline) + '\0' : ""});
        files.push_back({dir + "cpuset", std::string(p.cpuset) + "\n"});
    }
    return files;
}

// Clock ticks of each core: user, nice, system, idle, iowait, irq, softirq.
constexpr std::array<unsigned, 7> CPU_TICKS[CPUS] = {
    {61204, 5210, 48811, 901223, 1320, 9120, 4410}, {60011, 4990, 47020, 905530, 1288, 8807, 2215},
    {58870, 5102, 45990, 908812, 1190, 8511, 1730}, {57733, 4871, 45210, 911207, 1212, 8402, 1544},
    {40211, 1022, 21877, 962110, 402, 4210, 611},   {31877, 911, 18202, 975302, 388, 3902, 540},
    {28120, 870, 16011, 981877, 371, 3611, 498},    {21044, 702, 12902, 992711, 290, 3102, 402},
};

std::string stat_line(const std::string& name, const std::array<unsigned, 7>& ticks) {
    std::string result = name;
    for (const unsigned count : ticks) result += " " + text(count);
    return result + " 0 0 0\n";
}

std::string proc_stat() {
    std::array<unsigned, 7> sum{};
    std::string cores;
    for (int cpu = 0; cpu < CPUS; ++cpu) {
        for (size_t i = 0; i < sum.size(); ++i) sum[i] += CPU_TICKS[cpu][i];
        cores += stat_line("cpu" + text(cpu), CPU_TICKS[cpu]);
    }
    return stat_line("cpu ", sum) + cores +
           "intr 18204411 0 0 0\nctxt 40218833\nbtime 1700000000\nprocesses 20834\n"
           "procs_running 2\nprocs_blocked 0\nsoftirq 6120448 0 0 0\n";
}

constexpr char NETWORK_STATS[] =
    "idx iface acct_tag_hex uid_tag_int cnt_set rx_bytes rx_packets tx_bytes tx_packets "
    "rx_tcp_bytes "
    "rx_tcp_packets rx_udp_bytes rx_udp_packets rx_other_bytes rx_other_packets tx_tcp_bytes "
    "tx_tcp_packets "
    "tx_udp_bytes tx_udp_packets tx_other_bytes tx_other_packets\n"
    "2 lo 0x0 1000 0 4120 40 4120 40 4120 40 0 0 0 0 4120 40 0 0 0 0\n"
    "3 wlan0 0x0 0 0 90212 611 70233 580 80012 500 10200 111 0 0 60233 480 10000 100 0 0\n"
    "4 wlan0 0x0 1000 0 120344 320 80221 290 120344 320 0 0 0 0 80221 290 0 0 0 0\n"
    "5 wlan0 0x0 10092 0 1820344 1720 240221 1290 1820344 1720 0 0 0 0 240221 1290 0 0 0 0\n"
    "6 wlan0 0x0 10110 1 50820344 41720 640221 9290 50820344 41720 0 0 0 0 640221 9290 0 0 0 0\n"
    "7 wlan0 0x0 10131 1 22820344 18120 2640221 12290 20820344 16120 2000000 2000 0 0 2640221 "
    "12290 0 0 0 0\n"
    "8 wlan0 0x0 10131 0 120344 120 40221 90 120344 120 0 0 0 0 40221 90 0 0 0 0\n"
    "9 rmnet_data0 0x0 10131 1 820344 920 140221 790 820344 920 0 0 0 0 140221 790 0 0 0 0\n"
    "10 rmnet_data0 0x0 10088 0 20344 61 9221 44 20344 61 0 0 0 0 9221 44 0 0 0 0\n"
    "11 r_rmnet_data0 0x0 1001 0 1044 9 821 8 0 0 1044 9 0 0 0 0 821 8 0 0\n"
    "12 rmnet_data0 0x0 10150 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n";

constexpr char KERNEL_CONFIG[] =
    "#\n# Automatically generated file; DO NOT EDIT.\n# Linux/arm64 4.14 Kernel Configuration\n#\n"
    "CONFIG_ARM64=y\nCONFIG_64BIT=y\nCONFIG_MMU=y\nCONFIG_HZ=100\nCONFIG_NR_CPUS=8\n\n"
    "#\n# CPU Frequency scaling\n#\nCONFIG_CPU_FREQ=y\nCONFIG_CPU_FREQ_STAT=y\n"
    "CONFIG_CPU_FREQ_DEFAULT_GOV_SCHEDUTIL=y\n# CONFIG_CPU_FREQ_GOV_ONDEMAND is not set\n\n"
    "CONFIG_IKCONFIG=y\nCONFIG_IKCONFIG_PROC=y\nCONFIG_CPUSETS=y\nCONFIG_NETFILTER_XT_MATCH_"
    "QTAGUID=y\n"
    "CONFIG_INOTIFY_USER=y\nCONFIG_THERMAL=y\nCONFIG_POWER_SUPPLY=y\nCONFIG_LOCALVERSION=\"-"
    "perf\"\n";

std::string gzip(const std::string& plain) {
    constexpr int GZIP_WINDOW_BITS = 15 + 16;
    z_stream stream = {};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, GZIP_WINDOW_BITS, 8,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("deflateInit2 failed");
    }
    std::string packed(deflateBound(&stream, plain.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    const int result = deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return packed;
}

file_tree proc_files() {
    return {
        {"proc/stat", proc_stat()},
        {"proc/config.gz", gzip(KERNEL_CONFIG)},
        {"proc/net/xt_qtaguid/stats", NETWORK_STATS},
    };
}

// The rest: where the daemon, the agent and the modem meet.

const file_tree OTHER_FILES = {
    {"data/vendor/vexa/up/"},
    {"data/vendor/vexa/down/"},
    {"vendor/firmware_mnt/verinfo/ver_info.txt",
     "{\n    \"Image_Build_IDs\": {\n        \"apps\": \"LA.UM.8.1-01200\",\n"
     "        \"boot\": \"BOOT.XF.3.0-00612\",\n        \"modem\": \"MPSS.HE.1.0-00844\",\n"
     "        \"tz\": \"TZ.XF.5.1-00390\"\n    },\n    \"Metabuild_Info\": {\n"
     "        \"Time_Stamp\": \"2016-11-30 04:12:55\"\n    },\n    \"Version\": \"1.0\"\n}\n"},
    {"mnt/vendor/persist/hlos_rfs/shared/vexa/"},
    {"dev/socket/vexa/"},
    {"dev/socket/kbr/"},
    {"dev/log/"},
    {"dev/properties/ro.build.type", "user"},
};

struct tree_link {
    const char* path;
    const char* target;
};
// Process 1 and 2 of a phone with processes of its own are bubblewrap's and the command; the leak
// check of a sanitizer looks for its threads there.
constexpr tree_link LINKS[] = {
    {"proc/self", "/.host/proc/self"},     {"proc/thread-self", "/.host/proc/thread-self"},
    {"proc/sys", "/.host/proc/sys"},       {"proc/1/task", "/.host/proc/1/task"},
    {"proc/2/task", "/.host/proc/2/task"}, {"dev/fd", "/proc/self/fd"},
    {"dev/stdin", "/proc/self/fd/0"},      {"dev/stdout", "/proc/self/fd/1"},
    {"dev/stderr", "/proc/self/fd/2"},
};

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// A file that a reader sees as it was or as it will be.
void replace_text_file(const std::string& path, const std::string& content) {
    const size_t slash = path.find_last_of('/');
    const std::string beside = path.substr(0, slash + 1) + ".new." + text(getpid());
    write_text_file(beside, content);
    if (rename(beside.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(beside.c_str());
        errno = error;
        fail(path);
    }
}

}  // namespace

void phone_create(const std::string& dir) {
    make_directories(dir);
    if (!std::filesystem::is_empty(dir)) throw std::runtime_error(dir + " is not empty");
    for (const file_tree& files :
         {cpu_files(), thermal_files(), SYS_FILES, proc_files(), process_files(), OTHER_FILES}) {
        write_file_tree(dir, files);
    }
    for (const char* device : PHONE_DEVICES) write_text_file(dir + "/dev/" + device, "");
    for (const tree_link& link : LINKS) {
        const std::string path = dir + "/" + link.path;
        if (symlink(link.target, path.c_str()) != 0) fail(path);
    }
    const std::string fifo = dir + "/dev/ramdump_microdump_modem";
    if (mkfifo(fifo.c_str(), 0600) != 0) fail(fifo);
}

void phone_set_property(const std::string& dir, const std::string& name, const std::string& value) {
    replace_text_file(dir + "/dev/properties/" + name, value);
}

void phone_set_clock(const std::string& dir, const std::string& spec) {
    replace_text_file(dir + "/dev/clock", spec);
}
