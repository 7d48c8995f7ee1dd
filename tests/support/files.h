// Files in tests: trees written as nested literals, files read whole.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "phone/file_tree.h"

// Puts a tree of files at the phone's absolute paths (a leading "/" may be written or left out):
//   put_files({{"/sys/class/thermal/thermal_zone0/temp", "45000\n"}, {"/data/vendor/vexa/up/2/"}});
inline void put_files(const file_tree& tree) {
    write_file_tree("", tree);
}

// The whole content of a file; nothing when it cannot be read.
inline std::optional<std::string> read_file(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) return {};
    std::string content{std::istreambuf_iterator<char>(stream), {}};
    if (stream.bad()) return {};
    return content;
}

// The same, with nothing for a file that cannot be read.
inline std::string file_text(const std::filesystem::path& path) {
    return read_file(path).value_or("");
}

// The names in a directory, sorted; none when it is missing.
inline std::vector<std::string> list_dir(const std::filesystem::path& path) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}
