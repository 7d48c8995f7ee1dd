// Paths put together from their parts.
#pragma once

#include <cstddef>

// Writes "<directory>/<name>" into `out`. Returns whether it fitted; otherwise `out` is "".
bool path_join(char* out, size_t size, const char* directory, const char* name);

template <size_t SIZE>
bool path_join(char (&out)[SIZE], const char* directory, const char* name) {
    return path_join(out, SIZE, directory, name);
}

// The same for a path and what is put behind it, as ".new".
bool path_extend(char* out, size_t size, const char* path, const char* suffix);

template <size_t SIZE>
bool path_extend(char (&out)[SIZE], const char* path, const char* suffix) {
    return path_extend(out, SIZE, path, suffix);
}
