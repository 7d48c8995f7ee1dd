#define LOG_TAG "vexastatsd"

#include "framework/record/full_test.h"

#include <stdio.h>

#include "framework/record/compress.h"
#include "framework/record/record_file.h"
#include "platform/log.h"

namespace {

constexpr char WRITER[] = "vexastats_write_file";

// What a file of that many record bytes is estimated to need in the upload.
uint64_t estimated_len(const collector_info* row, uint64_t record_len) {
    return record_len * static_cast<uint64_t>(row->compress_ratio) / 1000;
}

// The comparison is made in 32 bits, as the row's size is.
bool exceeds_size(const collector_info* row, uint64_t payload_len) {
    return static_cast<int32_t>(row->hdr.header_len + payload_len) > row->size;
}

// Compresses the whole record, first line included, into nothing.
full_test measure_whole_record(const write_req& req, uint64_t estimate) {
    FILE* stream = req.handle->file.get();
    rewind(stream);
    size_t compressed = 0;
    if (vexastats_compress(stream, nullptr, &compressed) != 0) {
        ALOGE("failed to get compressed size\n");
        (void)record_seek_to_end(stream, WRITER);
        return full_test::FAILED;
    }
    if (record_seek_to_end(stream, WRITER) < 0) return full_test::FAILED;
    return exceeds_size(req.row, compressed + estimate) ? full_test::FULL : full_test::FITS;
}

// As measure_whole_record, of which it gives the answer, by the measure that runs along.
full_test measure_record(const write_req& req, uint64_t estimate) {
    unique_full_measure& measure = req.handle->measure;
    if (!measure) measure = full_measure_begin(req.row->rec_fname);

    uint64_t len = 0;
    if (measure && full_measure_len_at_most(measure.get(), &len) &&
        !exceeds_size(req.row, len + estimate)) {
        return full_test::FITS;
    }
    if (measure && full_measure_len(measure.get(), &len)) {
        return exceeds_size(req.row, len + estimate) ? full_test::FULL : full_test::FITS;
    }
    measure.reset();
    return measure_whole_record(req, estimate);
}

}  // namespace

full_test test_full(const write_req& req, off_t pos) {
    const size_t len = req.head_len + req.len;
    if (!exceeds_size(req.row, estimated_len(req.row, len + static_cast<uint64_t>(pos))))
        return full_test::FITS;
    return measure_record(req, estimated_len(req.row, len));
}
