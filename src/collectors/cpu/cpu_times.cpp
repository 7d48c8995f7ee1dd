#define LOG_TAG "vexastatsd"

#include "collectors/cpu/cpu_times.h"

#include <errno.h>
#include <fcntl.h>

#include <algorithm>
#include <charconv>

#include "base/line_reader.h"
#include "base/open_file.h"
#include "base/text_cursor.h"
#include "framework/sysfs/sysfs.h"
#include "platform/log.h"

namespace {

constexpr char POSSIBLE_FILE[] = "/sys/devices/system/cpu/possible";
constexpr char STAT_FILE[] = "/proc/stat";
constexpr size_t SYSFS_LINE_SIZE = 512;
constexpr size_t STAT_LINE_LEN = 511;  // longer lines count as several

// "%*[^c]" and "%*[c]": at least one character that is not, or is, c.
bool skip_all_but(text_cursor* text, char c) {
    const char* begin = text->at;
    while (text->at < text->end && *text->at != c) ++text->at;
    return text->at != begin;
}
bool skip_all(text_cursor* text, char c) {
    const char* begin = text->at;
    while (text->at < text->end && *text->at == c) ++text->at;
    return text->at != begin;
}

}  // namespace

int32_t parse_cpu_possible(std::string_view line) {
    text_cursor text(line);
    int32_t highest = 0;
    if (!skip_all_but(&text, '-') || !skip_all(&text, '-') || !scan_int(&text, &highest)) return -1;
    if (highest < 0 || highest >= MAX_CPU_COUNT) return -1;
    return highest + 1;
}

int32_t read_cpu_count() {
    char line[SYSFS_LINE_SIZE];
    int32_t count = -1;
    if (vexastats_read_sysfs(POSSIBLE_FILE, line, sizeof line) != 0) {
        ALOGE("failed to read %s\n", POSSIBLE_FILE);
    } else {
        count = parse_cpu_possible(line);
        if (count < 0) ALOGE("Invalid file format. err:%d\n", errno);
    }
    if (count < 0) ALOGE("failed to get number of cpus\n");
    return count;
}

cpu_line parse_cpu_line(std::string_view line, cpu_times* slots, int32_t cpu_count) {
    text_cursor text(line);
    uint32_t cpu = 0;
    if (!scan_literal(&text, "cpu") || !scan_narrow(&text, &cpu) ||
        cpu >= static_cast<uint32_t>(cpu_count)) {
        return cpu_line::OTHER;
    }
    text = text_cursor(line);
    cpu_times& slot = slots[cpu];
    const bool whole = skip_word(&text) && scan_narrow(&text, &slot.user) &&
                       scan_narrow(&text, &slot.nice) && scan_narrow(&text, &slot.system) &&
                       scan_narrow(&text, &slot.idle) && scan_narrow(&text, &slot.iowait) &&
                       scan_narrow(&text, &slot.irq) && scan_narrow(&text, &slot.softirq);
    return whole ? cpu_line::STORED : cpu_line::INVALID;
}

int read_cpu_times(cpu_times* slots, int32_t cpu_count) {
    line_reader reader(open_text_at(AT_FDCWD, STAT_FILE));
    if (!reader.fd) {
        ALOGE("failed to open %s. err:%d\n", STAT_FILE, errno);
        return -EINVAL;
    }
    // The first line is the sum over all cores. As many lines as there are cores follow, whatever
    // they hold: cores that are offline have none.
    for (int32_t i = -1; i < cpu_count; ++i) {
        std::string_view line;
        if (!line_reader_next(&reader, STAT_LINE_LEN, &line)) {
            ALOGE("failed to read %s\n", STAT_FILE);
            return -EINVAL;
        }
        if (i < 0) continue;
        if (parse_cpu_line(line, slots, cpu_count) == cpu_line::INVALID) {
            ALOGE("Invalid stat file format. err:%d\n", errno);
            return -EINVAL;
        }
    }
    return 0;
}

cpu_frequency_path cpu_frequency_path_of(int32_t cpu) {
    constexpr std::string_view BEFORE = "/sys/devices/system/cpu/cpu";
    constexpr std::string_view BEHIND = "/cpufreq/scaling_cur_freq";
    cpu_frequency_path path;
    static_assert(BEFORE.size() + 10 + BEHIND.size() < sizeof path.text);
    char* at = std::copy(BEFORE.begin(), BEFORE.end(), path.text);
    at = std::to_chars(at, at + 10, cpu).ptr;
    *std::copy(BEHIND.begin(), BEHIND.end(), at) = '\0';
    return path;
}

int read_cpu_frequency(int32_t cpu, int32_t* frequency_kHz) {
    const cpu_frequency_path path = cpu_frequency_path_of(cpu);
    *frequency_kHz = 0;
    if (vexastats_read_sysfs_number(path.text, frequency_kHz) == -EINVAL) {
        ALOGE("failed to read %s\n", path.text);
        return -EINVAL;
    }
    return 0;
}
