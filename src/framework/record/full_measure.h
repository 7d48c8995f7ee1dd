// How large an open record would be if it were compressed as it stands, first line included. The
// full test asks that at every append once the record is nearly full. Compressing the record each
// time would cost a hundred times what the upload costs; here the compressor runs along with the
// record, and a copy of it is ended on the spot. The answer is that of compressing the whole
// record. Memory: about 270 kB, and as much again during an answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct full_measure;
struct full_measure_closer {
    void operator()(full_measure* measure) const;
};
using unique_full_measure = std::unique_ptr<full_measure, full_measure_closer>;

// Begins with what the record at `path` holds. Returns null when memory or the file fails; the
// caller then compresses the record when it has to know. Not logged. Thread: as the record's.
unique_full_measure full_measure_begin(const char* path);

// Goes on with `len` bytes that were appended to the record. Returns false when memory fails; the
// measure is of no use then.
bool full_measure_append(full_measure* measure, const void* data, size_t len);

// Size in bytes of the compressed record if it ended here. Returns false when memory fails.
bool full_measure_len(full_measure* measure, uint64_t* len);

// A size in bytes that the compressed record does not exceed if it ended here, from the last answer
// and what was appended since. Costs nothing. Returns false before the first answer.
bool full_measure_len_at_most(const full_measure* measure, uint64_t* len);
