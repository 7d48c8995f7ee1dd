// Reads upload files: the 53-byte header and the payload behind it (docs/formats.md). Shares no
// knowledge of the format with the daemon that writes it, so that it can serve as a check on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

inline constexpr size_t UPLOAD_FILE_HEADER_BYTES = 53;
inline constexpr uint32_t UPLOAD_FILE_HEADER_VERSION = 7;

// A payload that unpacks to more than this is refused: a data file of the modem of 16 MiB, the most
// that the daemon takes, and what it is wrapped in.
inline constexpr size_t UPLOAD_PAYLOAD_MAX_BYTES = (size_t{16} << 20) + 4096;

// The header's fields in the file's order.
struct upload_header {
    uint32_t header_version = 0;
    uint32_t header_len = 0;
    uint32_t client_id = 0;
    uint8_t data_type = 0;
    uint32_t rec_version = 0;
    uint64_t realtime_ms = 0;  // since 1970, when the record was begun
    uint32_t payload_len = 0;  // compressed bytes
    uint8_t header_attr1 = 0;
    uint8_t header_attr2 = 0;
    uint64_t uptime_ms = 0;  // since boot, when the record was begun
    int16_t timezone_min = 0;
    uint64_t campaign_id = 0;
    uint32_t seq = 0;
};

struct upload_file {
    upload_header header;
    std::vector<uint8_t> payload;  // unpacked
};

// What an offset counts from: the first byte of the file, or of the unpacked payload.
enum class upload_place { file, payload };

// A file that is damaged or cannot be read; what() names the offset and what is wrong there.
class upload_error : public std::runtime_error {
  public:
    upload_error(upload_place place, size_t offset, const std::string& problem);
    upload_place place() const { return place_; }
    size_t offset() const { return offset_; }

  private:
    upload_place place_;
    size_t offset_;
};

// Decodes a whole upload file. The gzip stream must be whole, pass its checksum and end where the
// file ends. Throws upload_error. Any thread.
upload_file upload_parse(std::span<const uint8_t> bytes,
                         size_t max_payload = UPLOAD_PAYLOAD_MAX_BYTES);

// Reads and decodes the file at `path`. Throws upload_error. Any thread.
upload_file upload_read(const std::string& path);
