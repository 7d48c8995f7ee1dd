// Replacing a file as a whole.
#pragma once

#include <cstddef>

// Replaces file `path` by one with `len` bytes of `data` (mode 0600): written beside it under the
// name path + ".new", synced, and renamed, so that a reader or a kill never meets half of it.
// Returns 0 or a negative errno, with *opened (may be null) telling whether it was got as far as
// writing; not logged. Any thread.
int vexastats_replace_file(const char* path, const void* data, size_t len, bool* opened = nullptr);

// The same with a name of the caller's for the file beside it, in the same directory.
int vexastats_replace_file_by(const char* path, const char* beside, const void* data, size_t len,
                              bool* opened = nullptr);
