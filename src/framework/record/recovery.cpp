#define LOG_TAG "vexastatsd"

#include "framework/record/recovery.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/open_file.h"
#include "base/path.h"
#include "framework/record/hand_over.h"
#include "framework/record/record_file.h"
#include "framework/record/sequence.h"
#include "framework/record/upload_file.h"
#include "platform/log.h"

namespace {

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

void remove_unfinished(const char* path) {
    ALOGI("removing unfinished %s\n", path);
    if (remove(path) != 0) ALOGE("failed to remove %s. err:%d\n", path, errno);
}

enum class origin {
    OTHER,  // the open record has nothing to do with the finished file, or there is none
    SAME,   // the finished file was made from it and holds all of it
    GROWN,  // and the record was appended to afterwards: it holds all of the finished file
};

// A finished file was made from the record when both were begun at the same time, give or take the
// milliseconds that the finished file's name moved on.
origin origin_of(const char* record, const record_header& finished, uint32_t data_len) {
    constexpr uint64_t SAME_START_MS = 1000;
    const unique_file stream = fopen_regular(record, RECORD_FILE_MAX);
    char line[RECORD_LINE_SIZE];
    record_times times;
    const size_t line_len = stream ? record_read_line(stream.get(), line) : 0;
    if (line_len == 0 || !record_line_parse(line, &times) ||
        times.uptime_ms != finished.uptime_ms ||
        finished.realtime_ms - times.realtime_ms >= SAME_START_MS) {
        return origin::OTHER;
    }
    struct stat status = {};
    if (fstat(fileno(stream.get()), &status) != 0) return origin::OTHER;
    const uint64_t record_len = static_cast<uint64_t>(status.st_size) - line_len;
    if (record_len <= data_len) return origin::SAME;
    (void)fsync(fileno(stream.get()));  // it takes the place of a file that is on the disk
    return origin::GROWN;
}

void deliver_finished_file(const collector_info* row, const char* path, const char* record) {
    record_header header;
    uint32_t data_len = 0;
    const unique_file file = stream_of(open_update(path, RECORD_FILE_MAX), "r+b");
    if (!file && errno != EINVAL && errno != ELOOP && errno != EFBIG) {
        ALOGE("failed to open %s. err:%d\n", path, errno);
        return;  // it may be whole
    }
    if (!file || !upload_file_is_whole(fileno(file.get()), &header, &data_len) ||
        header.client_id != row->hdr.client_id) {
        remove_unfinished(path);
        return;
    }
    const origin from = origin_of(record, header, data_len);
    if (from == origin::GROWN) {
        remove_unfinished(path);
        return;
    }
    record_names names;
    uint64_t ms = header.realtime_ms;
    if (!record_names_find(*row, path, &ms, &names)) return;
    memcpy(names.finished, path, strlen(path) + 1);  // it stays where it is until it is dropped
    if (from == origin::SAME) memcpy(names.record, record, strlen(record) + 1);
    sequence_keep_ahead_of(names.finished, header.seq);
    // Its name may have to carry another number than its header does.
    if (ms != header.realtime_ms) {
        header.realtime_ms = ms;
        if (write_header(file.get(), header, row->name) != 0) return;
    }
    (void)deliver(fileno(file.get()), names);
}

}  // namespace

void deliver_finished_files(collector_info* row, const char* dir, const char* prefix) {
    const unique_dir entries(opendir(dir));
    if (!entries) return;
    record_path record;
    if (!path_join(record, dir, prefix)) return;
    while (const dirent* entry = readdir(entries.get())) {
        if (!is_finished_name(entry->d_name, prefix)) continue;
        record_path path;
        if (path_join(path, dir, entry->d_name)) deliver_finished_file(row, path, record);
    }
}
