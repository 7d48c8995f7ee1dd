// Reading a whole file, with a word in the log when that fails.
#pragma once

#include <cstddef>

#include "base/owned_bytes.h"

// Reads regular file `path`, which `fd` has open at its start, into one block with a zero byte
// behind it. Returns false when it is empty, longer than max_len bytes or cannot be read; logged,
// with `caller` as the function's name where there is no memory. Any thread.
bool vexastats_read_whole(int fd, const char* path, const char* caller, size_t max_len,
                          owned_bytes* out);

// The same with a file of any length that it opens itself. Returns 0, -EINVAL, or -ENOENT when it
// cannot be opened, which is logged too. Any thread.
int vexastats_read_file(const char* path, const char* caller, owned_bytes* out);
