#define LOG_TAG "vexastatsd"

#include "framework/dropbox.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "framework/compress.h"
#include "framework/files.h"
#include "framework/record_line.h"
#include "framework/unique_handle.h"
#include "framework/upload_file.h"
#include "platform/log.h"

namespace {

using record_path = char[sizeof(collector_info::rec_fname)];

bool path_exists(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0;
}

// Replaces everything from the last "." of `path`; false when there is none or it does not fit.
bool replace_suffix(record_path& path, const char* suffix) {
    char* dot = strrchr(path, '.');
    if (!dot) return false;
    const size_t room = sizeof path - static_cast<size_t>(dot - path);
    if (strlen(suffix) >= room) return false;
    memcpy(dot, suffix, strlen(suffix) + 1);
    return true;
}

// The path in the dropbox of the file `path`: the same base name; false when there is no "/".
bool dropbox_path(const collector_info* row, const char* path, char (&out)[PATH_MAX]) {
    const char* base = strrchr(path, '/');
    if (!base) return false;
    const int len = snprintf(out, sizeof out, "%s%s", row->up_dir, base);
    return len >= 0 && static_cast<size_t>(len) < sizeof out;
}

// Ends `path` in ".<*ms>", or in the next millisecond whose name is free in the dropbox, so that
// nothing there is ever overwritten; false when there is no "." or the name does not fit.
bool set_free_name(const collector_info* row, record_path& path, uint64_t* ms) {
    for (;; ++*ms) {
        char suffix[32];
        char dropped[PATH_MAX];
        snprintf(suffix, sizeof suffix, ".%lu", static_cast<unsigned long>(*ms));
        if (!replace_suffix(path, suffix)) return false;
        if (!dropbox_path(row, path, dropped) || !path_exists(dropped)) return true;
    }
}

// Names the finished file after the record's start; a second record of the same millisecond takes
// the next free one, in its header too.
bool set_finished_name(collector_info* row) {
    for (;; row->hdr.realtime_ms++) {
        uint64_t ms = row->hdr.realtime_ms;
        if (!set_free_name(row, row->rec_fname, &ms)) return false;
        row->hdr.realtime_ms = ms;
        if (!path_exists(row->rec_fname)) return true;
    }
}

// ---- Sequence numbers
// ----------------------------------------------------------------------------

constexpr uint32_t NO_SEQUENCE = 0xdeadbeef;

uint32_t read_sequence(const char* path) {
    char text[32];
    if (vexastats_read_line_at(AT_FDCWD, path, text, sizeof text) < 0) return 0;
    return static_cast<uint32_t>(strtoul(text, nullptr, 10));
}

// Makes `next` the next number. The file is replaced, so that a kill cannot reset it.
bool write_sequence(const char* path, uint32_t next) {
    char text[16];
    const int len = snprintf(text, sizeof text, "%u\n", next);
    return vexastats_replace_file(path, text, static_cast<size_t>(len)) == 0;
}

// Path of the row's sequence file; false when rec_fname has no ".".
bool sequence_path(const collector_info* row, record_path& path) {
    memcpy(path, row->rec_fname, sizeof path);
    return replace_suffix(path, ".seq");
}

// The numbers that a row's headers take. The file follows at commit() or, for a hand-over that
// fails before, at the end: one sync for both headers of a hand-over.
class sequence_turn {
  public:
    explicit sequence_turn(const collector_info* row)
        : counted_(sequence_path(row, path_)),
          next_(counted_ ? read_sequence(path_) : NO_SEQUENCE) {}
    ~sequence_turn() { (void)commit(); }
    sequence_turn(const sequence_turn&) = delete;
    sequence_turn& operator=(const sequence_turn&) = delete;

    uint32_t take() {
        if (!counted_) return NO_SEQUENCE;
        committed_ = false;
        return next_++;
    }

    bool commit() {
        if (!committed_) committed_ = write_sequence(path_, next_);
        return committed_;
    }

  private:
    record_path path_;
    bool counted_;
    uint32_t next_;
    bool committed_ = true;
};

// Writes the row's header with sequence number `number` at offset 0; failures are logged.
int write_header(FILE* stream, collector_info* row, uint32_t number) {
    if (row->hdr.header_attr1 == 0) row->hdr.header_attr1 = 1;
    record_header header = row->hdr;
    header.seq = number;
    if (fseeko(stream, 0, SEEK_SET) != 0) {
        ALOGE("%s fseek failed. err:%d\n", "prepend_header", errno);
        return -EINVAL;
    }
    uint8_t bytes[UPLOAD_HEADER_LEN];
    upload_header_encode(header, bytes);
    const size_t written = fwrite(bytes, 1, sizeof bytes, stream);
    if (written != sizeof bytes) {
        ALOGE("failed to write header %s. cnt:%zu\n", row->name, written);
        return -EINVAL;
    }
    if (fflush(stream) != 0) {
        ALOGE("failed to flush. err:%d\n", errno);
        return -EINVAL;
    }
    return 0;
}

// A finished file that is delivered late may carry a number that the sequence file has lost.
void keep_sequence_ahead_of(const char* finished_path, uint32_t number) {
    record_path path = "";
    memcpy(path, finished_path, std::min(strlen(finished_path) + 1, sizeof path - 1));
    if (!replace_suffix(path, ".seq") || number == NO_SEQUENCE || read_sequence(path) > number)
        return;
    if (!write_sequence(path, number + 1)) ALOGE("failed to open %s. err:%d\n", path, errno);
}

// A finished file in the making; it removes itself unless it was dropped.
class finished_file {
  public:
    explicit finished_file(const char* path) : path_(path), stream_(fopen(path, "w+bxe")) {}
    ~finished_file() {
        stream_.reset();
        if (made_ && !dropped_) unlink(path_);
    }
    finished_file(const finished_file&) = delete;
    finished_file& operator=(const finished_file&) = delete;

    bool ok() const { return made_; }
    FILE* stream() const { return stream_.get(); }
    const char* path() const { return path_; }

    // Syncs and closes; false when not all of it is known to be on the disk.
    bool sync_and_close() {
        const bool synced = fflush(stream()) == 0 && fsync(fileno(stream())) == 0;
        return fclose(stream_.release()) == 0 && synced;
    }

    bool rename_to(const char* path) {
        dropped_ = rename(path_, path) == 0;
        return dropped_;
    }

  private:
    const char* path_;
    unique_file stream_;
    bool made_ = stream_ != nullptr;
    bool dropped_ = false;
};

// Compresses the record, from behind its first line, after the header that is reserved in `out`.
// What the record's payload stream has compressed already is not compressed again.
bool write_payload(FILE* record, payload_stream* payload, FILE* out, size_t* compressed) {
    struct stat status = {};
    if (payload && fstat(fileno(record), &status) == 0 &&
        status.st_size - ftello(record) == static_cast<off_t>(payload_stream_input_len(payload))) {
        return payload_stream_finish(payload, out, compressed);
    }
    return vexastats_compress(record, out, compressed) == 0;
}

// Fills `out` with header and payload of `record`, which stands behind its first line. The header
// is written before the payload, to reserve its place, and once more when the payload's length is
// known. Each time takes a number: deliberate, an upload carries the second one.
bool write_upload(collector_info* row, FILE* record, payload_stream* payload, size_t record_len,
                  FILE* out) {
    sequence_turn turn(row);
    if (write_header(out, row, turn.take()) != 0) {
        ALOGE("failed to prepend header %s\n", row->rec_fname);
        return false;
    }
    size_t compressed = 0;
    if (!write_payload(record, payload, out, &compressed)) {
        ALOGE("failed to compress\n");
        return false;
    }
    // The measured ratio and 10 % on top of it, for the next record's estimates.
    if (record_len > 0) row->compress_ratio = static_cast<int32_t>(compressed * 1100 / record_len);

    const off_t len = ftello(out);
    row->hdr.payload_len = static_cast<uint32_t>(len - static_cast<off_t>(row->hdr.header_len));
    const uint32_t number = turn.take();
    if (len < 0 || !turn.commit() || write_header(out, row, number) != 0) {
        ALOGE("failed to prepend header %s\n", row->rec_fname);
        return false;
    }
    return true;
}

// Compresses row->rec_fname's record into a finished file beside it and renames that into the
// dropbox. The order keeps the data on the disk at every moment: sync, delete the record, rename.
int hand_over(collector_info* row, payload_stream* payload, size_t record_len) {
    record_path old_path;
    memcpy(old_path, row->rec_fname, sizeof old_path);
    unique_file record(fopen(old_path, "rbe"));
    if (!record) {
        ALOGE("%s: failed to open %s\n", "move_to_dropbox", old_path);
        return -EINVAL;
    }
    (void)skip_first_line(record.get());

    if (!set_finished_name(row)) {
        ALOGE("invalid rec_fname %s\n", row->rec_fname);
        return -EINVAL;
    }
    finished_file finished(row->rec_fname);
    if (!finished.ok()) {
        ALOGE("%s: failed to open %s\n", "move_to_dropbox", finished.path());
        return -EINVAL;
    }
    if (!write_upload(row, record.get(), payload, record_len, finished.stream())) return -EINVAL;
    if (!finished.sync_and_close()) {
        ALOGE("failed to move file. err:%d\n", errno);
        return -EINVAL;
    }
    record.reset();
    if (remove(old_path) != 0) ALOGE("failed to remove %s. err:%d\n", old_path, errno);

    char dropped[PATH_MAX];
    if (!dropbox_path(row, finished.path(), dropped)) {
        ALOGE("invalid rec_fname. err:%d\n", errno);
        return -EINVAL;
    }
    if (!finished.rename_to(dropped)) {
        ALOGE("failed to move file. err:%d\n", errno);
        return -EINVAL;
    }
    ALOGI("dropped %s into dropbox\n", finished.path());
    return 0;
}

// Begins the record that follows a dropped one; row->rec_fname still names the latter.
FILE* create_new_record(collector_info* row) {
    if (!replace_suffix(row->rec_fname, ".tmp")) {
        ALOGE("invalid rec_fname. err:%d\n", errno);
        return nullptr;
    }
    return record_begin(row, __func__);
}

// ---- Left-overs
// ----------------------------------------------------------------------------------

bool is_all_digits(const char* text) {
    return *text && text[strspn(text, "0123456789")] == '\0';
}

// Whether `entry` is "<stem>.<digits>", the stem being that of `prefix`.
bool is_finished_name(const char* entry, const char* prefix) {
    const char* dot = strrchr(prefix, '.');
    const size_t stem_len = dot ? static_cast<size_t>(dot - prefix) : strlen(prefix);
    return strncmp(entry, prefix, stem_len) == 0 && entry[stem_len] == '.' &&
           is_all_digits(entry + stem_len + 1);
}

// Deletes the open record when the finished file was made from it: it was begun at the same time,
// give or take the milliseconds that the finished file's name moved on.
void remove_delivered_record(const char* path, const record_header& finished) {
    constexpr uint64_t SAME_START_MS = 1000;
    const unique_file stream(fopen(path, "rbe"));
    char line[RECORD_LINE_SIZE];
    record_times times;
    if (!stream || !record_read_line(stream.get(), line) || !record_line_parse(line, &times))
        return;
    if (times.uptime_ms != finished.uptime_ms ||
        finished.realtime_ms - times.realtime_ms >= SAME_START_MS) {
        return;
    }
    if (remove(path) != 0) ALOGE("failed to remove %s. err:%d\n", path, errno);
}

void remove_unfinished(const char* path) {
    ALOGI("removing unfinished %s\n", path);
    if (remove(path) != 0) ALOGE("failed to remove %s. err:%d\n", path, errno);
}

void deliver_finished_file(const collector_info* row, const char* path, const char* record) {
    record_header header;
    const unique_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd || !upload_file_is_whole(fd.get(), &header) || header.client_id != row->hdr.client_id) {
        remove_unfinished(path);
        return;
    }
    record_path name = "";
    char dropped[PATH_MAX];
    uint64_t ms = header.realtime_ms;
    if (strlen(path) >= sizeof name) return;
    memcpy(name, path, strlen(path) + 1);
    if (!set_free_name(row, name, &ms) || !dropbox_path(row, name, dropped)) return;
    keep_sequence_ahead_of(path, header.seq);
    if (fsync(fd.get()) != 0 || rename(path, dropped) != 0) {
        ALOGE("failed to move file. err:%d\n", errno);
        return;
    }
    ALOGI("dropped %s into dropbox\n", path);
    remove_delivered_record(record, header);
}

}  // namespace

int move_to_dropbox(collector_info* row, record_handle* handle, bool begin_new) {
    if (!row || !handle->file) return -EINVAL;

    const off_t record_len = ftello(handle->file);
    const unique_payload_stream payload = std::move(handle->payload);
    vexastats_record_close(handle);
    if (hand_over(row, payload.get(), record_len > 0 ? static_cast<size_t>(record_len) : 0) != 0) {
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
    sequence_turn turn(row);
    const uint32_t number = turn.take();
    if (!turn.commit()) return -EINVAL;
    return write_header(stream, row, number);
}

FILE* record_begin(collector_info* row, const char* caller) {
    unique_file stream = record_open(row->rec_fname, "w+be");
    if (!stream) {
        ALOGE("failed to open %s. err:%d\n", row->rec_fname, errno);
        return nullptr;
    }
    record_set_times_now(row);
    if (!record_line_write(stream.get(), row)) {
        ALOGE("failed to write timestamp\n");
        return nullptr;
    }
    if (fflush(stream.get()) != 0) {
        ALOGE("%s: failed to flush. err:%d\n", caller, errno);
        return nullptr;
    }
    return stream.release();
}

void deliver_finished_files(collector_info* row, const char* dir, const char* prefix) {
    const unique_dir entries(opendir(dir));
    if (!entries) return;
    char record[PATH_MAX];
    snprintf(record, sizeof record, "%s/%s", dir, prefix);
    while (const dirent* entry = readdir(entries.get())) {
        if (!is_finished_name(entry->d_name, prefix)) continue;
        char path[PATH_MAX];
        snprintf(path, sizeof path, "%s/%s", dir, entry->d_name);
        deliver_finished_file(row, path, record);
    }
}
