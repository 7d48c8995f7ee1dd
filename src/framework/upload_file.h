// The upload file's bytes: header, and the check of a finished file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/collector_info.h"

inline constexpr size_t UPLOAD_HEADER_LEN = 53;

// Writes the header's fields big-endian and without padding into `out`.
void upload_header_encode(const record_header& header, uint8_t (&out)[UPLOAD_HEADER_LEN]);

// Reads such bytes back.
void upload_header_decode(const uint8_t (&in)[UPLOAD_HEADER_LEN], record_header* header);

// Reads the finished upload file open at `fd` from its start and checks it: header version and
// lengths, and a payload that is one whole gzip stream ending where the file does.
// Returns whether it is whole; *header holds what was read, *data_len the bytes of the payload when
// it is not compressed.
bool upload_file_is_whole(int fd, record_header* header, uint32_t* data_len);
