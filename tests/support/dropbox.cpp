#include "support/dropbox.h"

#include <algorithm>

#include "support/files.h"
#include "support/gzip.h"

namespace {

constexpr size_t HEADER_LEN = 53;
constexpr size_t LONGEST_HEX = 100;  // of a payload, in bytes

bool is_text(const std::string& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](unsigned char c) {
        return c == '\n' || c == '\t' || (c >= ' ' && c < 127);
    });
}

std::string abridged(const std::string& payload) {
    const std::string size = " (" + std::to_string(payload.size()) + " bytes)";
    if (!is_text(payload))
        return hex(payload.substr(0, LONGEST_HEX)) + (payload.size() > LONGEST_HEX ? size : "");
    const size_t line = payload.find('\n');
    return payload.substr(0, line) + (line < payload.size() - 1 ? size : "");
}

}  // namespace

std::vector<std::string> dropbox_payloads(const std::filesystem::path& dir) {
    std::vector<std::string> all;
    for (const std::string& name : list_dir(dir))
        all.push_back(gunzip(file_text(dir / name).substr(HEADER_LEN)));
    return all;
}

std::string dropbox_text(const std::filesystem::path& dir) {
    std::string lines;
    for (const std::string& name : list_dir(dir)) {
        const std::string file = file_text(dir / name);
        const std::string sequence = hex(file.substr(HEADER_LEN - 4, 4));
        lines += name + " seq " + std::to_string(std::stoul(sequence, nullptr, 16)) + ": " +
                 abridged(gunzip(file.substr(HEADER_LEN))) + "\n";
    }
    return lines;
}
