#define LOG_TAG "vexastatsd"

#include "framework/record/sequence.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/file_io.h"
#include "base/open_file.h"
#include "base/replace_file.h"
#include "base/text_file.h"
#include "platform/log.h"

namespace {

uint32_t read_sequence(const char* path) {
    char text[32];
    if (vexastats_read_line_at(AT_FDCWD, path, text, sizeof text) < 0) return 0;
    return static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

// Needs no room when the file is there: the number goes over the old one, and what was longer is
// cut off afterwards.
bool write_in_place(const char* path, const char* text, size_t len) {
    unique_fd fd = open_update(path, SMALL_FILE_MAX);
    if (!fd && errno == ENOENT) fd = open_new(path, 0600);
    return fd && write_full(fd.get(), text, len) &&
           ftruncate(fd.get(), static_cast<off_t>(len)) == 0 && fsync(fd.get()) == 0;
}

bool write_sequence(const char* path, uint32_t next) {
    char text[16];
    const auto len = static_cast<size_t>(snprintf(text, sizeof text, "%u\n", next));
    return vexastats_replace_file(path, text, len) == 0 || write_in_place(path, text, len);
}

// Path of the sequence file that belongs to `record`; false when that has no ".".
bool sequence_path(const record_path& record, record_path& path) {
    memcpy(path, record, sizeof path);
    return record_path_end_in(path, ".seq");
}

}  // namespace

sequence_turn::sequence_turn(const collector_info& row)
    : counted_(sequence_path(row.rec_fname, path_)),
      next_(counted_ ? read_sequence(path_) : NO_SEQUENCE) {}

uint32_t sequence_turn::take() {
    if (!counted_) return NO_SEQUENCE;
    committed_ = false;
    return next_++;
}

void sequence_turn::commit() {
    if (!committed_) (void)write_sequence(path_, next_);
    committed_ = true;
}

void sequence_keep_ahead_of(const record_path& finished, uint32_t number) {
    record_path path;
    if (number == NO_SEQUENCE || !sequence_path(finished, path) || read_sequence(path) > number) {
        return;
    }
    if (!write_sequence(path, number + 1)) ALOGE("failed to open %s. err:%d\n", path, errno);
}
