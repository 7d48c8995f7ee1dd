// Opening what lies under a name, whoever put it there. Nothing is followed, nothing is waited for
// (a FIFO without a writer, say), and nothing but a regular file within its bound is handed out.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "base/unique_handle.h"

// Opens regular file `path` for reading. The last part of the path must not be a symbolic link.
// Returns the descriptor, or none with errno set: ELOOP for a link, EINVAL for anything else that
// is no regular file, EFBIG for one of more than max_len bytes. A file can grow once it is open, so
// readers keep to their bound too.
unique_fd open_regular(const char* path, off_t max_len);

// The same as a stream.
unique_file fopen_regular(const char* path, off_t max_len);

// Opens `path`, relative to dir_fd or AT_FDCWD, for a reader that takes one bounded piece of it, as
// of the kernel's short texts. Not followed and never waiting either, but without a look at what it
// is, which saves a call a file: reading a directory fails, a FIFO gives nothing.
unique_fd open_text_at(int dir_fd, const char* path);

// Opens regular file `path` for reading and writing, without changing it. Errors as above.
unique_fd open_update(const char* path, off_t max_len);

// Makes regular file `path`, which must not exist (EEXIST), open for reading and writing.
unique_fd open_new(const char* path, mode_t mode);

// Opens regular file `path` for reading and writing, empty; makes it when it does not exist.
unique_fd open_emptied(const char* path, mode_t mode);

// Puts a stream around the descriptor; none, with errno set, when there is none or no memory.
unique_file stream_of(unique_fd fd, const char* mode);

// Opens directory `path` for listing. The last part of the path must not be a symbolic link. None,
// with errno set (ENOTDIR for a link, too), when it cannot be opened.
unique_dir open_unlinked_dir(const char* path);

// Opens the directory that `path` lies in, for calls relative to it; the directory's last part must
// not be a symbolic link. *name is the rest of `path`. None, with errno set, when it cannot be
// opened.
unique_fd open_parent(const char* path, const char** name);

// Opens "<directory>/<name>" where the directory belongs to others: neither the directory's last
// part nor the file may be a link, and the file must have no second name (EMLINK), through which it
// could be a file of the daemon's own or one that only the daemon may read.
unique_fd open_outsider(const char* directory, const char* name, off_t max_len);
