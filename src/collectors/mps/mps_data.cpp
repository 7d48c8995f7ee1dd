#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_data.h"

#include <errno.h>
#include <limits.h>
#include <pb_encode.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "collectors/mps/mps_kbr.h"
#include "framework/clock.h"
#include "framework/files.h"
#include "framework/owned_bytes.h"
#include "framework/unique_handle.h"
#include "mps_data.pb.h"
#include "platform/log.h"

namespace {

constexpr char RECORD_DIR[] = "/data/vendor/vexastats/6";
constexpr char RECORD_FILE[] = "mpscollectstats.tmp";
constexpr char DATA_DIR[] = "/mnt/vendor/persist/hlos_rfs/shared/vexa";
constexpr char DATA_SUFFIX[] = ".bin";

constexpr uint32_t COLLECTING = 2;
constexpr size_t BUFFER_PER_BYTE = 2;  // bytes of output buffer for a byte of data

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

// Encodes the one record that `source` makes. Returns its length, 0 when it does not fit.
size_t encode_record(const mps_collection& collection, byte_source source, bool as_metric,
                     mps_data_kind kind, uint8_t* buffer, size_t buffer_size) {
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
    pb_ostream_t stream = pb_ostream_from_buffer(buffer, buffer_size);
    return pb_encode(&stream, MpsDataRecord_fields, &record) ? stream.bytes_written : 0;
}

// ---- Data files

const data_marker* find_marker(const char* name) {
    if (!strstr(name, DATA_SUFFIX)) return nullptr;
    for (const data_marker& marker : MARKERS) {
        if (strstr(name, marker.text)) return &marker;
    }
    return nullptr;
}

// Takes one entry of the shared directory.
void take_file(mps_collection* collection, const char* name, const char* caller) {
    const data_marker* marker = find_marker(name);
    if (!marker) {
        ALOGI("Not a recongnizable file %s", name);
        return;
    }
    char path[sizeof DATA_DIR + 1 + NAME_MAX];
    snprintf(path, sizeof path, "%s/%s", DATA_DIR, name);
    ALOGI("%s Opening file %s", caller, path);
    owned_bytes data;
    const int result = vexastats_read_file(path, caller, &data);
    if (result == -ENOENT) return;  // not opened: it stays for the next time
    if (result == 0) {
        mps_drop_collected_data_to_dropbox(data.bytes.get(), data.length, collection, true,
                                           marker->kind);
    }
    (void)unlink(path);
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
    record_init_req req{.row = collection->row, .dir = RECORD_DIR, .prefix = RECORD_FILE};
    collection->record.file = vexastats_record_init(&req);
    return collection->record.file != nullptr;
}

int mps_rfs_data_read(mps_collection* collection) {
    ALOGI("In function %s", __func__);
    const unique_dir dir(opendir(DATA_DIR));
    if (!dir) {
        ALOGE("Error : Failed to open RFS directory - %s\n", strerror(errno));
        return -1;
    }
    ALOGI("%s Directory opened succesfully", __func__);
    while (!stop_flag_is_raised(collection->row->stop)) {
        const dirent* entry = readdir(dir.get());
        if (!entry) break;
        take_file(collection, entry->d_name, __func__);
    }
    return 0;
}

void mps_drop_collected_data_to_dropbox(const uint8_t* data, size_t length,
                                        mps_collection* collection, bool as_metric,
                                        mps_data_kind kind) {
    if (!data || !collection || !collection->row) {
        ALOGE("Null bufptr passed to function %s\n", __func__);
        return;
    }
    const unique_malloc<uint8_t> buffer(
        static_cast<uint8_t*>(reallocarray(nullptr, length, BUFFER_PER_BYTE)));
    if (!buffer) {
        ALOGE("Could not allocate memory for encoding in function %s\n", __func__);
        return;
    }
    collector_info* row = collection->row;
    ALOGI("Campaign Id = %lu", static_cast<unsigned long>(row->hdr.campaign_id));
    const size_t encoded = encode_record(*collection, {.bytes = data, .length = length}, as_metric,
                                         kind, buffer.get(), length * BUFFER_PER_BYTE);
    if (encoded == 0) {
        ALOGE("Encoding failed in  function %s Reason\n", __func__);
        return;
    }
    ALOGI("Encoding passed in  function %s\n", __func__);
    // A hand-over that failed before has taken the stream.
    if (!collection->record.file) (void)mps_open_record(collection);
    write_req req{.row = row,
                  .handle = &collection->record,
                  .data = buffer.get(),
                  .len = encoded,
                  .flags = WRITE_DROP | WRITE_BEGIN_NEW};
    const size_t count = vexastats_write_file(&req);
    if (count != encoded) ALOGE("%s: failed to write file. cnt:%zu\n", __func__, count);
}
