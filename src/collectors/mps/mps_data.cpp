#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_data.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pb_encode.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "base/open_file.h"
#include "base/owned_bytes.h"
#include "base/path.h"
#include "base/unique_handle.h"
#include "collectors/mps/mps_kbr.h"
#include "framework/files/whole_file.h"
#include "framework/time/clock.h"
#include "mps_data.pb.h"
#include "platform/log.h"

namespace {

constexpr char RECORD_DIR[] = "/data/vendor/vexastats/6";
constexpr char RECORD_FILE[] = "mpscollectstats.tmp";
constexpr char DATA_DIR[] = "/mnt/vendor/persist/hlos_rfs/shared/vexa";
constexpr off_t DATA_FILE_MAX = off_t{16} << 20;  // bytes
constexpr char DATA_SUFFIX[] = ".bin";

constexpr uint32_t COLLECTING = 2;
constexpr size_t RECORD_PER_BYTE = 2;  // a record may have so many bytes for each of its data

struct data_marker {
    const char* text = nullptr;
    mps_data_kind kind = MPS_DATA_METRIC;
};

// In this order: a name may hold more than one of them.
constexpr data_marker MARKERS[] = {
    {.text = "hda_data_", .kind = MPS_DATA_METRIC},
    {.text = "hda_static_data_", .kind = MPS_DATA_STATIC},
    {.text = "hda_lll", .kind = MPS_DATA_LLL},
};

// ---- Encoding

struct byte_source {
    const uint8_t* bytes = nullptr;
    size_t length = 0;
};

bool mps_encode_bytes(pb_ostream_t* stream, const pb_field_t* field, void* const* arg) {
    const auto* source = static_cast<const byte_source*>(*arg);
    if (!pb_encode_tag_for_field(stream, field)) {
        ALOGE("mps_encode_bytes(): Tag Encode Failed ");
        return false;
    }
    if (!pb_encode_string(stream, source->bytes, source->length)) {
        ALOGE("mps_encode_bytes(): String Encode Failed %s", PB_GET_ERROR(stream));
        return false;
    }
    return true;
}

bool mps_encode_modem_metric_data(pb_ostream_t* stream, const pb_field_t* field, void* const* arg) {
    if (!pb_encode_tag_for_field(stream, field)) {
        ALOGE("mps_encode_modem_metric_data(): Tag Encode Failed ");
        return false;
    }
    if (!pb_encode_submessage(stream, ModemMetricData_fields, *arg)) {
        ALOGE("mps_encode_modem_metric_data(): Submessage Encode Failed %s", PB_GET_ERROR(stream));
        return false;
    }
    return true;
}

pb_callback_t encode_with(bool (*encode)(pb_ostream_t*, const pb_field_t*, void* const*),
                          void* arg) {
    pb_callback_t callback{};
    callback.funcs.encode = encode;
    callback.arg = arg;
    return callback;
}

MpsDataHeader header_message(const collector_info& row) {
    const mps_service_revision revision = mps_kbr_service_revision();
    MpsDataHeader message = MpsDataHeader_init_zero;
    message.campaignId = row.hdr.campaign_id;
    message.clientId = row.hdr.client_id;
    message.majorVersion = revision.major;
    message.minorVersion = revision.minor;
    return message;
}

MetricTimeInfo time_message(const mps_time_info& time) {
    MetricTimeInfo message = MetricTimeInfo_init_zero;
    message.collectionState = time.collection_state;
    message.timeZone.isBehindUtc = time.is_behind_utc;
    message.timeZone.offsetMin = time.offset_min;
    message.realTimeMs = time.real_time_ms;
    return message;
}

// A record but for its data, which are its last bytes. So that they need no copy, which would have
// to be as large as they are, they stay where they are when the encoder comes to them.
struct record_head {
    uint8_t bytes[256];  // more than header, times and tags can take
    size_t length = 0;
    byte_source data{};
};

bool write_head(pb_ostream_t* stream, const pb_byte_t* bytes, size_t count) {
    auto* head = static_cast<record_head*>(stream->state);
    if (bytes == head->data.bytes) return true;
    if (count > sizeof head->bytes - head->length) return false;
    memcpy(head->bytes + head->length, bytes, count);
    head->length += count;
    return true;
}

// Encodes the one record that `source` makes, of at most max_len bytes. Returns whether it fits.
bool encode_record(const mps_collection& collection, byte_source source, bool as_metric,
                   mps_data_kind kind, size_t max_len, record_head* head) {
    head->data = source;
    MpsDataRecord record = MpsDataRecord_init_zero;
    record.header = header_message(*collection.row);
    ModemMetricData metric = ModemMetricData_init_zero;
    if (as_metric) {
        metric.startTime = time_message(collection.start);
        metric.endTime = time_message(mps_time_now());
        metric.dataKind = kind;
        metric.data = encode_with(mps_encode_bytes, &source);
        record.metricData = encode_with(mps_encode_modem_metric_data, &metric);
    } else {
        record.rawData = encode_with(mps_encode_bytes, &source);
    }
    pb_ostream_t stream = PB_OSTREAM_SIZING;
    stream.callback = write_head;
    stream.state = head;
    stream.max_size = max_len;
    return pb_encode(&stream, MpsDataRecord_fields, &record);
}

// ---- Data files

const data_marker* find_marker(const char* name) {
    if (!strstr(name, DATA_SUFFIX)) return nullptr;
    for (const data_marker& marker : MARKERS) {
        if (strstr(name, marker.text)) return &marker;
    }
    return nullptr;
}

file_mark* find_mark(mps_file_marks* marks, const file_mark& file) {
    auto* found = std::find(marks->files.begin(), marks->files.end(), file);
    return file.exists && found != marks->files.end() ? found : nullptr;
}

void add_mark(mps_file_marks* marks, const file_mark& file) {
    marks->files[marks->next++ % marks->files.size()] = file;
}

struct data_path {
    char text[sizeof DATA_DIR + 1 + NAME_MAX];
    explicit data_path(const char* name) { (void)path_join(text, DATA_DIR, name); }
};

// An entry of the shared directory, which others may write to.
struct data_entry {
    int dir_fd = -1;
    const char* name = nullptr;
    file_mark file{};
    bool is_plain = false;  // a regular file with one name
};

data_entry look_at(int dir_fd, const char* name) {
    data_entry entry{.dir_fd = dir_fd, .name = name};
    struct stat status = {};
    if (fstatat(dir_fd, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return entry;
    entry.file = file_mark_of(status);
    entry.is_plain = S_ISREG(status.st_mode) && status.st_nlink == 1;
    return entry;
}

// Deletes a file that was taken, now or before.
void delete_file(mps_collection* collection, const data_entry& entry) {
    file_mark* undeleted = find_mark(&collection->undeleted, entry.file);
    if (unlinkat(entry.dir_fd, entry.name, 0) == 0 || errno == ENOENT) {
        if (undeleted) *undeleted = {};
        return;
    }
    if (undeleted) return;
    ALOGE("failed to remove %s. err:%d\n", data_path(entry.name).text, errno);
    add_mark(&collection->undeleted, entry.file);
}

// Returns whether the file was taken, be it without success: then it goes.
bool read_file(mps_collection* collection, const data_entry& entry, const data_marker& marker,
               const char* caller) {
    const data_path path(entry.name);
    const unique_fd fd = open_outsider(DATA_DIR, entry.name, DATA_FILE_MAX);
    if (!fd && errno == EFBIG) {
        ALOGE("Failed in reading file %s", path.text);
        return true;
    }
    if (!fd) {
        ALOGE("Coult not  open the file %s", path.text);
        if (!entry.is_plain) add_mark(&collection->refused, entry.file);
        return false;
    }
    owned_bytes data;
    if (vexastats_read_whole(fd.get(), path.text, caller, DATA_FILE_MAX, &data)) {
        mps_drop_collected_data_to_dropbox(data.bytes.get(), data.length, collection, true,
                                           marker.kind);
    }
    return true;
}

// Takes one entry of the shared directory.
void handle_file(mps_collection* collection, int dir_fd, const char* name, const char* caller) {
    const data_marker* marker = find_marker(name);
    if (!marker) {
        ALOGI("Not a recongnizable file %s", name);
        return;
    }
    const data_entry entry = look_at(dir_fd, name);
    if (!entry.is_plain && find_mark(&collection->refused, entry.file)) return;
    if (find_mark(&collection->undeleted, entry.file)) {
        delete_file(collection, entry);
        return;
    }
    ALOGI("%s Opening file %s", caller, data_path(name).text);
    if (read_file(collection, entry, *marker, caller)) delete_file(collection, entry);
}

record_init_req record_of(const mps_collection& collection) {
    return {.row = collection.row, .dir = RECORD_DIR, .prefix = RECORD_FILE};
}

}  // namespace

mps_time_info mps_time_now() {
    const int offset_min = vexastats_timezone_min();
    return {.collection_state = COLLECTING,
            .is_behind_utc = offset_min < 0 ? 1u : 0u,
            .offset_min = static_cast<uint32_t>(abs(offset_min)),
            .real_time_ms = vexastats_real_time_ms()};
}

bool mps_open_record(mps_collection* collection) {
    vexastats_record_close(&collection->record);
    record_init_req req = record_of(*collection);
    collection->record.file = vexastats_record_init(&req);
    return collection->record.file != nullptr;
}

int mps_rfs_data_read(mps_collection* collection) {
    ALOGI("In function %s", __func__);
    const unique_dir dir = open_unlinked_dir(DATA_DIR);
    if (!dir) {
        ALOGE("Error : Failed to open RFS directory - %s\n", strerror(errno));
        return -1;
    }
    ALOGI("%s Directory opened succesfully", __func__);
    while (!stop_flag_is_raised(collection->row->stop) && collection->row->enabled) {
        const dirent* entry = readdir(dir.get());
        if (!entry) break;
        handle_file(collection, dirfd(dir.get()), entry->d_name, __func__);
    }
    return 0;
}

void mps_rfs_data_discard() {
    const unique_dir dir = open_unlinked_dir(DATA_DIR);
    if (!dir) return;
    while (const dirent* entry = readdir(dir.get())) {
        if (!find_marker(entry->d_name)) continue;
        if (!look_at(dirfd(dir.get()), entry->d_name).is_plain) continue;
        const data_path path(entry->d_name);
        if (unlinkat(dirfd(dir.get()), entry->d_name, 0) == 0) {
            ALOGI("opt-out status, removed %s\n", path.text);
        } else {
            ALOGE("failed to remove %s. err:%d\n", path.text, errno);
        }
    }
}

void mps_drop_collected_data_to_dropbox(const uint8_t* data, size_t length,
                                        mps_collection* collection, bool as_metric,
                                        mps_data_kind kind) {
    if (!data || !collection || !collection->row) {
        ALOGE("Null bufptr passed to function %s\n", __func__);
        return;
    }
    collector_info* row = collection->row;
    ALOGI("Campaign Id = %lu", static_cast<unsigned long>(row->hdr.campaign_id));
    record_head head;
    if (!encode_record(*collection, {.bytes = data, .length = length}, as_metric, kind,
                       length * RECORD_PER_BYTE, &head)) {
        ALOGE("Encoding failed in  function %s Reason\n", __func__);
        return;
    }
    ALOGI("Encoding passed in  function %s\n", __func__);
    // A hand-over that failed before has taken the stream.
    if (!collection->record.file) {
        (void)vexastats_record_reopen(record_of(*collection), &collection->record);
    }
    write_req req{.row = row,
                  .handle = &collection->record,
                  .data = data,
                  .len = length,
                  .flags = WRITE_DROP | WRITE_BEGIN_NEW,
                  .head = head.bytes,
                  .head_len = head.length};
    const size_t count = vexastats_write_file(&req);
    if (count != head.length + length)
        ALOGE("%s: failed to write file. cnt:%zu\n", __func__, count);
}
