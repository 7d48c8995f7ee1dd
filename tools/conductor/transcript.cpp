#include "conductor/transcript.h"

#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include "host/clock_course.h"
#include "host/log_file.h"
#include "input/printable_text.h"
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

// Threads by the order of their first entries, each with its own.
std::string log_text(const fs::path& path) {
    const std::string bytes = content_of(path);
    std::map<std::pair<int32_t, uint32_t>, size_t> threads;
    std::vector<std::string> texts;
    size_t at = 0;
    log_entry_header header;
    while (bytes.size() - at >= sizeof header) {
        memcpy(&header, bytes.data() + at, sizeof header);
        const size_t end = at + sizeof header + header.payload_len;
        if (end > bytes.size() || header.payload_len < 3) break;
        const char* payload = bytes.data() + at + sizeof header;
        const std::string tag = payload + 1;
        const char* message = payload + 2 + tag.size();
        std::string text(message,
                         strnlen(message, static_cast<size_t>(bytes.data() + end - message)));
        if (text.ends_with('\n')) text.pop_back();
        hide_thread_id(header.tid, &text);
        const auto [thread, is_new] = threads.try_emplace(
            std::pair(int32_t{header.pid}, uint32_t{header.tid}), threads.size());
        if (is_new) texts.emplace_back();
        constexpr char LETTERS[] = "??VDIWEF";
        texts[thread->second] += time_text(header.sec, header.nsec) + " " +
                                 LETTERS[payload[0] & 7] + " " + tag + ": " + printable_text(text) +
                                 "\n";
        at = end;
    }
    std::string all;
    for (size_t i = 0; i < texts.size(); ++i)
        all += "-- log of thread " + two_digits(static_cast<long>(i + 1)) + "\n" + texts[i];
    return all;
}

bool is_upload(const fs::path& path) {
    return path.string().find("/data/vendor/vexa/up/") != std::string::npos;
}

std::string upload_text(const fs::path& path, const std::string& seen_as) {
    std::string text;
    upload_put_report(seen_as, upload_read(path.string()), {},
                      [&](std::string_view part) { text += part; });
    return text;
}

std::string file_text(const fs::path& path, const std::string& seen_as) {
    if (is_upload(path)) return upload_text(path, seen_as) + "\n";
    const std::string content = content_of(path);
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

// Files in the order of their names, with kinds, modes, sizes and contents.
std::string files_text(const fs::path& dir) {
    std::vector<fs::path> paths;
    for (const auto& entry : fs::recursive_directory_iterator(dir / "data"))
        paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    std::string all = "-- files\n";
    for (const fs::path& path : paths) {
        struct stat status = {};
        if (lstat(path.c_str(), &status) != 0) continue;
        const std::string seen_as = path.string().substr(dir.string().size());
        char mode[32];
        (void)snprintf(mode, sizeof mode, " %03o", status.st_mode & 0777);
        all += printable_text(seen_as) + (S_ISDIR(status.st_mode) ? "/" : "") + mode + "\n";
        if (S_ISREG(status.st_mode)) all += file_text(path, seen_as);
    }
    return all;
}

std::string properties_text(const fs::path& dir) {
    std::map<std::string, std::string> all;
    for (const auto& entry : fs::directory_iterator(dir / "dev/properties"))
        all[entry.path().filename()] = content_of(entry.path());
    std::string text = "-- properties\n";
    for (const auto& [name, value] : all) text += name + "=" + printable_text(value) + "\n";
    return text;
}

}  // namespace

std::string transcript_of(const std::string& dir, const std::vector<std::string>& modem_lines,
                          const std::vector<std::string>& property_writes) {
    std::string text = log_text(fs::path(dir) / "dev/log/main");
    if (!modem_lines.empty()) text += "-- modem\n";
    for (const std::string& line : modem_lines) text += printable_text(line) + "\n";
    text += properties_text(dir);
    if (!property_writes.empty()) text += "-- property writes\n";
    for (const std::string& line : property_writes) text += line + "\n";
    return text + files_text(dir);
}

std::string transcript_property_write(const std::string& dir, const std::string& name,
                                      int64_t real_ns) {
    const auto sec = static_cast<uint32_t>(real_ns / NS_PER_S);
    return time_text(sec, static_cast<uint32_t>(real_ns % NS_PER_S)) + " " + printable_text(name) +
           "=" + printable_text(content_of(fs::path(dir) / "dev/properties" / name));
}
