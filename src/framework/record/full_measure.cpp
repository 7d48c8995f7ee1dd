#include "framework/record/full_measure.h"

#include <new>

#include "base/open_file.h"
#include "base/unique_handle.h"
#include "framework/record/compress.h"
#include "framework/record/record_file.h"

struct full_measure {
    z_stream zlib = {};
    bool begun = false;
    uint64_t answered_input_len = 0;  // when it was last asked
    uint64_t answered_len = 0;        // 0: never
};

namespace {

// What comes out is counted by the compressor itself.
bool run(z_stream* zlib, int flush) {
    return compress_run(zlib, flush, [](const unsigned char*, size_t) { return true; }) == 0;
}

}  // namespace

void full_measure_closer::operator()(full_measure* measure) const {
    if (measure->begun) deflateEnd(&measure->zlib);
    delete measure;
}

unique_full_measure full_measure_begin(const char* path) {
    unique_full_measure measure(new (std::nothrow) full_measure);
    if (!measure || compress_begin(&measure->zlib) != Z_OK) return nullptr;
    measure->begun = true;

    const unique_file record = fopen_regular(path, RECORD_FILE_MAX);
    if (!record) return nullptr;
    unsigned char piece[COMPRESS_PIECE];
    size_t count;
    while ((count = fread(piece, 1, sizeof piece, record.get())) > 0) {
        if (!full_measure_append(measure.get(), piece, count)) return nullptr;
    }
    return ferror(record.get()) ? nullptr : std::move(measure);
}

bool full_measure_append(full_measure* measure, const void* data, size_t len) {
    const auto* at = static_cast<const unsigned char*>(data);
    while (len > 0) {
        const size_t piece = len < COMPRESS_PIECE ? len : COMPRESS_PIECE;
        measure->zlib.next_in = const_cast<unsigned char*>(at);
        measure->zlib.avail_in = static_cast<uInt>(piece);
        if (!run(&measure->zlib, Z_NO_FLUSH)) return false;
        at += piece;
        len -= piece;
    }
    return true;
}

bool full_measure_len(full_measure* measure, uint64_t* len) {
    z_stream copy = {};
    if (deflateCopy(&copy, &measure->zlib) != Z_OK) return false;
    copy.avail_in = 0;
    const bool ended = run(&copy, Z_FINISH);
    *len = copy.total_out;
    deflateEnd(&copy);
    measure->answered_input_len = measure->zlib.total_in;
    measure->answered_len = *len;
    return ended;
}

bool full_measure_len_at_most(const full_measure* measure, uint64_t* len) {
    // A literal takes 15 bits at most, a match 48 and stands for at least three bytes.
    constexpr uint64_t GROWTH_PER_BYTE = 2;
    // What the answer could have for less than it costs once the record goes on: the last 262
    // bytes, whose matches were sought no further than its end (524); the distances of a block that
    // had two, if a third makes half of its 16383 symbols a bit longer (1024); and a table (320).
    constexpr uint64_t SLACK = 2048;
    *len = measure->answered_len + SLACK +
           GROWTH_PER_BYTE * (measure->zlib.total_in - measure->answered_input_len);
    return measure->answered_len > 0;
}
