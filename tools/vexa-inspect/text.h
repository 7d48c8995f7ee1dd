// Text for a reader at a terminal: aligned tables, times in words, hex listings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class text_align { left, right };

struct text_column {
    std::string title;
    text_align align = text_align::right;
};

// Rows of cells under their titles, every column as wide as its widest cell (up to a bound),
// indented by two blanks. A row with fewer cells than columns ends early.
std::string text_table(const std::vector<text_column>& columns,
                       const std::vector<std::vector<std::string>>& rows);

// "2023-11-14 23:13:20.000 +01:00"; past the year 9999 the bare number of milliseconds.
std::string text_local_time(uint64_t realtime_ms, int timezone_min);

// "23:13:20.0", the time of day alone.
std::string text_time_of_day(int64_t realtime_ms, int timezone_min);

// "3 d 04:05:06".
std::string text_duration(uint64_t ms);

// Everything but printable ASCII as \xNN, so that a name cannot steer the terminal.
std::string text_printable(const std::string& bytes);

// Two digits a byte, without anything between them.
std::string text_digits(std::span<const uint8_t> bytes);
std::string text_digits(const std::string& bytes);

// Sixteen bytes a line, at most `max_bytes` of them, and how many are left out.
std::string text_hex(std::span<const uint8_t> bytes, size_t max_bytes);
