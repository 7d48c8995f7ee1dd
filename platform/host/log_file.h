// A log buffer as a file: entries in the platform's binary form, one after the other.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr char LOG_DIR[] = "/dev/log";
inline constexpr size_t LOG_FILE_LIMIT_BYTES = size_t{4} * 1024 * 1024;
inline constexpr size_t LOG_PAYLOAD_MAX_BYTES = 4068;

// What stands before each payload, little-endian. Payload: one priority byte, the tag with its zero
// byte, the message with its zero byte.
struct __attribute__((packed)) log_entry_header {
    uint16_t payload_len = 0;
    uint16_t header_size = 28;
    int32_t pid = 0;
    uint32_t tid = 0;
    uint32_t sec = 0;  // wall clock
    uint32_t nsec = 0;
    uint32_t buffer_id = 0;
    uint32_t uid = 0;
};
static_assert(sizeof(log_entry_header) == 28);

struct log_entry {
    log_entry_header header{};
    char payload[LOG_PAYLOAD_MAX_BYTES];

    size_t size() const { return sizeof header + header.payload_len; }
};

// Appends one entry to log buffer `name` with one write; threads and processes take turns. When the
// file would outgrow LOG_FILE_LIMIT_BYTES, its oldest half goes first. Returns 0 or a negative
// errno, and then no part of the entry is in the file. Any thread.
int log_file_append(const char* name, const log_entry& entry);

// Where the oldest half of a log file's content ends: the first boundary between entries at or
// after the middle, or `size` when there is none or the content is damaged before it. A reader that
// meets a replaced file finds its place by this: what it has not read yet begins there or later.
size_t log_file_cut(const char* content, size_t size);
