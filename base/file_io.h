// Whole reads and writes on a descriptor: an interrupted call goes on, a short one is completed.
#pragma once

#include <sys/types.h>

#include <cstddef>

// As read(2), once, also when a signal handler ran first.
ssize_t read_some(int fd, void* buf, size_t size);

// Reads until `size` bytes have come or the file ends. Returns their number, or -1 with errno set.
ssize_t read_full(int fd, void* buf, size_t size);

// The same from `offset` on, without moving the descriptor's position.
ssize_t pread_full(int fd, void* buf, size_t size, off_t offset);

// Reads until `size` bytes have come, a newline is among them, or the file ends. Returns their
// number, or -1 with errno set.
ssize_t read_to_newline(int fd, char* buf, size_t size);

// Writes all of `data`. Returns false with errno set (ENOSPC where the kernel took nothing without
// saying why); how much was written is then not known.
bool write_full(int fd, const void* data, size_t len);
