#include "microdump_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "sample_times.h"
#include "text.h"

namespace {

constexpr std::string_view SEPARATOR = "--1522738393043\n";
constexpr std::string_view CRASH_TIME = "Crash Time: ";

[[noreturn]] void refuse(size_t offset, const std::string& problem) {
    throw upload_error(upload_place::payload, offset, problem);
}

// Bytes in front of the first dump. Where a longer first line was written over the separator, that
// is what is left of it, and the dump begins with its time.
size_t damage_len(std::string_view all) {
    if (all.empty() || all.starts_with(SEPARATOR)) return 0;
    for (size_t len = 1; len <= LEFT_OVER_MAX_BYTES && len < all.size(); len++)
        if (all[len - 1] == '\n' && all.substr(len).starts_with(SEPARATOR)) return len;
    for (size_t lost = 1; lost <= OVERWRITTEN_MAX_BYTES; lost++) {
        const auto rest = SEPARATOR.substr(lost);
        if (all.starts_with(rest) && all.substr(rest.size()).starts_with(CRASH_TIME))
            return rest.size();
    }
    return 0;
}

// Takes the dump at `at`, whose separator is behind it already; returns where the next one begins.
size_t take_dump(std::string_view all, size_t at, microdump* dump) {
    if (!all.substr(at).starts_with(CRASH_TIME)) refuse(at, "a dump has no crash time");
    at += CRASH_TIME.size();
    const size_t line_end = all.find('\n', at);
    if (line_end == all.npos) refuse(at, "the payload ends inside a crash time");
    dump->crash_time = all.substr(at, line_end - at);

    const size_t begin = line_end + 1;
    // A separator is one at the beginning of a line only.
    const size_t next = all.find("\n" + std::string(SEPARATOR), begin);
    const size_t end = next == all.npos ? all.size() : next + 1;
    if (end == begin || all[end - 1] != '\n') refuse(end, "the payload ends inside a dump");
    dump->text = all.substr(begin, end - begin);
    return end;
}

}  // namespace

microdump_record microdump_record_decode(std::span<const uint8_t> payload) {
    const std::string_view all(reinterpret_cast<const char*>(payload.data()), payload.size());
    microdump_record record;
    record.skipped_bytes = damage_len(all);
    size_t at = record.skipped_bytes;
    const bool separator_is_lost = at > 0 && all.substr(at).starts_with(CRASH_TIME);
    while (at < all.size()) {
        if (!all.substr(at).starts_with(SEPARATOR)) {
            if (!separator_is_lost || !record.dumps.empty())
                refuse(at, "no separator where a dump begins");
        } else {
            at += SEPARATOR.size();
        }
        microdump dump;
        at = take_dump(all, at, &dump);
        record.dumps.push_back(dump);
    }
    return record;
}

void microdump_record_add_json(const upload_file& file, json_stream* out) {
    const auto record = microdump_record_decode(file.payload);
    if (record.skipped_bytes > 0) out->member("skipped_bytes", record.skipped_bytes);
    out->begin_array("records");
    for (const auto& dump : record.dumps)
        out->value({{"crash_time", dump.crash_time}, {"text", dump.text}});
    out->end_array();
}

std::string microdump_record_report(const upload_file& file, const report_options&) {
    const auto record = microdump_record_decode(file.payload);
    std::string report = skipped_note(record.skipped_bytes);
    report += fmt::format("  dumps     {}\n", record.dumps.size());
    for (const auto& dump : record.dumps) {
        report += fmt::format("\n  Crash at {}\n", text_printable(dump.crash_time));
        for (size_t at = 0; at < dump.text.size();) {
            const size_t end = dump.text.find('\n', at);
            report += fmt::format("    {}\n", text_printable(dump.text.substr(at, end - at)));
            at = end + 1;
        }
    }
    return report;
}
