#define LOG_TAG "vexastatsd"

#include "framework/record/compress.h"

#include <errno.h>

#include "platform/log.h"

int compress_begin(z_stream* stream) {
    constexpr int LEVEL_DEFAULT = -1;
    constexpr int MEMORY_LEVEL = 8;
    return deflateInit2(stream, LEVEL_DEFAULT, Z_DEFLATED, GZIP_WINDOW_BITS, MEMORY_LEVEL,
                        Z_DEFAULT_STRATEGY);
}

namespace {

struct deflate_guard {
    z_stream* stream;
    ~deflate_guard() { deflateEnd(stream); }
};

}  // namespace

int vexastats_compress(FILE* in, FILE* out, size_t* count) {
    if (!in) return -EINVAL;
    z_stream stream = {};
    const int error = compress_begin(&stream);
    if (error != Z_OK) {
        ALOGE("deflateInit2 failed. err:%d\n", error);
        return error;
    }
    const deflate_guard guard{&stream};

    unsigned char piece[COMPRESS_PIECE];
    for (bool end = false; !end;) {
        const size_t have = fread(piece, 1, sizeof piece, in);
        end = feof(in) != 0;
        if (have < sizeof piece && !end) {
            ALOGE("%s: fread failed.\n", __func__);
            return -EINVAL;
        }
        stream.next_in = piece;
        stream.avail_in = static_cast<uInt>(have);
        const int result = compress_run(&stream, end ? Z_FINISH : Z_NO_FLUSH,
                                        [&](const unsigned char* bytes, size_t len) {
                                            *count += len;
                                            return !out || fwrite(bytes, 1, len, out) == len;
                                        });
        if (result == -EIO) ALOGE("%s: fwrite failed.\n", __func__);
        if (result != 0) return -EINVAL;
    }
    return 0;
}
