#define LOG_TAG "vexastatsd"

#include "framework/payload_stream.h"

#include <string.h>

#include <new>

#include "base/open_file.h"
#include "base/unique_handle.h"
#include "framework/compress.h"
#include "framework/record_line.h"
#include "platform/log.h"

struct payload_stream {
    z_stream zlib = {};
    bool begun = false;
    size_t blocks = 0;
    uint64_t measured_input_len = 0;  // when it was last measured
    uint64_t measured_len = 0;        // 0: never
    unique_malloc<unsigned char> out;
    size_t out_len = 0;
    size_t out_size = 0;
};

namespace {

bool reserve_piece(payload_stream* stream) {
    if (stream->out_size - stream->out_len >= COMPRESS_PIECE) return true;
    const size_t size = stream->out_size * 2 + COMPRESS_PIECE;
    auto* grown = static_cast<unsigned char*>(realloc(stream->out.get(), size));
    if (!grown) return false;
    (void)stream->out.release();
    stream->out.reset(grown);
    stream->out_size = size;
    return true;
}

// Compresses what is in zlib.next_in and keeps what comes out.
bool pump(payload_stream* stream, int flush) {
    z_stream* zlib = &stream->zlib;
    size_t room = 0;
    do {
        if (!reserve_piece(stream)) return false;
        room = stream->out_size - stream->out_len;
        zlib->next_out = stream->out.get() + stream->out_len;
        zlib->avail_out = static_cast<uInt>(room);
        if (deflate(zlib, flush) == Z_STREAM_ERROR) return false;
        stream->out_len += room - zlib->avail_out;
        if (zlib->avail_out < room) stream->blocks++;
    } while (zlib->avail_out == 0);
    return true;
}

}  // namespace

void payload_stream_closer::operator()(payload_stream* stream) const {
    if (stream->begun) deflateEnd(&stream->zlib);
    delete stream;
}

unique_payload_stream payload_stream_open(const char* path) {
    unique_payload_stream stream(new (std::nothrow) payload_stream);
    if (!stream || compress_begin(&stream->zlib) != Z_OK) return nullptr;
    stream->begun = true;

    const unique_file record = fopen_regular(path, RECORD_FILE_MAX);
    if (!record || !skip_first_line(record.get())) return nullptr;
    unsigned char piece[COMPRESS_PIECE];
    size_t count;
    while ((count = fread(piece, 1, sizeof piece, record.get())) > 0) {
        if (!payload_stream_append(stream.get(), piece, count)) return nullptr;
    }
    return ferror(record.get()) ? nullptr : std::move(stream);
}

bool payload_stream_append(payload_stream* stream, const void* data, size_t len) {
    const auto* at = static_cast<const unsigned char*>(data);
    while (len > 0) {
        const size_t piece = len < COMPRESS_PIECE ? len : COMPRESS_PIECE;
        stream->zlib.next_in = const_cast<unsigned char*>(at);
        stream->zlib.avail_in = static_cast<uInt>(piece);
        if (!pump(stream, Z_NO_FLUSH)) return false;
        at += piece;
        len -= piece;
    }
    return true;
}

size_t payload_stream_input_len(const payload_stream* stream) {
    return stream->zlib.total_in;
}

size_t payload_stream_blocks(const payload_stream* stream) {
    return stream->blocks;
}

bool payload_stream_measure(payload_stream* stream, uint64_t* len) {
    z_stream copy = {};
    if (deflateCopy(&copy, &stream->zlib) != Z_OK) return false;
    unsigned char out[COMPRESS_PIECE];
    copy.avail_in = 0;
    do {
        copy.next_out = out;
        copy.avail_out = sizeof out;
        deflate(&copy, Z_FINISH);
    } while (copy.avail_out == 0);
    *len = copy.total_out;
    deflateEnd(&copy);
    stream->measured_input_len = stream->zlib.total_in;
    stream->measured_len = *len;
    return true;
}

bool payload_stream_len_at_most(const payload_stream* stream, uint64_t* len) {
    // A byte takes 15 bits at most, and lengthens the codes of those before it in its block by less
    // than it saves them from; a new block adds a table.
    constexpr uint64_t GROWTH_PER_BYTE = 2;
    constexpr uint64_t TABLE_MAX = 512;
    *len = stream->measured_len + TABLE_MAX +
           GROWTH_PER_BYTE * (stream->zlib.total_in - stream->measured_input_len);
    return stream->measured_len > 0;
}

bool payload_stream_finish(payload_stream* stream, FILE* out, size_t* len) {
    stream->zlib.avail_in = 0;
    if (!pump(stream, Z_FINISH)) return false;
    *len = stream->out_len;
    if (fwrite(stream->out.get(), 1, stream->out_len, out) == stream->out_len) return true;
    ALOGE("%s: fwrite failed.\n", "vexastats_compress");
    return false;
}
