#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_record.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "framework/interruptible.h"
#include "framework/wait.h"
#include "platform/log.h"

namespace {

constexpr char SECTION_TITLE[] = "\nlogcat:\n";

// After a failed read, whose message is itself the next entry: a log that cannot be read must not
// keep the processor busy and the log full.
constexpr int64_t READ_FAILURE_PAUSE_MS = 1000;

size_t append(alog_record* record, const void* data, size_t len) {
    write_req req{.row = record->row, .handle = &record->handle, .data = data, .len = len};
    return vexastats_write_file(&req);
}

size_t flush(alog_record* record, const char* caller) {
    ALOGI("%s: flush out buffer %d", caller, static_cast<int>(record->fill));
    const size_t written = append(record, record->buffer.get(), record->fill);
    if (written > 0) record->has_entries = true;
    return written;
}

void hand_over(alog_record* record) {
    write_req req{.row = record->row, .handle = &record->handle, .flags = WRITE_DROP};
    (void)vexastats_write_file(&req);
}

// The bytes of an entry that count, by the lengths in its first two fields, and never more than
// were read.
size_t entry_size(const log_msg& msg, size_t read_size) {
    const size_t size = size_t{msg.entry.len} + msg.entry.hdr_size;
    return std::min({size, read_size, ALOG_ENTRY_MAX_SIZE});
}

// Copies the entry behind the ones in the buffer.
void take_entry(alog_record* record, const log_msg& msg, size_t read_size) {
    const size_t size = std::min(entry_size(msg, read_size), ALOG_BUFFER_SIZE - record->fill);
    memcpy(record->buffer.get() + record->fill, msg.buf, size);
    record->fill += size;
}

// One entry, or a negative error number; SIGINT, which ends the wait, is let in meanwhile.
int read_entry(collector_info* row, logger_list* reader, log_msg* msg) {
    msg->entry.len = 0;
    msg->entry.hdr_size = 0;
    if (!interruptible_enter(&row->library_calls, row->stop)) return -EINTR;
    const int result = android_logger_list_read(reader, msg);
    if (result <= 0) interruptible_leave(&row->library_calls);
    return result;
}

}  // namespace

int alog_log_start(alog_record* record, unique_logger_list* reader) {
    ALOGI("%s: start", __func__);
    if (!record || !reader || !record->row) return -EINVAL;

    unique_malloc<uint8_t> buffer(static_cast<uint8_t*>(malloc(ALOG_BUFFER_SIZE)));
    if (!buffer) {
        ALOGE("failed to malloc err %d\n", static_cast<int>(ALOG_BUFFER_SIZE));
        return -EINVAL;
    }
    unique_logger_list opened(android_logger_list_open(LOG_ID_MAIN, 0, 0, 0));
    if (!opened) {
        ALOGE("failed to open logcat buffer, err:%d\n", errno);
        return -EINVAL;
    }
    const size_t written = append(record, SECTION_TITLE, strlen(SECTION_TITLE));
    if (written < strlen(SECTION_TITLE)) {
        ALOGE("%s: failed to write file. cnt:%zu\n", __func__, written);
        return -EINVAL;
    }
    record->buffer = std::move(buffer);
    record->fill = 0;
    record->has_entries = false;
    *reader = std::move(opened);
    return 0;
}

int alog_log_read(alog_record* record, unique_logger_list* reader) {
    if (!record || !record->row || !reader || !*reader || !record->buffer) return -EINVAL;

    log_msg msg;
    const int result = read_entry(record->row, reader->get(), &msg);
    if (result <= 0) {
        ALOGE("failed to read logcat buffer: %s\n", strerror(result < 0 ? -result : errno));
        if (result < 0) vexastats_sleep_ms(READ_FAILURE_PAUSE_MS, record->row->stop);
        return -result;
    }
    take_entry(record, msg, static_cast<size_t>(result));
    if (record->fill < ALOG_FLUSH_SIZE) return result;

    interruptible_leave(&record->row->library_calls);
    const size_t written = flush(record, __func__);
    if (written < record->fill) {
        ALOGE("%s: failed to write file. cnt:%zu\n", __func__, written);
        return -EINVAL;
    }
    record->fill = 0;
    return result;
}

void alog_log_end(alog_record* record, unique_logger_list* reader) {
    if (!record || !record->row || !reader || !*reader) return;
    interruptible_leave(&record->row->library_calls);
    reader->reset();
    if (record->fill > 0) (void)flush(record, __func__);
    // Also when the last flush left the buffer empty: the next campaign discards what stays.
    if (record->fill > 0 || record->has_entries) hand_over(record);
    record->buffer.reset();
    record->fill = 0;
}
