#define LOG_TAG "vexastatsd-alog"

#include "collectors/alog/alog_record.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "framework/time/interruptible.h"
#include "framework/time/wait.h"
#include "platform/log.h"
#include "timed_campaign/campaign_record.h"

namespace {

constexpr char SECTION_TITLE[] = "\nlogcat:\n";

// After a failed read, whose message is itself the next entry: a log that cannot be read must not
// keep the processor busy and the log full.
constexpr int64_t READ_FAILURE_PAUSE_MS = 1000;

size_t flush(alog_record* record, const char* caller) {
    ALOGI("%s: flush out buffer %d", caller, static_cast<int>(record->fill));
    const size_t written = campaign_append(record->campaign, record->buffer.get(), record->fill);
    if (written > 0) record->has_entries = true;
    return written;
}

bool is_full(const alog_record& record) {
    return record.fill >= ALOG_FLUSH_SIZE;
}

// Writes a full buffer out, or leaves it full while the owner's consent is missing. Returns false,
// logged, after a failure; the buffer then stays full for the attempt at the end.
bool write_out(alog_record* record, const char* caller) {
    timed_campaign* campaign = record->campaign;
    interruptible_leave(&campaign->row->library_calls);
    if (!campaign_has_consent(*campaign)) return true;
    const size_t written = flush(record, caller);
    if (written == record->fill) {
        record->fill = 0;
        return true;
    }
    ALOGE("%s: failed to write file. cnt:%zu\n", caller, written);
    // The dropbox may have gone in this very moment, and a full record with nowhere to go to.
    if (!campaign_has_consent(*campaign)) return campaign_resume_record(campaign);
    campaign_recover_record(campaign);
    return false;
}

// The bytes of an entry that count, by the lengths in its first two fields, and never more than
// were read.
size_t entry_size(const log_msg& msg, size_t read_size) {
    const size_t size = size_t{msg.entry.len} + msg.entry.hdr_size;
    return std::min({size, read_size, ALOG_ENTRY_MAX_SIZE});
}

// Copies the entry behind the ones in the buffer.
void append_entry(alog_record* record, const log_msg& msg, size_t read_size) {
    const size_t size = std::min(entry_size(msg, read_size), ALOG_BUFFER_SIZE - record->fill);
    memcpy(record->buffer.get() + record->fill, msg.buf, size);
    record->fill += size;
}

// Whether the entry is there for nothing but to end the read.
bool is_wake_up(const log_msg& msg, size_t read_size) {
    if (msg.entry.pid != getpid() || msg.entry.hdr_size >= read_size) return false;
    const std::string_view payload(reinterpret_cast<const char*>(msg.buf) + msg.entry.hdr_size,
                                   read_size - msg.entry.hdr_size);
    // With the zero byte that ends the message.
    return payload.ends_with({INTERRUPTIBLE_WAKE_UP, sizeof INTERRUPTIBLE_WAKE_UP});
}

// Writes out what is left and hands the record over, or deletes both without the owner's consent.
void finish(alog_record* record, const char* caller) {
    if (!campaign_has_consent(*record->campaign)) {
        campaign_discard_record(record->campaign);
        return;
    }
    if (record->fill > 0) (void)flush(record, caller);
    // Also when the last flush left the buffer empty: the next campaign discards what stays.
    if (record->fill > 0 || record->has_entries) campaign_hand_over_record(record->campaign);
}

// One entry, or a negative error number.
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
    if (!record || !reader || !record->campaign) return -EINVAL;

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
    const size_t written = campaign_append(record->campaign, SECTION_TITLE, strlen(SECTION_TITLE));
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
    if (!record || !record->campaign || !reader || !*reader || !record->buffer) return -EINVAL;

    log_msg msg;
    collector_info* row = record->campaign->row;
    const int result = read_entry(row, reader->get(), &msg);
    if (result <= 0) {
        ALOGE("failed to read logcat buffer: %s\n", strerror(result < 0 ? -result : errno));
        if (result < 0) vexastats_sleep_ms(READ_FAILURE_PAUSE_MS, row->stop);
        return -result;
    }
    if (is_wake_up(msg, static_cast<size_t>(result))) return result;
    if (!campaign_is_opted_in(*row)) return result;
    if (is_full(*record) && !write_out(record, __func__)) return -EINVAL;
    if (is_full(*record)) return result;
    append_entry(record, msg, static_cast<size_t>(result));
    if (is_full(*record) && !write_out(record, __func__)) return -EINVAL;
    return result;
}

void alog_log_end(alog_record* record, unique_logger_list* reader) {
    if (!record || !record->campaign || !reader || !*reader) return;
    interruptible_leave(&record->campaign->row->library_calls);
    reader->reset();
    finish(record, __func__);
    record->buffer.reset();
    record->fill = 0;
}
