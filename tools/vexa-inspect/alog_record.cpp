#include "alog_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <string_view>

#include "byte_cursor.h"
#include "text.h"

namespace {

constexpr std::string_view TITLE = "\nlogcat:\n";
constexpr uint16_t HEADER_BYTES = 28;
constexpr size_t ENTRY_MAX_BYTES = 5120;

// A record begun before the clock was set can lack its first bytes, the header of an entry among
// them; the next entry is then the first whole one. Text of the daemon's own may stand in front.
constexpr size_t SKIPPED_MAX_BYTES = ENTRY_MAX_BYTES + 32;

std::string text_up_to_zero(std::span<const uint8_t> bytes) {
    const auto end = std::find(bytes.begin(), bytes.end(), uint8_t{0});
    return {bytes.begin(), end};
}

void decode_payload(std::span<const uint8_t> bytes, alog_entry* entry) {
    if (bytes.empty()) return;
    entry->priority = bytes[0];
    entry->tag = text_up_to_zero(bytes.subspan(1));
    const size_t message_at = std::min(1 + entry->tag.size() + 1, bytes.size());
    entry->message = text_up_to_zero(bytes.subspan(message_at));
}

alog_entry decode_entry(byte_cursor& cursor) {
    const size_t start = cursor.offset();
    const auto payload_bytes = cursor.take<uint16_t>("an entry's length");
    const auto header_bytes = cursor.take<uint16_t>("an entry's header size");
    if (header_bytes != HEADER_BYTES)
        throw upload_error(
            upload_place::payload, start + 2,
            fmt::format("an entry's header size is {}, not {}", header_bytes, HEADER_BYTES));
    alog_entry entry;
    entry.pid = cursor.take<int32_t>("pid");
    entry.tid = cursor.take<uint32_t>("tid");
    entry.sec = cursor.take<uint32_t>("sec");
    entry.nsec = cursor.take<uint32_t>("nsec");
    entry.log_id = cursor.take<uint32_t>("log_id");
    entry.uid = cursor.take<uint32_t>("uid");
    const size_t whole = size_t{HEADER_BYTES} + payload_bytes;
    const size_t held = std::min(whole, ENTRY_MAX_BYTES);
    entry.cut = held < whole;
    decode_payload(cursor.take_bytes(held - HEADER_BYTES, "an entry"), &entry);
    return entry;
}

bool begins_with_title(std::span<const uint8_t> bytes) {
    return bytes.size() >= TITLE.size() && std::equal(TITLE.begin(), TITLE.end(), bytes.begin());
}

alog_record decode_from(std::span<const uint8_t> payload, size_t at) {
    alog_record record;
    record.skipped_bytes = at;
    byte_cursor cursor(payload);
    cursor.take_bytes(at, "what is skipped");
    record.begins_campaign = begins_with_title(payload.subspan(at));
    if (record.begins_campaign) cursor.take_bytes(TITLE.size(), "the title");
    while (cursor.left() > 0) record.entries.push_back(decode_entry(cursor));
    return record;
}

// Whether the payload is whole entries from `at` to its last byte, behind a title or without; by
// the lengths alone, for there are many places to ask for. Two ways that meet go on as one: where
// one has been (`seen`) and failed, the next one fails too.
bool is_whole(std::span<const uint8_t> payload, size_t at, std::vector<bool>* seen) {
    auto bytes = payload.subspan(at);
    if (begins_with_title(bytes)) bytes = bytes.subspan(TITLE.size());
    while (bytes.size() >= HEADER_BYTES && bytes[2] == HEADER_BYTES && bytes[3] == 0) {
        const size_t offset = payload.size() - bytes.size();
        if ((*seen)[offset]) return false;
        (*seen)[offset] = true;
        const size_t whole = size_t{HEADER_BYTES} + bytes[0] + size_t{256} * bytes[1];
        const size_t held = std::min(whole, ENTRY_MAX_BYTES);
        if (held > bytes.size()) return false;
        bytes = bytes.subspan(held);
    }
    return bytes.empty();
}

// Where the first whole entry begins in a payload whose start is damaged; nothing when there is
// none.
std::optional<size_t> find_whole_rest(std::span<const uint8_t> payload) {
    std::vector<bool> seen(payload.size());
    for (size_t at = 1; at < std::min(payload.size(), SKIPPED_MAX_BYTES); at++) {
        if (is_whole(payload, at, &seen)) return at;
    }
    return std::nullopt;
}

char priority_letter(uint8_t priority) {
    constexpr std::string_view letters = "??VDIWEF";
    return priority < letters.size() ? letters[priority] : '?';
}

std::string entry_prefix(const alog_entry& entry, int timezone_min) {
    const time_t local = static_cast<time_t>(entry.sec) + time_t{timezone_min} * 60;
    tm time{};
    gmtime_r(&local, &time);
    return fmt::format("{:02}-{:02} {:02}:{:02}:{:02}.{:03} {:5} {:5} {} {:<8}: ", time.tm_mon + 1,
                       time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec, entry.nsec / 1'000'000,
                       entry.pid, entry.tid, priority_letter(entry.priority),
                       text_printable(entry.tag));
}

json_object entry_json(const alog_entry& entry) {
    return {{"pid", entry.pid},           {"tid", entry.tid},
            {"sec", entry.sec},           {"nsec", entry.nsec},
            {"log_id", entry.log_id},     {"uid", entry.uid},
            {"priority", entry.priority}, {"tag", entry.tag},
            {"message", entry.message},   {"cut", entry.cut}};
}

}  // namespace

alog_record alog_record_decode(std::span<const uint8_t> payload) {
    try {
        return decode_from(payload, 0);
    } catch (const upload_error&) {
        const auto at = find_whole_rest(payload);
        if (!at) throw;
        return decode_from(payload, *at);
    }
}

std::string alog_entry_text(const alog_entry& entry, int timezone_min) {
    const std::string prefix = entry_prefix(entry, timezone_min);
    const size_t most =
        ALOG_TEXT_MAX_GROWTH * (HEADER_BYTES + entry.tag.size() + entry.message.size());
    std::string_view message = entry.message;
    if (message.ends_with('\n')) message.remove_suffix(1);
    std::string text;
    for (;;) {
        const size_t end = std::min(message.find('\n'), message.size());
        text += prefix + text_printable(std::string(message.substr(0, end)));
        if (end == message.size()) return text + (entry.cut ? " ... (cut)\n" : "\n");
        text += '\n';
        message.remove_prefix(end + 1);
        if (text.size() < most) continue;
        const auto left = 1 + std::count(message.begin(), message.end(), '\n');
        return text + fmt::format("  ... and {} lines more of this entry\n", left);
    }
}

void alog_record_add_json(const upload_file& file, json_stream* out) {
    const auto record = alog_record_decode(file.payload);
    if (record.skipped_bytes > 0) out->member("skipped_bytes", record.skipped_bytes);
    out->begin_array("records");
    for (const auto& entry : record.entries) out->value(entry_json(entry));
    out->end_array();
}

void alog_record_put_report(const upload_file& file, const report_options& options,
                            const text_sink& out) {
    const auto record = alog_record_decode(file.payload);
    if (record.skipped_bytes > 0)
        out(fmt::format(
            "  The first {} bytes are no whole entry: the record was begun before the clock was "
            "set.\n\n",
            record.skipped_bytes));
    out(fmt::format("  entries   {}{}\n\n", record.entries.size(),
                    record.begins_campaign ? ", from the beginning of a campaign" : ""));
    const size_t shown = std::min(record.entries.size(), options.max_rows);
    for (size_t i = 0; i < shown; i++)
        out(alog_entry_text(record.entries[i], file.header.timezone_min));
    if (shown < record.entries.size())
        out(fmt::format("  ... and {} entries more\n", record.entries.size() - shown));
}
