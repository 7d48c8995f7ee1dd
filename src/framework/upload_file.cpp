#include "framework/upload_file.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "framework/compress.h"

namespace {

// A cursor that converts between integers and big-endian bytes, in either direction.
template <class Int>
void put(uint8_t** at, Int value) {
    for (size_t i = sizeof(Int); i-- > 0;) {
        *(*at)++ = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
}

template <class Int>
Int get(const uint8_t** at) {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(Int); i++) value = value << 8 | *(*at)++;
    return static_cast<Int>(value);
}

ssize_t read_piece(int fd, unsigned char* piece, size_t size) {
    ssize_t count;
    do {
        count = read(fd, piece, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

struct inflate_guard {
    z_stream* stream;
    ~inflate_guard() { inflateEnd(stream); }
};

// Whether the rest of `fd` is exactly one gzip stream with the right check sums.
bool is_one_gzip_stream(int fd, uint32_t* data_len) {
    z_stream stream = {};
    if (inflateInit2(&stream, GZIP_WINDOW_BITS) != Z_OK) return false;
    const inflate_guard guard{&stream};

    unsigned char in[COMPRESS_PIECE];
    unsigned char out[COMPRESS_PIECE];
    int state = Z_OK;
    for (;;) {
        const ssize_t count = read_piece(fd, in, sizeof in);
        if (count < 0) return false;
        *data_len = static_cast<uint32_t>(stream.total_out);
        if (count == 0) return state == Z_STREAM_END;
        stream.next_in = in;
        stream.avail_in = static_cast<uInt>(count);
        do {
            if (state == Z_STREAM_END) return false;  // bytes behind the end
            stream.next_out = out;
            stream.avail_out = sizeof out;
            state = inflate(&stream, Z_NO_FLUSH);
            if (state != Z_OK && state != Z_STREAM_END && state != Z_BUF_ERROR) return false;
        } while (stream.avail_in > 0 || stream.avail_out == 0);
    }
}

}  // namespace

void upload_header_encode(const record_header& header, uint8_t (&out)[UPLOAD_HEADER_LEN]) {
    uint8_t* at = out;
    put<uint32_t>(&at, header.header_version);
    put<uint32_t>(&at, header.header_len);
    put<uint32_t>(&at, header.client_id);
    put<uint8_t>(&at, header.data_type);
    put<uint32_t>(&at, header.rec_version);
    put<uint64_t>(&at, header.realtime_ms);
    put<uint32_t>(&at, header.payload_len);
    put<uint8_t>(&at, header.header_attr1);
    put<uint8_t>(&at, header.header_attr2);
    put<uint64_t>(&at, header.uptime_ms);
    put<int16_t>(&at, header.timezone_min);
    put<uint64_t>(&at, header.campaign_id);
    put<uint32_t>(&at, header.seq);
}

void upload_header_decode(const uint8_t (&in)[UPLOAD_HEADER_LEN], record_header* header) {
    const uint8_t* at = in;
    header->header_version = get<uint32_t>(&at);
    header->header_len = get<uint32_t>(&at);
    header->client_id = get<uint32_t>(&at);
    header->data_type = get<uint8_t>(&at);
    header->rec_version = get<uint32_t>(&at);
    header->realtime_ms = get<uint64_t>(&at);
    header->payload_len = get<uint32_t>(&at);
    header->header_attr1 = get<uint8_t>(&at);
    header->header_attr2 = get<uint8_t>(&at);
    header->uptime_ms = get<uint64_t>(&at);
    header->timezone_min = get<int16_t>(&at);
    header->campaign_id = get<uint64_t>(&at);
    header->seq = get<uint32_t>(&at);
}

bool upload_file_is_whole(int fd, record_header* header, uint32_t* data_len) {
    uint8_t bytes[UPLOAD_HEADER_LEN];
    struct stat status = {};
    if (fstat(fd, &status) != 0 || pread(fd, bytes, sizeof bytes, 0) != sizeof bytes) return false;
    upload_header_decode(bytes, header);
    if (header->header_version != 7 || header->header_len != UPLOAD_HEADER_LEN) return false;
    if (static_cast<uint64_t>(status.st_size) !=
        UPLOAD_HEADER_LEN + uint64_t{header->payload_len}) {
        return false;
    }
    return lseek(fd, UPLOAD_HEADER_LEN, SEEK_SET) == UPLOAD_HEADER_LEN &&
           is_one_gzip_stream(fd, data_len);
}
