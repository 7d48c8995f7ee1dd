#define LOG_TAG "vexastatsd"

#include "framework/record/old_record.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "framework/record/hand_over.h"
#include "framework/record/record_file.h"
#include "framework/record/record_path.h"
#include "platform/log.h"

namespace {

bool has_data_after(FILE* stream, size_t first_line_len) {
    struct stat status = {};
    return fstat(fileno(stream), &status) == 0 &&
           static_cast<uint64_t>(status.st_size) > first_line_len;
}

// Goes on with the record open in `stream`: its times, its name, and the end of its data.
void resume(collector_info* row, const record_times& times, FILE* stream) {
    row->hdr.realtime_ms = times.realtime_ms;
    row->hdr.uptime_ms = times.uptime_ms;
    row->hdr.timezone_min = times.timezone_min;
    (void)fseek(stream, 0, SEEK_END);
}

// Hands an old record over, without beginning a new one. One that cannot be handed over is resumed:
// what was collected is not given up because it could not be delivered.
old_record hand_over_old_record(collector_info* row, const record_times& times,
                                unique_file* stream) {
    record_path path;
    memcpy(path, row->rec_fname, sizeof path);
    record_handle handle;
    handle.file = std::move(*stream);
    if (move_to_dropbox(row, &handle, false) == 0) return old_record::GONE;
    ALOGE("failed to move old %s to drbox\n", path);

    memcpy(row->rec_fname, path, sizeof row->rec_fname);
    *stream = record_open(path);
    if (!*stream) return errno == ENOENT ? old_record::GONE : old_record::STAYS;
    if (!has_data_after(stream->get(), 0)) return old_record::GONE;  // its finished file waits
    resume(row, times, stream->get());
    return old_record::RESUMED;
}

}  // namespace

old_record deal_with_old_record(const record_init_req& req, unique_file* stream) {
    collector_info* row = req.row;
    if (req.discard) {
        if (remove(row->rec_fname) != 0)
            ALOGE("failed to remove %s. err:%d\n", row->rec_fname, errno);
        return old_record::GONE;
    }
    *stream = record_open(row->rec_fname);
    if (!*stream) {
        ALOGE("failed to open %s. err:%d\n", row->rec_fname, errno);
        return old_record::STAYS;
    }
    char line[RECORD_LINE_SIZE];
    const size_t line_len = record_read_line(stream->get(), line);
    if (line_len == 0) {
        ALOGE("failed to read timestamp\n");
        return has_data_after(stream->get(), 0) ? old_record::STAYS : old_record::GONE;
    }
    record_times times;
    if (!record_line_parse(line, &times) ||
        times.version != static_cast<int32_t>(row->hdr.rec_version)) {
        // The old file is then overwritten, not dropped: deliberate.
        ALOGE("invalid timestamp format\n");
        return old_record::GONE;
    }
    resume(row, times, stream->get());
    if (req.resume) return old_record::RESUMED;
    if (!has_data_after(stream->get(), line_len)) return old_record::GONE;
    return hand_over_old_record(row, times, stream);
}
