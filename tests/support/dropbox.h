// A dropbox as text, for tests that look at what reached it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

// The uploads by their names, a line each: "gpustats.1700000000000 seq 1: " and the payload: a
// text's first line, or the bytes as hex. The size follows what is not shown whole: "logcat: (126
// bytes)". Throws when a payload is damaged.
std::string dropbox_text(const std::filesystem::path& dir);

// The same payloads whole.
std::vector<std::string> dropbox_payloads(const std::filesystem::path& dir);
