// The moment from which the wait for an upload counts. It is kept in a file, so that a restart of
// the daemon or of the phone does not begin the wait anew.
//
// All functions: the microdump collector's thread.
#pragma once

#include <cstdint>
#include <string_view>

struct timeout_file {
    const char* dir = nullptr;
    const char* name = nullptr;
    uint64_t start_ms = 0;  // wall clock, ms since 1970
};

// Reads "time_started=%lu". Returns whether the value is there.
bool timeout_file_parse(std::string_view line, uint64_t* start_ms);

// Takes the start over from the file. With `create`, a file that is missing or invalid is replaced
// by one that starts now. Returns 0, or -EINVAL, with the start left as it was, when there is no
// directory, no valid file or no new one. Logged, success included.
int timeout_file_init(timeout_file* file, bool create);

// Replaces the file by one with the present start. Returns 0, or -EINVAL, logged.
int timeout_file_write_handler(const timeout_file& file);
