// The header in front of an upload's payload. docs/formats.md describes it for readers.
#pragma once

#include <cstddef>
#include <cstdint>

// Kinds of payload in an upload file.
enum data_type : uint8_t {
    DATA_TYPE_STATS = 1,
    DATA_TYPE_MICRODUMP = 2,
    DATA_TYPE_STATIC = 3,
    DATA_TYPE_MPS = 4,
};

// The upload file's header in host byte order. It is written field by field, big-endian, in this
// order and without padding.
struct __attribute__((packed)) record_header {
    uint32_t header_version = 7;
    uint32_t header_len = 53;  // also the base of the test whether a record is full
    uint32_t client_id = 0;
    uint8_t data_type = DATA_TYPE_STATS;
    uint32_t rec_version = 1;
    uint64_t realtime_ms = 0;  // wall clock at which the record was begun
    uint32_t payload_len = 0;  // bytes of compressed payload behind the header
    uint8_t header_attr1 = 0;  // 0 becomes 1 when the header is written
    uint8_t header_attr2 = 1;
    uint64_t uptime_ms = 0;    // boot-time clock at which the record was begun
    int16_t timezone_min = 0;  // minutes ahead of UTC when the record was begun
    uint64_t campaign_id = 0;
    uint32_t seq = 0;  // for layout only: the number comes from the sequence file
};
static_assert(sizeof(record_header) == 53);

inline constexpr size_t UPLOAD_HEADER_LEN = sizeof(record_header);

// Writes the header's fields big-endian and without padding into `out`.
void upload_header_encode(const record_header& header, uint8_t (&out)[UPLOAD_HEADER_LEN]);

// Reads such bytes back.
void upload_header_decode(const uint8_t (&in)[UPLOAD_HEADER_LEN], record_header* header);
