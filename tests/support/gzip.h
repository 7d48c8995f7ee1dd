// Gzip by plain zlib calls, and bytes as hex text, for expected and found file contents.
#pragma once

#include <string>
#include <string_view>

// The gzip stream of `data` as the upload format fixes it: level default, 32 KB window, memory
// level 8.
std::string gzip(std::string_view data);

// The content of a whole gzip stream; throws std::runtime_error when it is damaged or not alone.
std::string gunzip(std::string_view stream);

// "0102ff" for three bytes, and back; spaces and newlines in the text are for the reader.
std::string hex(std::string_view bytes);
std::string bytes(std::string_view hex);
