#include "bench_data.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "phone/enter.h"

namespace {

constexpr uint32_t CPUS = 8;
constexpr uint32_t ZONES = 30;

// Random numbers that are the same everywhere and every time.
struct bench_random {
    uint64_t state;
    uint32_t operator()() {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(state >> 33);
    }
};

void put(byte_vector& out, uint64_t value, int width) {
    for (int i = 0; i < width; i++) out.push_back(static_cast<uint8_t>(value >> 8 * i));
}

// A phone whose values move a little from one sample to the next.
class made_up_phone {
  public:
    byte_vector sample() {
        byte_vector out;
        put(out, uptime_100ms_++, 4);
        put(out, CPUS, 4);
        for (auto& ticks : ticks_) put(out, ticks += random(4), 4);
        for (uint32_t cpu = 0; cpu < CPUS; cpu++) put(out, 300000 + 76800 * random(20), 4);
        put(out, 2512000 - uptime_100ms_ / 50, 4);
        put(out, 0x81CA, 2);
        put(out, ZONES, 2);
        for (uint32_t zone = 0; zone < ZONES; zone++) put_zone(out, zone);
        put(out, 0, 2);
        put(out, 0, 2);
        return out;
    }

  private:
    uint32_t random(uint32_t below) { return static_cast<uint32_t>(engine_() % below); }

    void put_zone(byte_vector& out, uint32_t zone) {
        char name[32];
        const int len = snprintf(name, sizeof name, "cpu-%u-%u-usr", zone / 8, zone % 8);
        out.insert(out.end(), name, name + len + 1);
        put(out, temps_mdegc_[zone] += 100 * random(3) - 100, 4);
    }

    bench_random engine_{1};
    uint32_t uptime_100ms_ = 36000;
    std::vector<uint32_t> ticks_ = std::vector<uint32_t>(size_t{CPUS} * 7, 100000);
    std::vector<uint32_t> temps_mdegc_ = std::vector<uint32_t>(ZONES, 35000);
};

struct scratch_dir {
    scratch_dir() {
        const char* root = getenv("TMPDIR");
        path = std::string(root ? root : "/data/vendor") + "/bench.XXXXXX";
        if (!mkdtemp(path.data())) {
            perror(path.c_str());
            exit(1);
        }
    }
    ~scratch_dir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

}  // namespace

std::vector<byte_vector> bench_cpu_samples(size_t count) {
    made_up_phone phone;
    std::vector<byte_vector> samples;
    while (samples.size() < count) samples.push_back(phone.sample());
    return samples;
}

byte_vector bench_cpu_bytes(size_t size) {
    made_up_phone phone;
    byte_vector bytes;
    while (bytes.size() < size) {
        const auto sample = phone.sample();
        bytes.insert(bytes.end(), sample.begin(), sample.end());
    }
    bytes.resize(size);
    return bytes;
}

byte_vector bench_text_bytes(size_t size) {
    static constexpr const char* words[] = {"started",    "stopped", "battery",   "level",
                                            "changed to", "network", "connected", "screen",
                                            "off",        "wakelock"};
    bench_random engine{2};
    byte_vector bytes;
    for (uint32_t line = 0; bytes.size() < size; line++) {
        char text[128];
        const int len = snprintf(
            text, sizeof text, "%u.%03u %5u %5u I %s: %s %s %u\n", 1000 + line / 20,
            line * 50 % 1000, static_cast<unsigned>(engine() % 9000),
            static_cast<unsigned>(engine() % 9000), words[engine() % 10], words[engine() % 10],
            words[engine() % 10], static_cast<unsigned>(engine() % 100));
        bytes.insert(bytes.end(), text, text + len);
    }
    bytes.resize(size);
    return bytes;
}

byte_vector bench_noise_bytes(size_t size) {
    bench_random engine{3};
    byte_vector bytes;
    while (bytes.size() < size) put(bytes, engine(), 3);  // the top bit of its numbers is always 0
    bytes.resize(size);
    return bytes;
}

void bench_enter_phone() {
    phone_options options;
    options.host_proc = true;
    if (const char* disk = getenv("TMPDIR")) options.writable = {disk};
    phone_enter(options);
    // The machine's kernel does not count traffic by UID; the phone's table is laid over its /proc.
    const std::string table = std::string(PHONE_IN_MEMORY) + "/proc/net";
    if (mount(table.c_str(), "/proc/self/net", nullptr, MS_BIND, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "mount " + table);
}

const std::string& bench_dir() {
    static const scratch_dir dir;
    return dir.path;
}
