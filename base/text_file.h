// Small texts under a name: the kernel's one-line files, words that somebody left.
#pragma once

#include <sys/types.h>

#include <cstddef>

// Largest configuration, status or override file that is looked at, bytes.
inline constexpr off_t SMALL_FILE_MAX = off_t{1} << 20;

// Reads at most `len` bytes of "<dir>/<name>" into `buf`, which holds len + 1, and terminates it.
// Returns the count; any failure gives "" and 0. Any thread.
int read_max_n_chars_from_file(const char* dir, const char* name, char* buf, int len);

// Reads the first line of `path` (at most size - 1 characters), relative to an open directory (or
// AT_FDCWD), into `buf` and removes one trailing newline. Returns the length of the line, -ENOENT
// and the like when the file cannot be opened, or -ENODATA when it holds no line. Any thread.
ssize_t vexastats_read_line_at(int dir_fd, const char* path, char* buf, size_t size);

// Whether `path` can be opened as a directory; null: false. Any thread.
bool is_dir_exist(const char* path);
