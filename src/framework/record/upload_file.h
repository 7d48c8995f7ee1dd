// The check of a finished file.
#pragma once

#include <cstdint>

#include "framework/format/upload_header.h"

// Reads the finished upload file open at `fd` from its start and checks it: header version and
// lengths, and a payload that is one whole gzip stream ending where the file does.
// Returns whether it is whole; *header holds what was read, *data_len the bytes of the payload when
// it is not compressed.
bool upload_file_is_whole(int fd, record_header* header, uint32_t* data_len);
