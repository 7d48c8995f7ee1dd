#define LOG_TAG "vexastatsd"

#include "framework/record/record.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/open_file.h"
#include "base/path.h"
#include "base/unique_handle.h"
#include "framework/record/full_test.h"
#include "framework/record/hand_over.h"
#include "framework/record/old_record.h"
#include "framework/record/record_file.h"
#include "framework/record/recovery.h"
#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

constexpr char WRITER[] = "vexastats_write_file";

// Serialises every append and hand-over of all collectors.
vexa_mutex g_record_lock;

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
    FILE* stream = handle->file.get();
    char start[RECORD_LINE_SIZE];
    const ssize_t start_len = pread(fileno(stream), start, sizeof start, 0);
    if (fseeko(stream, 0, SEEK_SET) != 0) {
        ALOGE("%s fseek failed. err:%d\n", __func__, errno);
        row->hdr = before;
        return false;
    }
    if (!record_line_write(stream, row) || fflush(stream) != 0) {
        ALOGE("failed to write timestamp\n");
        restore_start(stream, start, start_len);
        row->hdr = before;
        vexastats_record_close(handle);
        return false;
    }
    if (record_seek_to_end(stream, __func__) >= 0) return true;
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
    FILE* stream = req.handle->file.get();
    if (!stream) {  // the first line could not be rewritten
        ALOGE("%s: failed to write file\n", WRITER);
        return 0;
    }
    const off_t pos = ftello(stream);  // its end: nothing has moved it from there
    if (pos < 0) return 0;
    size_t written = req.head_len > 0 ? fwrite(req.head, 1, req.head_len, stream) : 0;
    if (written == req.head_len) written += fwrite(req.data, 1, req.len, stream);
    if (written != req.head_len + req.len) {
        ALOGE("%s: failed to write file\n", WRITER);
        cut_back(stream, pos);
        return written;
    }
    if (fflush(stream) != 0) {
        ALOGE("%s: failed to flush. err:%d\n", WRITER, errno);
        cut_back(stream, pos);
        return 0;
    }
    if (req.handle->measure) measure_appended(req, req.handle->measure);
    return written;
}

size_t write_locked(write_req* req, size_t len) {
    const off_t pos = record_seek_to_end(req->handle->file.get(), WRITER);
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

unique_file vexastats_record_init(record_init_req* req) {
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
            const old_record fate = deal_with_old_record(*req, &stream);
            if (fate == old_record::RESUMED) return stream;
            over_old = fate == old_record::GONE;
        }
        dir.reset();
        req->row->rec_fname[0] = '\0';
    }
    if (!set_record_name(req->row, req->dir, req->prefix)) {
        ALOGE("failed to open %s. err:%d\n", req->prefix, errno);
        return nullptr;
    }
    return record_begin(req->row, __func__, over_old);
}

bool vexastats_record_reopen(record_init_req req, record_handle* handle) {
    vexastats_record_close(handle);
    req.resume = 1;
    req.discard = 0;
    handle->file = vexastats_record_init(&req);
    if (!handle->file) return false;
    handle->undelivered = false;
    return true;
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
    handle->file.reset();
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
    char line[RECORD_LINE_SIZE];
    const size_t line_len = record_read_line(stream.get(), line);
    if (line_len == 0 || static_cast<uint64_t>(status.st_size) < line_len) {
        ALOGE("%s: invalid size of %s\n", __func__, row->rec_fname);
        return 0;
    }
    return static_cast<size_t>(status.st_size) - line_len;
}
