// The compressor's settings, which the upload format fixes.
#pragma once

#include <errno.h>
#include <zlib.h>

#include <cstddef>
#include <cstdio>

// Bytes that are read, compressed and written at a time.
inline constexpr size_t COMPRESS_PIECE = 16384;

// Window bits for zlib: 32 KB, and 16 more for a gzip wrapper.
inline constexpr int GZIP_WINDOW_BITS = 15 + 16;

// Whether a result of deflate or inflate is an error. No progress is none: there was nothing to do.
inline bool zlib_has_failed(int result) {
    return result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR;
}

// Runs the compressor over what is in next_in and hands each piece that comes out, as (bytes, len),
// to `take`, which returns whether to go on. Returns 0, -EIO when `take` ended it, or the
// compressor's error, which it also is when a stream that is to end does not. The one place where
// deflate is called.
template <class Take>
int compress_run(z_stream* stream, int flush, Take take) {
    unsigned char piece[COMPRESS_PIECE];
    int result;
    do {
        stream->next_out = piece;
        stream->avail_out = sizeof piece;
        result = deflate(stream, flush);
        if (zlib_has_failed(result)) return result;
        if (!take(piece, sizeof piece - stream->avail_out)) return -EIO;
    } while (stream->avail_out == 0);
    return flush == Z_FINISH && result != Z_STREAM_END ? Z_STREAM_ERROR : 0;
}

// deflateInit2 with the upload format's settings. Returns Z_OK or the zlib error.
int compress_begin(z_stream* stream);

// Deflates `in` from its position to its end into `out` (null: only counts) and adds the number of
// compressed bytes to *count. Returns 0, -EINVAL, or the zlib error of the set-up; failures are
// logged. Any thread.
int vexastats_compress(FILE* in, FILE* out, size_t* count);
