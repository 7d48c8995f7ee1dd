#include "base/line_reader.h"

#include <string.h>

#include <algorithm>

#include "base/file_io.h"

namespace {

// Reads on behind what is left, which moves to the buffer's start when there is no room otherwise.
void fill(line_reader* reader) {
    if (reader->end == sizeof reader->bytes) {
        memmove(reader->bytes, reader->bytes + reader->begin, reader->end - reader->begin);
        reader->end -= reader->begin;
        reader->begin = 0;
    }
    const ssize_t got = read_some(reader->fd.get(), reader->bytes + reader->end,
                                  sizeof reader->bytes - reader->end);
    if (got > 0) {
        reader->end += static_cast<size_t>(got);
    } else {
        reader->at_eof = true;
    }
}

std::string_view take(line_reader* reader, size_t len) {
    const std::string_view line(reader->bytes + reader->begin, len);
    reader->begin += len;
    return line;
}

}  // namespace

bool line_reader_next(line_reader* reader, size_t max_len, std::string_view* line) {
    max_len = std::min(max_len, sizeof reader->bytes);
    for (;;) {
        const size_t have = reader->end - reader->begin;
        const size_t looked_at = std::min(have, max_len);
        const char* from = reader->bytes + reader->begin;
        if (const void* newline = memchr(from, '\n', looked_at)) {
            *line = take(reader, static_cast<size_t>(static_cast<const char*>(newline) - from));
            ++reader->begin;
            return true;
        }
        if (have >= max_len || (reader->at_eof && have > 0)) {
            *line = take(reader, looked_at);
            return true;
        }
        if (reader->at_eof) return false;
        if (have == 0) reader->begin = reader->end = 0;
        fill(reader);
    }
}
