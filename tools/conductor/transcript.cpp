#include "conductor/transcript.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>

#include "host/clock_course.h"
#include "host/log_file.h"
#include "input/printable_text.h"
#include "vexa-campaign/campaign_text.h"
#include "vexa-inspect/record_formats.h"

namespace {

namespace fs = std::filesystem;

std::string content_of(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::string two_digits(long value) {
    std::string text = std::to_string(value);
    return text.size() < 2 ? "0" + text : text;
}

// "17 03:04:05.678", the day of the month in UTC before it.
std::string time_text(uint32_t sec, uint32_t nsec) {
    const time_t seconds = sec;
    tm utc = {};
    gmtime_r(&seconds, &utc);
    char text[64];
    (void)snprintf(text, sizeof text, "%02d %02d:%02d:%02d.%03u", utc.tm_mday, utc.tm_hour,
                   utc.tm_min, utc.tm_sec, nsec / 1000000);
    return text;
}

// A text of the daemon's own may name its thread, whose number is the machine's affair.
void hide_thread_id(uint32_t tid, std::string* text) {
    const std::string shown = "tid=" + std::to_string(tid);
    const size_t at = text->find(shown);
    if (at != std::string::npos) text->replace(at, shown.size(), "tid=*");
}

struct shown_entry {
    std::pair<int32_t, uint32_t> thread;
    std::string line;
};

// The next whole entry at `*at`, which moves behind it; false at the end.
bool next_entry(const std::string& bytes, size_t* at, shown_entry* entry) {
    log_entry_header header;
    if (bytes.size() < *at + sizeof header) return false;
    memcpy(&header, bytes.data() + *at, sizeof header);
    const size_t end = *at + sizeof header + header.payload_len;
    if (end > bytes.size() || header.payload_len < 3) return false;
    const char* payload = bytes.data() + *at + sizeof header;
    const std::string tag = payload + 1;
    const char* message = payload + 2 + tag.size();
    std::string text(message, strnlen(message, static_cast<size_t>(bytes.data() + end - message)));
    if (text.ends_with('\n')) text.pop_back();
    hide_thread_id(header.tid, &text);
    constexpr char LETTERS[] = "??VDIWEF";
    entry->thread = {int32_t{header.pid}, uint32_t{header.tid}};
    entry->line = time_text(header.sec, header.nsec) + " " + LETTERS[payload[0] & 7] + " " + tag +
                  ": " + printable_text(text) + "\n";
    *at = end;
    return true;
}

// A file in a collector's dropbox; one beside these is anything.
bool is_upload(const fs::path& path) {
    return path.parent_path().parent_path().string().ends_with("/data/vendor/vexa/up");
}

// Numbers of processes and threads in log entries are the machine's affair.
std::string without_thread_ids(const std::string& report) {
    static const std::regex ENTRY("(\\n\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}) +\\d+ +\\d+ ");
    return std::regex_replace(report, ENTRY, "$1     *     * ");
}

std::string upload_text(const fs::path& path, const std::string& seen_as) {
    std::string text;
    try {
        upload_put_report(seen_as, upload_read(path.string()), {.max_hex_bytes = 64},
                          [&](std::string_view part) { text += part; });
    } catch (const std::exception& error) {
        text += "    damaged: " + std::string(error.what()) + "\n";
    }
    return without_thread_ids(text);
}

// A campaign's file as vexa-campaign shows it; a damaged one as it stands.
std::string readable_content(const fs::path& path) {
    if (path.extension() != ".camp") return content_of(path);
    try {
        return campaign_to_text(campaign_parse(campaign_file_split(path)));
    } catch (const std::exception&) {
        return content_of(path);
    }
}

std::string file_text(const fs::path& path, const std::string& seen_as) {
    if (is_upload(path)) return upload_text(path, seen_as) + "\n";
    const std::string content = readable_content(path);
    std::istringstream lines(content);
    std::string text;
    size_t shown = 0;
    for (std::string line; std::getline(lines, line); shown += line.size() + 1) {
        const std::string shown_as = printable_text(line);
        if (shown_as != line || shown > 2000) break;  // what follows is for no reader's eyes
        text += "    " + shown_as + "\n";
    }
    if (shown < content.size())
        text += "    ... and " + std::to_string(content.size() - shown) + " bytes more\n";
    return text;
}

// Files by their names, with kinds, modes, sizes and contents.
std::map<std::string, std::string> files_in(const fs::path& dir) {
    std::map<std::string, std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(dir / "data")) {
        struct stat status = {};
        if (lstat(entry.path().c_str(), &status) != 0) continue;
        const std::string seen_as = entry.path().string().substr(dir.string().size());
        char mode[32];
        (void)snprintf(mode, sizeof mode, " %03o", status.st_mode & 0777);
        std::string text = (S_ISDIR(status.st_mode) ? "/" : "") + std::string(mode) + "\n";
        if (S_ISREG(status.st_mode)) text += file_text(entry.path(), seen_as);
        all[seen_as] = text;
    }
    return all;
}

std::map<std::string, std::string> properties_in(const fs::path& dir) {
    std::map<std::string, std::string> all;
    for (const auto& entry : fs::directory_iterator(dir / "dev/properties"))
        all[entry.path().filename()] = "=" + printable_text(content_of(entry.path())) + "\n";
    return all;
}

// What of `now` is not in `*shown` yet, and what went; `*shown` is then `now`.
std::string changes(std::map<std::string, std::string> now,
                    std::map<std::string, std::string>* shown) {
    std::string text;
    for (const auto& [name, content] : now) {
        const auto before = shown->find(name);
        if (before == shown->end() || before->second != content)
            text += printable_text(name) + content;
    }
    for (const auto& [name, content] : *shown) {
        if (!now.contains(name)) text += printable_text(name) + " is gone\n";
    }
    *shown = std::move(now);
    return text;
}

std::string section(const char* heading, const std::string& text) {
    return text.empty() ? "" : "-- " + std::string(heading) + "\n" + text;
}

std::string lines_text(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += printable_text(line) + "\n";
    return text;
}

}  // namespace

phone_transcript::phone_transcript(std::string dir, std::vector<std::string> about)
    : dir_(std::move(dir)), about_(std::move(about)) {
    (void)new_log();
    threads_.clear();
    (void)new_properties();
    (void)new_files();
}

bool phone_transcript::is_about(const std::string& text) const {
    return about_.empty() || std::any_of(about_.begin(), about_.end(), [&](const auto& word) {
               return text.find(word) != std::string::npos;
           });
}

// Of a log that was begun afresh meanwhile, everything is new.
std::string phone_transcript::new_log() {
    const fs::path path = fs::path(dir_) / "dev/log/main";
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) return "";
    if (std::exchange(log_file_, status.st_ino) != status.st_ino) log_seen_ = 0;
    const std::string bytes = content_of(path);
    std::map<size_t, std::string> texts;
    for (shown_entry entry; next_entry(bytes, &log_seen_, &entry);) {
        const auto [thread, is_new] = threads_.try_emplace(entry.thread, threads_.size() + 1);
        texts[thread->second] += entry.line;
    }
    std::string all;
    for (const auto& [number, text] : texts) {
        if (is_about(text))
            all +=
                section(("log of thread " + two_digits(static_cast<long>(number))).c_str(), text);
    }
    return all;
}

std::string phone_transcript::new_properties() {
    return changes(properties_in(dir_), &properties_);
}

std::string phone_transcript::new_files() {
    return changes(files_in(dir_), &files_);
}

std::string phone_transcript::next(int64_t real_ns, const std::vector<std::string>& modem_lines,
                                   const std::vector<std::string>& property_writes) {
    const auto sec = static_cast<uint32_t>(real_ns / NS_PER_S);
    std::string text =
        "== " + time_text(sec, static_cast<uint32_t>(real_ns % NS_PER_S)) + "\n" + new_log();
    text += section("modem", lines_text(modem_lines));
    text += section("properties", new_properties());
    text += section("property writes", lines_text(property_writes));
    return text + section("files", new_files());
}

std::string transcript_property_write(const std::string& dir, const std::string& name,
                                      int64_t real_ns) {
    const auto sec = static_cast<uint32_t>(real_ns / NS_PER_S);
    return time_text(sec, static_cast<uint32_t>(real_ns % NS_PER_S)) + " " + printable_text(name) +
           "=" + printable_text(content_of(fs::path(dir) / "dev/properties" / name));
}
