#include "static_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "text.h"

namespace {

constexpr std::string_view TITLES[] = {
    "kernel_config", "power_cycles",       "security",
    "ver_info.txt",  "ims service status", "widevine security level",
};

// The title that a line is, or nothing.
std::string_view title_of(std::string_view line) {
    for (const std::string_view title : TITLES)
        if (line.starts_with(title) && line.substr(title.size()) == ":\n") return title;
    return {};
}

void remove_empty_end(std::string* text) {
    if (*text == "\n" || text->ends_with("\n\n")) text->pop_back();
}

}  // namespace

std::vector<static_section> static_record_decode(std::span<const uint8_t> payload) {
    std::string_view left(reinterpret_cast<const char*>(payload.data()), payload.size());
    std::vector<static_section> sections(1);
    while (!left.empty()) {
        const std::string_view line =
            left.substr(0, std::min(left.find('\n'), left.size() - 1) + 1);
        left.remove_prefix(line.size());
        const std::string_view title = title_of(line);
        if (title.empty()) {
            sections.back().text += line;
        } else {
            remove_empty_end(&sections.back().text);
            sections.push_back({std::string(title), ""});
        }
    }
    if (sections.front().text.empty()) sections.erase(sections.begin());
    return sections;
}

void static_record_add_json(const upload_file& file, json_stream* out) {
    out->begin_array("records");
    for (const auto& section : static_record_decode(file.payload))
        out->value({{"section", section.title}, {"text", section.text}});
    out->end_array();
}

std::string static_record_report(const upload_file& file, const report_options&) {
    std::string report;
    for (const auto& section : static_record_decode(file.payload)) {
        if (!section.title.empty()) report += fmt::format("  {}\n", section.title);
        for (size_t at = 0; at < section.text.size();) {
            const size_t end = std::min(section.text.find('\n', at), section.text.size());
            report += fmt::format("    {}\n", text_printable(section.text.substr(at, end - at)));
            at = end + 1;
        }
    }
    return report;
}
