// The payload of an open record, compressed as the record grows. It answers "how large would the
// payload be if the record ended here" without compressing the record again, and becomes the
// upload's payload when the record is handed over. Memory: about 270 kB and the compressed bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

struct payload_stream;
struct payload_stream_closer {
    void operator()(payload_stream* stream) const;
};
using unique_payload_stream = std::unique_ptr<payload_stream, payload_stream_closer>;

// Begins with what the record at `path` holds behind its first line. Returns null when memory or
// the file fails; the caller then compresses the whole record when it has to know. Not logged.
unique_payload_stream payload_stream_open(const char* path);

// Goes on with `len` bytes that were appended to the record. Returns false when memory fails; the
// stream is of no use then.
bool payload_stream_append(payload_stream* stream, const void* data, size_t len);

// Bytes of the record, behind its first line, that the stream has taken.
size_t payload_stream_input_len(const payload_stream* stream);

// How many times the compressor has closed a block so far.
size_t payload_stream_blocks(const payload_stream* stream);

// Exact size in bytes of the payload if it ended here. Returns false when memory fails.
bool payload_stream_measure(payload_stream* stream, uint64_t* len);

// A size in bytes that the payload does not exceed if it ended here, from the last measure and what
// was appended since. Costs nothing. Returns false when it was never measured.
bool payload_stream_len_at_most(const payload_stream* stream, uint64_t* len);

// Ends the payload and writes it to `out`; *len is its size. The stream is of no use afterwards.
// Returns false when memory fails or, which is logged, the write.
bool payload_stream_finish(payload_stream* stream, FILE* out, size_t* len);
