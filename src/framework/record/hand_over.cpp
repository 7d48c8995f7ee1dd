#define LOG_TAG "vexastatsd"

#include "framework/record/hand_over.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/open_file.h"
#include "base/unique_handle.h"
#include "framework/record/compress.h"
#include "framework/record/record_file.h"
#include "framework/record/sequence.h"
#include "framework/record/upload_file.h"
#include "platform/log.h"

namespace {

constexpr char HAND_OVER[] = "move_to_dropbox";

// The row's header with sequence number `number`.
record_header numbered_header(collector_info* row, uint32_t number) {
    if (row->hdr.header_attr1 == 0) row->hdr.header_attr1 = 1;
    record_header header = row->hdr;
    header.seq = number;
    return header;
}

// A finished file in the making; it removes itself unless it is kept.
class finished_file {
  public:
    explicit finished_file(const char* path)
        : path_(path), stream_(stream_of(open_new(path, 0666), "w+b")) {}
    ~finished_file() {
        const bool made = stream_ != nullptr;
        stream_.reset();
        if (made && !kept_) unlink(path_);
    }
    finished_file(const finished_file&) = delete;
    finished_file& operator=(const finished_file&) = delete;

    FILE* stream() const { return stream_.get(); }
    void keep() { kept_ = true; }

  private:
    const char* path_;
    unique_file stream_;
    bool kept_ = false;
};

// Fills `out` with header and payload of `record`, which stands behind its first line. The header
// is written before the payload, to reserve its place, and once more when the payload's length is
// known. Each time takes a number: deliberate, an upload carries the second one.
bool write_upload(collector_info* row, FILE* record, size_t record_len, FILE* out) {
    sequence_turn turn(*row);
    if (write_header(out, numbered_header(row, turn.take()), row->name) != 0) {
        ALOGE("failed to prepend header %s\n", row->rec_fname);
        return false;
    }
    size_t compressed = 0;
    if (vexastats_compress(record, out, &compressed) != 0) {
        ALOGE("failed to compress\n");
        return false;
    }
    // The measured ratio and 10 % on top of it, for the next record's estimates.
    if (record_len > 0) row->compress_ratio = static_cast<int32_t>(compressed * 1100 / record_len);

    const off_t len = ftello(out);
    row->hdr.payload_len = static_cast<uint32_t>(len - static_cast<off_t>(row->hdr.header_len));
    const uint32_t number = turn.take();
    turn.commit();
    if (len < 0 || write_header(out, numbered_header(row, number), row->name) != 0) {
        ALOGE("failed to prepend header %s\n", row->rec_fname);
        return false;
    }
    return true;
}

// Gives the record that stands in row->rec_fname its other names, which the row goes by from here
// on. A second record of the same millisecond takes the next free one, in its header too.
bool name_finished(collector_info* row, record_names* names) {
    memcpy(names->record, row->rec_fname, sizeof names->record);
    uint64_t ms = row->hdr.realtime_ms;
    if (!record_names_find(*row, row->rec_fname, &ms, names)) {
        ALOGE("invalid rec_fname %s\n", row->rec_fname);
        return false;
    }
    row->hdr.realtime_ms = ms;
    memcpy(row->rec_fname, names->finished, sizeof row->rec_fname);
    return true;
}

// Compresses row->rec_fname's record into a finished file beside it and delivers that.
int hand_over(collector_info* row, size_t record_len) {
    const unique_file record = fopen_regular(row->rec_fname, RECORD_FILE_MAX);
    if (!record) {
        ALOGE("%s: failed to open %s\n", HAND_OVER, row->rec_fname);
        return -EINVAL;
    }
    char line[RECORD_LINE_SIZE];
    const auto data_at = static_cast<off_t>(record_read_line(record.get(), line));
    if (fseeko(record.get(), data_at, SEEK_SET) != 0) {
        ALOGE("%s fseek failed. err:%d\n", HAND_OVER, errno);
        return -EINVAL;
    }

    record_names names;
    if (!name_finished(row, &names)) return -EINVAL;
    finished_file finished(names.finished);
    if (!finished.stream()) {
        ALOGE("%s: failed to open %s\n", HAND_OVER, names.finished);
        return -EINVAL;
    }
    if (!write_upload(row, record.get(), record_len, finished.stream())) return -EINVAL;
    const delivery result = deliver(fileno(finished.stream()), names);
    if (result != delivery::FAILED) finished.keep();
    return result == delivery::DROPPED ? 0 : -EINVAL;
}

// Begins the record that follows a dropped one; row->rec_fname still names the latter.
unique_file create_new_record(collector_info* row) {
    if (!record_path_end_in(row->rec_fname, ".tmp")) {
        ALOGE("invalid rec_fname. err:%d\n", errno);
        return nullptr;
    }
    return record_begin(row, __func__, true);
}

// Sees to it that nothing of a delivered record is sent a second time: one that cannot be deleted
// is emptied. Returns false when neither can be done.
bool retire_record(const char* path) {
    if (!*path || remove(path) == 0) return true;
    ALOGE("failed to remove %s. err:%d\n", path, errno);
    return errno == ENOENT || open_emptied(path, 0666);
}

}  // namespace

delivery deliver(int fd, const record_names& names) {
    if (fsync(fd) != 0) {
        ALOGE("failed to move file. err:%d\n", errno);
        return delivery::FAILED;
    }
    if (!retire_record(names.record)) return delivery::FAILED;
    if (rename(names.finished, names.dropped) != 0) {
        ALOGE("failed to move file. err:%d\n", errno);
        return delivery::RECORD_GONE;
    }
    ALOGI("dropped %s into dropbox\n", names.finished);
    return delivery::DROPPED;
}

int move_to_dropbox(collector_info* row, record_handle* handle, bool begin_new) {
    if (!row || !handle->file) return -EINVAL;

    const off_t record_len = ftello(handle->file.get());
    vexastats_record_close(handle);
    if (hand_over(row, record_len > 0 ? static_cast<size_t>(record_len) : 0) != 0) {
        handle->undelivered = true;
        return -EINVAL;
    }
    if (!begin_new) return 0;
    handle->file = create_new_record(row);
    if (!handle->file) {
        ALOGE("failed to create new record.\n");
        return -EINVAL;
    }
    return 0;
}

int prepend_header(FILE* stream, collector_info* row) {
    if (!stream || !row) return -EINVAL;
    sequence_turn turn(*row);
    const uint32_t number = turn.take();
    turn.commit();
    return write_header(stream, numbered_header(row, number), row->name);
}

int write_header(FILE* stream, const record_header& header, const char* row_name) {
    if (fseeko(stream, 0, SEEK_SET) != 0) {
        ALOGE("%s fseek failed. err:%d\n", "prepend_header", errno);
        return -EINVAL;
    }
    uint8_t bytes[UPLOAD_HEADER_LEN];
    upload_header_encode(header, bytes);
    const size_t written = fwrite(bytes, 1, sizeof bytes, stream);
    if (written != sizeof bytes) {
        ALOGE("failed to write header %s. cnt:%zu\n", row_name, written);
        return -EINVAL;
    }
    if (fflush(stream) != 0) {
        ALOGE("failed to flush. err:%d\n", errno);
        return -EINVAL;
    }
    return 0;
}
