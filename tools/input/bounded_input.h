// A file named on a program's command line, read as a whole.
#pragma once

#include <cstddef>
#include <string>

// Reads regular file or pipe `path`, of at most `max_bytes`. Throws std::runtime_error, whose
// what() says what is wrong but does not name the file. A pipe that nobody writes to is empty.
std::string read_bounded_input(const std::string& path, size_t max_bytes);
