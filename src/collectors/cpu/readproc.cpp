#include "collectors/cpu/readproc.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "base/file_io.h"
#include "base/open_file.h"
#include "base/text_cursor.h"
#include "base/unique_handle.h"

namespace {

constexpr size_t CPUSET_READ_LEN = 9;  // enough for the prefixes that matter: deliberate
constexpr size_t CMDLINE_READ_LEN = 256;
constexpr size_t STAT_READ_LEN = 255;
constexpr size_t STATUS_READ_LEN = 4096;

constexpr size_t BITMAP_SLICE_BYTES = 32;
constexpr int32_t BITMAP_PIDS = proc_scanner::BITMAP_BYTES * 8;

bool in_bitmap(int32_t pid) {
    return pid >= 0 && pid < BITMAP_PIDS;
}

bool is_known_root(const proc_scanner& scanner, int32_t pid) {
    return in_bitmap(pid) && (scanner.root_cpusets[pid / 8] >> (pid % 8) & 1);
}

void remember_root(proc_scanner* scanner, int32_t pid) {
    if (in_bitmap(pid)) scanner->root_cpusets[pid / 8] |= static_cast<uint8_t>(1 << pid % 8);
}

void forget_slice(proc_scanner* scanner) {
    memset(scanner->root_cpusets + scanner->slice, 0, BITMAP_SLICE_BYTES);
    scanner->slice = (scanner->slice + BITMAP_SLICE_BYTES) % proc_scanner::BITMAP_BYTES;
}

// A process's directory as listed.
struct proc_dir {
    int proc_fd = -1;  // of "/proc"
    std::string_view name;
    std::string_view pid;  // leading digits of the name
};

proc_dir proc_dir_of(int proc_fd, const char* name) {
    size_t pid_len = 0;
    while (is_digit_char(name[pid_len])) ++pid_len;
    return {.proc_fd = proc_fd, .name = name, .pid = {name, pid_len}};
}

// Reads at most `len` bytes of "<dir_name><leaf>", in one go. Empty when it cannot be read.
std::string_view read_file(int proc_fd, std::string_view dir_name, std::string_view leaf, char* buf,
                           size_t len) {
    char path[NAME_MAX + 16];
    char* end = std::copy(dir_name.begin(), dir_name.end(), path);
    *std::copy(leaf.begin(), leaf.end(), end) = '\0';
    const unique_fd fd = open_text_at(proc_fd, path);
    if (!fd) return {};
    const ssize_t got = read_some(fd.get(), buf, len);
    return {buf, got > 0 ? static_cast<size_t>(got) : 0};
}

cpuset_class class_of_process(proc_scanner* scanner, const proc_dir& dir, int32_t pid) {
    if (is_known_root(*scanner, pid)) {
        ++scanner->bitmap_hits;
        return CPUSET_OTHER;
    }
    char buf[CPUSET_READ_LEN];
    const std::string_view text = read_file(dir.proc_fd, dir.pid, "/cpuset", buf, sizeof buf);
    if (text.starts_with("/\n")) remember_root(scanner, pid);
    return parse_proc_cpuset(text);
}

void set_name(vexa_proc_entry* entry, std::string_view name) {
    const size_t len = std::min(name.size(), sizeof entry->name - 1);
    *std::copy_n(name.begin(), len, entry->name) = '\0';
}

void read_identity(const proc_dir& dir, vexa_proc_entry* entry) {
    char cmdline[CMDLINE_READ_LEN];
    const std::string_view args =
        read_file(dir.proc_fd, dir.name, "/cmdline", cmdline, sizeof cmdline);
    set_name(entry, args.substr(0, args.find('\0')));
    char status[STATUS_READ_LEN];
    parse_proc_status(read_file(dir.proc_fd, dir.name, "/status", status, sizeof status), entry);
}

void read_process(const proc_table& table, const proc_dir& dir, vexa_proc_entry* entry) {
    if (vexa_process_in_table(table, entry->pid)) {
        set_name(entry, "*");
    } else {
        read_identity(dir, entry);
    }
    char stat[STAT_READ_LEN];
    parse_proc_stat(read_file(dir.proc_fd, dir.name, "/stat", stat, sizeof stat), entry);
}

void walk(proc_scanner* scanner, DIR* proc, uint32_t class_mask) {
    unique_proc_entry entry;
    while (const dirent* listed = readdir(proc)) {
        ++scanner->entries;
        if (listed->d_name[0] < '1' || listed->d_name[0] > '9') continue;
        if (!entry) entry = vexa_make_proc_entry(&scanner->table);
        if (!entry) return;
        text_cursor name{std::string_view(listed->d_name)};
        // Handed over, the entry is null and made anew above:
        // NOLINTNEXTLINE(bugprone-use-after-move)
        (void)scan_int(&name, &entry->pid);
        const proc_dir dir = proc_dir_of(dirfd(proc), listed->d_name);
        entry->cpuset = class_of_process(scanner, dir, entry->pid);
        if (!(class_mask >> entry->cpuset & 1)) continue;
        read_process(scanner->table, dir, entry.get());
        vexa_insert_proc_tbl_entry(&scanner->table, std::move(entry));
    }
}

}  // namespace

cpuset_class parse_proc_cpuset(std::string_view text) {
    struct prefix_class {
        std::string_view prefix;
        cpuset_class value;
    };
    constexpr prefix_class PREFIXES[] = {{"/back", CPUSET_BACKGROUND},
                                         {"/fore", CPUSET_FOREGROUND},
                                         {"/system", CPUSET_BACKGROUND},
                                         {"/top", CPUSET_TOP_APP}};
    for (const prefix_class& row : PREFIXES) {
        if (text.starts_with(row.prefix)) return row.value;
    }
    return CPUSET_OTHER;
}

void parse_proc_status(std::string_view text, vexa_proc_entry* entry) {
    while (!text.empty() && !text.starts_with("Uid")) {
        const size_t newline = text.find('\n');
        text.remove_prefix(newline == text.npos ? text.size() : newline + 1);
    }
    text_cursor line(text.substr(0, text.find('\n')));
    int32_t uid = 0;
    if (scan_literal(&line, "Uid:") && scan_int(&line, &uid)) {
        entry->uid = static_cast<uint32_t>(uid);
    }
}

// "<pid> (<name>) <state> <parent> ...": the name is all between the first "(" and the last ")".
void parse_proc_stat(std::string_view text, vexa_proc_entry* entry) {
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == text.npos || close == text.npos || close < open) return;
    if (entry->name[0] == '\0') set_name(entry, text.substr(open + 1, close - open - 1));
    if (close + 2 >= text.size()) return;

    // "%c %d", then four numbers and five of which nothing is kept, then the times.
    entry->state = text[close + 2];
    text_cursor rest(text.substr(close + 3));
    if (!scan_int(&rest, &entry->ppid)) return;
    int64_t ignored_id = 0;
    for (int i = 0; i < 4; ++i) {
        if (!scan_signed(&rest, &ignored_id)) return;
    }
    uint64_t ignored_count = 0;
    for (int i = 0; i < 5; ++i) {
        if (!scan_unsigned(&rest, &ignored_count)) return;
    }
    (void)(scan_unsigned(&rest, &entry->user_time) && scan_unsigned(&rest, &entry->system_time) &&
           scan_unsigned(&rest, &entry->child_user_time) &&
           scan_unsigned(&rest, &entry->child_system_time));
}

int vexa_ps_readproc(proc_scanner* scanner, DIR* dir, uint32_t class_mask) {
    if (dir) walk(scanner, dir, class_mask);
    forget_slice(scanner);
    return 0;
}
