// Reading a text file of any length line by line through one buffer, without heap or stdio.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/unique_handle.h"

struct line_reader {
    unique_fd fd{};
    size_t begin = 0;  // what is read and not yet handed out lies in bytes[begin, end)
    size_t end = 0;
    bool at_eof = false;
    char bytes[32768];

    // The buffer stays as it comes: only what was read into it is ever looked at.
    explicit line_reader(unique_fd file) : fd(std::move(file)) {}  // NOLINT
};

// Hands out the next line without its newline, or, of a line longer than max_len characters (at
// most the buffer's size), the next max_len of it: what fgets makes of it with a buffer of
// max_len + 1. The text lives until the next call. Returns false at the end of the file or when it
// cannot be read.
bool line_reader_next(line_reader* reader, size_t max_len, std::string_view* line);
