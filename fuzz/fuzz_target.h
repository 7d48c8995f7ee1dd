// What the targets share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// What does not hold ends the program; a fuzzer looks for that.
inline void check(bool holds) {
    if (!holds) abort();
}

inline std::string_view text_of(const uint8_t* data, size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Takes the first line off `rest`, without its newline.
inline std::string take_line(std::string_view* rest) {
    const size_t newline = rest->find('\n');
    const std::string line(rest->substr(0, newline));
    rest->remove_prefix(newline == rest->npos ? rest->size() : newline + 1);
    return line;
}
