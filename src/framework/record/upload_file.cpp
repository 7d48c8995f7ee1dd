#include "framework/record/upload_file.h"

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "base/file_io.h"
#include "framework/record/compress.h"

namespace {

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
        const ssize_t count = read_some(fd, in, sizeof in);
        if (count < 0) return false;
        *data_len = static_cast<uint32_t>(stream.total_out);
        if (count == 0) return state == Z_STREAM_END;
        if (state == Z_STREAM_END) return false;  // bytes behind the end
        stream.next_in = in;
        stream.avail_in = static_cast<uInt>(count);
        do {
            stream.next_out = out;
            stream.avail_out = sizeof out;
            state = inflate(&stream, Z_NO_FLUSH);
            if (zlib_has_failed(state)) return false;
            // The end may fill the last piece: what is full is no sign that there is more.
        } while (state != Z_STREAM_END && (stream.avail_in > 0 || stream.avail_out == 0));
        if (stream.avail_in > 0) return false;
    }
}

}  // namespace

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
