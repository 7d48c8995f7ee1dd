#define LOG_TAG "vexastatsd"

#include "framework/record/record.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/open_file.h"
#include "base/path.h"
#include "base/unique_handle.h"
#include "framework/record/compress.h"
#include "framework/record/hand_over.h"
#include "framework/record/record_file.h"
#include "framework/record/recovery.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

// Serialises every append and hand-over of all collectors.
vexa_mutex g_record_lock;

// ---- Beginning

// Fills row->rec_fname with "<dir>/<name>"; false when it does not fit.
bool set_record_name(collector_info* row, const char* dir, const char* name) {
    if (path_join(row->rec_fname, dir, name)) return true;
    errno = ENAMETOOLONG;
    return false;
}

// Finds the first entry of the directory whose name begins with `prefix`.
bool find_old_record(DIR* dir, const record_init_req& req) {
    while (const dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, req.prefix, strlen(req.prefix)) == 0) {
            return set_record_name(req.row, req.dir, entry->d_name);
        }
    }
    return false;
}

bool has_data_after(FILE* stream, size_t first_line_len) {
    struct stat status = {};
    return fstat(fileno(stream), &status) == 0 &&
           static_cast<uint64_t>(status.st_size) > first_line_len;
}

// What becomes of the record that an earlier run left.
enum class old_record {
    RESUMED,  // the request's stream goes on with it
    GONE,     // handed over, deleted, or of no use: a new one takes its place
    STAYS,    // it could not be looked at or handed over
};

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
    handle.file = stream->release();
    if (move_to_dropbox(row, &handle, false) == 0) return old_record::GONE;
    ALOGE("failed to move old %s to drbox\n", path);

    memcpy(row->rec_fname, path, sizeof row->rec_fname);
    *stream = record_open(path);
    if (!*stream) return errno == ENOENT ? old_record::GONE : old_record::STAYS;
    if (!has_data_after(stream->get(), 0)) return old_record::GONE;  // its finished file waits
    resume(row, times, stream->get());
    return old_record::RESUMED;
}

// Deals with the record that an earlier run left under row->rec_fname. *stream is it, at its end,
// when it is resumed.
old_record take_old_record(const record_init_req& req, unique_file* stream) {
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
    if (!record_read_line(stream->get(), line)) {
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
    if (!has_data_after(stream->get(), strlen(line))) return old_record::GONE;
    return hand_over_old_record(row, times, stream);
}

// ---- Appending

// The record's end position, with the stream moved there; -1, logged, on failure.
off_t seek_to_end(FILE* stream, const char* caller) {
    if (fseeko(stream, 0, SEEK_END) != 0) {
        ALOGE("%s fseek failed. err:%d\n", caller, errno);
        return -1;
    }
    return ftello(stream);
}

// What a file of that many record bytes is estimated to need in the upload.
uint64_t estimated_len(const collector_info* row, uint64_t record_len) {
    return record_len * static_cast<uint64_t>(row->compress_ratio) / 1000;
}

// The comparison is made in 32 bits, as the row's size is.
bool exceeds_size(const collector_info* row, uint64_t payload_len) {
    return static_cast<int32_t>(row->hdr.header_len + payload_len) > row->size;
}

enum class full_test { FITS, FULL, FAILED };

// Compresses the whole record, first line included, into nothing.
full_test measure_whole_record(const write_req& req, uint64_t estimate) {
    FILE* stream = req.handle->file;
    rewind(stream);
    size_t compressed = 0;
    if (vexastats_compress(stream, nullptr, &compressed) != 0) {
        ALOGE("failed to get compressed size\n");
        (void)seek_to_end(stream, "vexastats_write_file");
        return full_test::FAILED;
    }
    if (seek_to_end(stream, "vexastats_write_file") < 0) return full_test::FAILED;
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

// Whether the new bytes would push the upload past the row's size.
full_test test_full(const write_req& req, off_t pos) {
    const size_t len = req.head_len + req.len;
    if (!exceeds_size(req.row, estimated_len(req.row, len + static_cast<uint64_t>(pos))))
        return full_test::FITS;
    return measure_record(req, estimated_len(req.row, len));
}

// Returns false when the record could not be handed over.
bool roll_over_if_full(write_req* req, off_t pos) {
    switch (test_full(*req, pos)) {
        case full_test::FITS:
            return true;
        case full_test::FAILED:
            return false;
        case full_test::FULL:
            break;
    }
    req->rolled_over = 1;
    if (move_to_dropbox(req->row, req->handle, true) == 0) return true;
    ALOGE("failed to move %s to drbox\n", req->row->rec_fname);
    return false;
}

struct clock_reading {
    uint64_t realtime_ms = 0;
    uint64_t uptime_ms = 0;
};

// A record that was begun before the wall clock was set.
bool needs_late_clock(const collector_info& row, const clock_reading& now) {
    return row.hdr.realtime_ms < PLAUSIBLE_REAL_TIME_MS + 1 &&
           now.realtime_ms >= PLAUSIBLE_REAL_TIME_MS && row.hdr.uptime_ms <= now.uptime_ms;
}

// Puts the first `len` bytes of a record back: half a first line would cost it.
void restore_start(FILE* stream, const char* bytes, ssize_t len) {
    clearerr(stream);
    if (len > 0 && pwrite(fileno(stream), bytes, static_cast<size_t>(len), 0) != len) {
        ALOGE("failed to write timestamp\n");
    }
}

// Corrects the header's times and rewrites the first line in place. The file's length does not
// change, so a longer line overwrites the first bytes of the data: deliberate.
bool update_rt_timestamp(collector_info* row, record_handle* handle, const clock_reading& now) {
    if (!handle->file) return false;
    const record_header before = row->hdr;
    row->hdr.realtime_ms = now.realtime_ms - now.uptime_ms + row->hdr.uptime_ms;
    row->hdr.timezone_min = vexastats_timezone_min();
    handle->measure.reset();
    char start[RECORD_LINE_SIZE];
    const ssize_t start_len = pread(fileno(handle->file), start, sizeof start, 0);
    if (fseeko(handle->file, 0, SEEK_SET) != 0) {
        ALOGE("%s fseek failed. err:%d\n", __func__, errno);
        row->hdr = before;
        return false;
    }
    if (!record_line_write(handle->file, row) || fflush(handle->file) != 0) {
        ALOGE("failed to write timestamp\n");
        restore_start(handle->file, start, start_len);
        row->hdr = before;
        vexastats_record_close(handle);
        return false;
    }
    if (seek_to_end(handle->file, __func__) >= 0) return true;
    vexastats_record_close(handle);  // what is appended would go over the data
    return false;
}

// Takes back what a failed write left, so that no half sample stands in the record.
void cut_back(FILE* stream, off_t pos) {
    clearerr(stream);
    if (ftruncate(fileno(stream), pos) != 0) ALOGE("failed to cut record. err:%d\n", errno);
    (void)fseeko(stream, 0, SEEK_END);
}

// Adds what was appended to the measure, which is given up when that fails.
void measure_appended(const write_req& req, unique_full_measure& measure) {
    if ((req.head_len > 0 && !full_measure_append(measure.get(), req.head, req.head_len)) ||
        !full_measure_append(measure.get(), req.data, req.len))
        measure.reset();
}

// Returns the bytes appended, fewer than wanted on failure.
size_t append(const write_req& req) {
    FILE* stream = req.handle->file;
    if (!stream) {  // the first line could not be rewritten
        ALOGE("%s: failed to write file\n", "vexastats_write_file");
        return 0;
    }
    const off_t pos = ftello(stream);  // its end: nothing has moved it from there
    if (pos < 0) return 0;
    size_t written = req.head_len > 0 ? fwrite(req.head, 1, req.head_len, stream) : 0;
    if (written == req.head_len) written += fwrite(req.data, 1, req.len, stream);
    if (written != req.head_len + req.len) {
        ALOGE("%s: failed to write file\n", "vexastats_write_file");
        cut_back(stream, pos);
        return written;
    }
    if (fflush(stream) != 0) {
        ALOGE("%s: failed to flush. err:%d\n", "vexastats_write_file", errno);
        cut_back(stream, pos);
        return 0;
    }
    if (req.handle->measure) measure_appended(req, req.handle->measure);
    return written;
}

size_t write_locked(write_req* req, size_t len) {
    const off_t pos = seek_to_end(req->handle->file, "vexastats_write_file");
    if (pos < 0) return 0;
    if (len > 0 && !roll_over_if_full(req, pos)) return 0;
    const clock_reading now{vexastats_real_time_ms(), vexastats_uptime_ms()};
    if (needs_late_clock(*req->row, now) && !update_rt_timestamp(req->row, req->handle, now)) {
        ALOGE("failed to update rt timestamp\n");
    }
    if (len > 0) {
        const size_t written = append(*req);
        if (written != len) return written;
    }
    if ((req->flags & WRITE_DROP) &&
        move_to_dropbox(req->row, req->handle, (req->flags & WRITE_BEGIN_NEW) != 0) != 0) {
        ALOGE("failed to move %s to drbox\n", req->row->rec_fname);
        return 0;
    }
    return len;
}

}  // namespace

FILE* vexastats_record_init(record_init_req* req) {
    if (!req->dir || !req->prefix || !req->row) return nullptr;

    unique_dir dir(opendir(req->dir));
    if (!dir && errno == ENOENT && mkdir(req->dir, 0700) != 0) {
        ALOGE("failed to create %s. err:%d\n", req->dir, errno);
        return nullptr;
    }
    // Only a record that was dealt with is overwritten.
    bool over_old = false;
    if (dir) {
        deliver_finished_files(req->row, req->dir, req->prefix);
        if (find_old_record(dir.get(), *req)) {
            unique_file stream;
            const old_record fate = take_old_record(*req, &stream);
            if (fate == old_record::RESUMED) return stream.release();
            over_old = fate == old_record::GONE;
        }
        dir.reset();
        req->row->rec_fname[0] = '\0';
    }
    if (!set_record_name(req->row, req->dir, req->prefix)) {
        ALOGE("failed to open %s. err:%d\n", req->prefix, errno);
        return nullptr;
    }
    return record_begin(req->row, __func__, over_old).release();
}

bool vexastats_record_reopen(record_init_req req, record_handle* handle) {
    vexastats_record_close(handle);
    req.resume = 1;
    req.discard = 0;
    handle->file = vexastats_record_init(&req);
    if (handle->file) handle->undelivered = false;
    return handle->file != nullptr;
}

size_t vexastats_write_file(write_req* req) {
    if (!req->handle->file || !req->row) return 0;
    if (!req->data && !(req->flags & WRITE_DROP)) return 0;
    if (!req->data) req->len = req->head_len = 0;

    const vexa_lock lock(g_record_lock);
    return write_locked(req, req->head_len + req->len);
}

void vexastats_record_close(record_handle* handle) {
    handle->measure.reset();
    if (handle->file) (void)fclose(handle->file);
    handle->file = nullptr;
}

size_t vexastats_record_size(collector_info* row) {
    if (!row) {
        ALOGE("%s: invalid collector info\n", __func__);
        return 0;
    }
    const unique_file stream = fopen_regular(row->rec_fname, RECORD_FILE_MAX);
    if (!stream) {
        ALOGE("%s: failed to open %s. err:%d\n", __func__, row->rec_fname, errno);
        return 0;
    }
    struct stat status = {};
    if (fstat(fileno(stream.get()), &status) != 0) {
        ALOGE("%s: failed to get %s status. err:%d\n", __func__, row->rec_fname, errno);
        return 0;
    }
    char line[257];
    const size_t line_len = fgets(line, sizeof line, stream.get()) ? strlen(line) : 0;
    if (line_len == 0 || static_cast<uint64_t>(status.st_size) < line_len) {
        ALOGE("%s: invalid size of %s\n", __func__, row->rec_fname);
        return 0;
    }
    return static_cast<size_t>(status.st_size) - line_len;
}
