#define LOG_TAG "vexastatsd"

#include "framework/record/record_file.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "base/open_file.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

// Without a buffer of its own the stream holds nothing back that a failed write could leave behind.
unique_file unbuffered(unique_fd fd) {
    unique_file stream = stream_of(std::move(fd), "r+b");
    if (stream) (void)setvbuf(stream.get(), nullptr, _IONBF, 0);
    return stream;
}

// Returns false, logged, when the first line is not on its way to the disk.
bool write_line(FILE* stream, collector_info* row, const char* caller) {
    record_set_times_now(row);
    if (!record_line_write(stream, row)) {
        ALOGE("failed to write timestamp\n");
        return false;
    }
    if (fflush(stream) != 0) {
        ALOGE("%s: failed to flush. err:%d\n", caller, errno);
        return false;
    }
    return true;
}

}  // namespace

unique_file record_open(const char* path) {
    return unbuffered(open_update(path, RECORD_FILE_MAX));
}

unique_file record_begin(collector_info* row, const char* caller, bool over_old) {
    constexpr mode_t MODE = 0666;
    unique_file stream =
        unbuffered(over_old ? open_emptied(row->rec_fname, MODE) : open_new(row->rec_fname, MODE));
    if (!stream) {
        ALOGE("failed to open %s. err:%d\n", row->rec_fname, errno);
        return nullptr;
    }
    if (!write_line(stream.get(), row, caller)) {
        // Half a line could still read like a whole one, and what is appended would follow on it.
        (void)ftruncate(fileno(stream.get()), 0);
        return nullptr;
    }
    return stream;
}

size_t record_read_line(FILE* stream, char (&line)[RECORD_LINE_SIZE]) {
    const ssize_t count = pread(fileno(stream), line, sizeof line - 1, 0);
    if (count <= 0) return 0;
    auto len = static_cast<size_t>(count);
    if (const void* newline = memchr(line, '\n', len)) {
        len = static_cast<size_t>(static_cast<const char*>(newline) - line) + 1;
    }
    line[len] = '\0';
    return len;
}

off_t record_seek_to_end(FILE* stream, const char* caller) {
    if (fseeko(stream, 0, SEEK_END) != 0) {
        ALOGE("%s fseek failed. err:%d\n", caller, errno);
        return -1;
    }
    return ftello(stream);
}

void record_set_times_now(collector_info* row) {
    row->hdr.realtime_ms = vexastats_real_time_ms();
    row->hdr.uptime_ms = vexastats_uptime_ms();
    row->hdr.timezone_min = vexastats_timezone_min();
}

bool record_line_write(FILE* stream, const collector_info* row) {
    char line[RECORD_LINE_SIZE];
    const size_t len = record_line_format(row->hdr, line);
    return fwrite(line, 1, len, stream) == len;
}
