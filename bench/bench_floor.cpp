#include "bench_floor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr size_t HEADER_BYTES = 53;

void require(bool done, const char* what) {
    if (done) return;
    perror(what);
    exit(1);
}

std::vector<uint8_t> read_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    require(fd >= 0 && fstat(fd, &status) == 0, "open");
    std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
    require(read(fd, bytes.data(), bytes.size()) == status.st_size, "read");
    close(fd);
    return bytes;
}

// The settings that the upload format fixes.
std::vector<uint8_t> compress_behind_header(std::vector<uint8_t>& plain) {
    z_stream stream{};
    require(deflateInit2(&stream, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) == Z_OK,
            "deflateInit2");
    std::vector<uint8_t> out(HEADER_BYTES + deflateBound(&stream, plain.size()));
    stream.next_in = plain.data();
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = out.data() + HEADER_BYTES;
    stream.avail_out = static_cast<uInt>(out.size() - HEADER_BYTES);
    require(deflate(&stream, Z_FINISH) == Z_STREAM_END, "deflate");
    out.resize(HEADER_BYTES + stream.total_out);
    deflateEnd(&stream);
    return out;
}

// Opens, reads once and closes. Returns what read(2) did, -1 when there is no such file.
ssize_t read_once(int dir_fd, const char* path, char* buf, size_t size) {
    const int fd = openat(dir_fd, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    const ssize_t got = read(fd, buf, size);
    close(fd);
    return got;
}

// "<pid><leaf>".
struct leaf_path {
    leaf_path(const char* pid, const char* leaf) { stpcpy(stpcpy(text, pid), leaf); }
    char text[288];
};

void read_thermal_zones() {
    DIR* dir = opendir("/sys/class/thermal");
    require(dir != nullptr, "opendir");
    char buf[512];
    while (const dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, "thermal_zone", 12) != 0) continue;
        read_once(dirfd(dir), leaf_path(entry->d_name, "/temp").text, buf, sizeof buf);
        read_once(dirfd(dir), leaf_path(entry->d_name, "/type").text, buf, sizeof buf);
    }
    closedir(dir);
}

}  // namespace

void floor_drop(const std::string& path, const std::string& dropped) {
    auto plain = read_file(path);
    const auto out = compress_behind_header(plain);
    const std::string finished = path + ".finished";
    const int fd = open(finished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(fd >= 0, "open");
    floor_append(fd, out);
    require(fsync(fd) == 0, "fsync");
    close(fd);
    require(unlink(path.c_str()) == 0, "unlink");
    require(rename(finished.c_str(), dropped.c_str()) == 0, "rename");
}

void floor_append(int fd, std::span<const uint8_t> bytes) {
    require(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "write");
}

void floor_scanner::read_cpuset(int proc_fd, const char* name) {
    const auto pid = static_cast<size_t>(atoi(name));
    if (pid < in_root_.size() && in_root_[pid]) return;
    char buf[9];
    const ssize_t got = read_once(proc_fd, leaf_path(name, "/cpuset").text, buf, sizeof buf);
    if (pid < in_root_.size()) in_root_[pid] = got >= 2 && memcmp(buf, "/\n", 2) == 0;
}

void floor_scanner::scan(DIR* proc, bool all_new) {
    rewinddir(proc);
    const int fd = dirfd(proc);
    char buf[4096];
    while (const dirent* entry = readdir(proc)) {
        const char* name = entry->d_name;
        if (name[0] < '1' || name[0] > '9') continue;
        read_cpuset(fd, name);
        if (all_new) {
            read_once(fd, leaf_path(name, "/cmdline").text, buf, 256);
            read_once(fd, leaf_path(name, "/status").text, buf, sizeof buf);
        }
        read_once(fd, leaf_path(name, "/stat").text, buf, 255);
    }
    std::fill_n(in_root_.begin() + static_cast<ptrdiff_t>(forget_at_), 256, false);
    forget_at_ = (forget_at_ + 256) % in_root_.size();
}

void floor_sample(int fd, int cpus) {
    static constexpr const char* files[] = {
        "/proc/stat",
        "/sys/class/power_supply/bms/charge_counter",
        "/sys/class/power_supply/battery/capacity",
        "/sys/class/power_supply/battery/status",
        "/sys/class/leds/lcd-backlight/brightness",
        "/proc/net/xt_qtaguid/stats",
    };
    char buf[16384];
    read_thermal_zones();
    for (const char* file : files) require(read_once(AT_FDCWD, file, buf, sizeof buf) > 0, file);
    for (int cpu = 0; cpu < cpus; cpu++) {
        char path[64];
        snprintf(path, sizeof path, "/sys/devices/system/cpu/cpu%d/cpufreq/scaling_cur_freq", cpu);
        require(read_once(AT_FDCWD, path, buf, sizeof buf) > 0, path);
    }
    constexpr size_t SAMPLE_BYTES = 700;
    floor_append(fd, {reinterpret_cast<const uint8_t*>(buf), SAMPLE_BYTES});
}
