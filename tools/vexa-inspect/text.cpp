#include "text.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <iterator>

#include "input/printable_text.h"

namespace {

constexpr uint64_t YEAR_10000_MS = 253402300800000;
constexpr size_t HEX_BYTES_A_LINE = 16;

// A longer cell moves what is behind it instead of widening the column in every row.
constexpr size_t COLUMN_MAX_WIDTH = 128;

void append_cell(std::string* line, const std::string& cell, size_t width, text_align align) {
    const auto out = std::back_inserter(*line);
    if (align == text_align::left)
        fmt::format_to(out, "  {:<{}}", cell, width);
    else
        fmt::format_to(out, "  {:>{}}", cell, width);
}

std::string trimmed(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

tm broken_down(uint64_t realtime_ms, int timezone_min) {
    const auto seconds = static_cast<time_t>(realtime_ms / 1000) + int64_t{timezone_min} * 60;
    tm time{};
    gmtime_r(&seconds, &time);
    return time;
}

std::string hex_line(size_t offset, std::span<const uint8_t> bytes) {
    std::string hex, ascii;
    for (const uint8_t byte : bytes) {
        hex += fmt::format(" {:02x}", byte);
        ascii += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    }
    return fmt::format("  {:06x} {:<48}  {}\n", offset, hex, ascii);
}

}  // namespace

std::string text_table(const std::vector<text_column>& columns,
                       const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& column : columns) widths.push_back(column.title.size());
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], std::min(row[i].size(), COLUMN_MAX_WIDTH));

    std::string line;
    for (size_t i = 0; i < columns.size(); i++)
        append_cell(&line, columns[i].title, widths[i], columns[i].align);
    std::string text = trimmed(line);
    for (const auto& row : rows) {
        line.clear();
        for (size_t i = 0; i < row.size(); i++)
            append_cell(&line, row[i], widths[i], columns[i].align);
        text += trimmed(line);
    }
    return text;
}

std::string text_local_time(uint64_t realtime_ms, int timezone_min) {
    if (realtime_ms >= YEAR_10000_MS) return fmt::format("{} ms after 1970", realtime_ms);
    const tm time = broken_down(realtime_ms, timezone_min);
    const int offset = std::abs(timezone_min);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {}{:02}:{:02}",
                       time.tm_year + 1900, time.tm_mon + 1, time.tm_mday, time.tm_hour,
                       time.tm_min, time.tm_sec, realtime_ms % 1000, timezone_min < 0 ? '-' : '+',
                       offset / 60, offset % 60);
}

std::string text_time_of_day(int64_t realtime_ms, int timezone_min) {
    constexpr int64_t minute_ms = 60'000, hour_ms = 60 * minute_ms, day_ms = 24 * hour_ms;
    const int64_t offset_ms = timezone_min * minute_ms % day_ms;
    const int64_t local_ms = (realtime_ms % day_ms + offset_ms + 2 * day_ms) % day_ms;
    return fmt::format("{:02}:{:02}:{:02}.{}", local_ms / hour_ms, local_ms / minute_ms % 60,
                       local_ms / 1000 % 60, local_ms / 100 % 10);
}

std::string text_duration(uint64_t ms) {
    const uint64_t seconds = ms / 1000;
    return fmt::format("{} d {:02}:{:02}:{:02}", seconds / 86400, seconds / 3600 % 24,
                       seconds / 60 % 60, seconds % 60);
}

std::string text_printable(const std::string& bytes) {
    return printable_text(bytes);
}

std::string text_digits(std::span<const uint8_t> bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes) text += fmt::format("{:02x}", byte);
    return text;
}

std::string text_digits(const std::string& bytes) {
    return text_digits({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()});
}

std::string text_hex(std::span<const uint8_t> bytes, size_t max_bytes) {
    const auto shown = bytes.first(std::min(bytes.size(), max_bytes));
    std::string text;
    for (size_t at = 0; at < shown.size(); at += HEX_BYTES_A_LINE)
        text += hex_line(at, shown.subspan(at, std::min(HEX_BYTES_A_LINE, shown.size() - at)));
    if (shown.size() < bytes.size())
        text += fmt::format("  ... and {} bytes more\n", bytes.size() - shown.size());
    return text;
}
