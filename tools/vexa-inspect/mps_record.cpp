#include "mps_record.h"

#include <fmt/format.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "mps_data.pb.h"
#include "sample_times.h"
#include "text.h"

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

constexpr size_t DATA_HEAD_BYTES = 256;  // most bytes of a data file shown
constexpr uint8_t HEADER_TAG = 0x0a;     // every record begins with its header

constexpr const char* KIND_NAMES[] = {"Metrics", "Static data", "LLL data"};

mps_moment moment_of(const vexa::MetricTimeInfo& message) {
    const int64_t offset_min = message.timezone().offsetmin();
    return {.collection_state = message.collectionstate(),
            .timezone_min = message.timezone().isbehindutc() ? -offset_min : offset_min,
            .realtime_ms = message.realtimems()};
}

bool take_header(const std::string& bytes, mps_record* record) {
    vexa::MpsDataHeader header;
    if (!header.ParseFromString(bytes)) return false;
    record->campaign_id = header.campaignid();
    record->client_id = header.clientid();
    record->major_version = header.majorversion();
    record->minor_version = header.minorversion();
    return true;
}

bool take_metric(const std::string& bytes, mps_record* record) {
    vexa::ModemMetricData metric;
    if (!metric.ParseFromString(bytes)) return false;
    if (record->metrics.size() == MPS_DATA_MAX) {
        ++record->left_out;
        return true;
    }
    record->metrics.push_back({.start = moment_of(metric.starttime()),
                               .end = moment_of(metric.endtime()),
                               .data_kind = metric.datakind(),
                               .data = metric.data()});
    return true;
}

// Takes the next field of the record. Returns false when it is damaged.
bool take_field(CodedInputStream* in, mps_record* record) {
    const uint32_t tag = in->ReadTag();
    if (tag == 0) return false;
    const int number = WireFormatLite::GetTagFieldNumber(tag);
    if (number < vexa::MpsDataRecord::kHeaderFieldNumber ||
        number > vexa::MpsDataRecord::kMetricDataFieldNumber)
        return WireFormatLite::SkipField(in, tag);

    uint32_t length = 0;
    std::string bytes;
    if (WireFormatLite::GetTagWireType(tag) != WireFormatLite::WIRETYPE_LENGTH_DELIMITED ||
        !in->ReadVarint32(&length) || length > INT32_MAX ||
        !in->ReadString(&bytes, static_cast<int>(length)))
        return false;
    if (number == vexa::MpsDataRecord::kHeaderFieldNumber) return take_header(bytes, record);
    if (number == vexa::MpsDataRecord::kMetricDataFieldNumber) return take_metric(bytes, record);
    if (record->raw_data.size() < MPS_DATA_MAX)
        record->raw_data.push_back(std::move(bytes));
    else
        ++record->left_out;
    return true;
}

// How much of an old first line is in front of the header.
size_t left_over_len(std::span<const uint8_t> payload) {
    for (size_t len = 0; len <= LEFT_OVER_MAX_BYTES && len < payload.size(); len++) {
        if (payload[len] == HEADER_TAG && (len == 0 || payload[len - 1] == '\n')) return len;
    }
    return 0;
}

json_object json_of(const mps_moment& moment) {
    return {{"collection_state", moment.collection_state},
            {"timezone_min", moment.timezone_min},
            {"realtime_ms", moment.realtime_ms}};
}

void put_record(const mps_record& record, json_stream* out) {
    out->begin_object();
    out->member("header", {{"campaign_id", record.campaign_id},
                           {"client_id", record.client_id},
                           {"major_version", record.major_version},
                           {"minor_version", record.minor_version}});
    out->begin_array("raw_data_hex");
    for (const auto& data : record.raw_data) out->value(text_digits(data));
    out->end_array();
    out->begin_array("metric_data");
    for (const auto& metric : record.metrics)
        out->value({{"start_time", json_of(metric.start)},
                    {"end_time", json_of(metric.end)},
                    {"data_kind", metric.data_kind},
                    {"data_hex", text_digits(metric.data)}});
    out->end_array();
    if (record.left_out > 0) out->member("left_out", record.left_out);
    out->end_object();
}

std::string text_of(const mps_moment& moment) {
    if (moment.realtime_ms == 0) return "unknown";
    return fmt::format("{}, state {}",
                       text_local_time(moment.realtime_ms, static_cast<int>(moment.timezone_min)),
                       moment.collection_state);
}

std::string head_of(const std::string& data, const report_options& options) {
    return text_hex({reinterpret_cast<const uint8_t*>(data.data()), data.size()},
                    std::min(options.max_hex_bytes, DATA_HEAD_BYTES));
}

std::string metric_report(const mps_metric& metric, const report_options& options) {
    const std::string kind = metric.data_kind < std::size(KIND_NAMES)
                                 ? KIND_NAMES[metric.data_kind]
                                 : fmt::format("Data of kind {}", metric.data_kind);
    return fmt::format("\n  {}, {} bytes\n    start   {}\n    end     {}\n", kind,
                       metric.data.size(), text_of(metric.start), text_of(metric.end)) +
           head_of(metric.data, options);
}

}  // namespace

mps_record mps_record_decode(std::span<const uint8_t> payload) {
    mps_record record;
    record.skipped_bytes = left_over_len(payload);
    const auto bytes = payload.subspan(record.skipped_bytes);
    CodedInputStream in(bytes.data(), static_cast<int>(bytes.size()));
    while (static_cast<size_t>(in.CurrentPosition()) < bytes.size()) {
        const size_t at = record.skipped_bytes + static_cast<size_t>(in.CurrentPosition());
        if (!take_field(&in, &record))
            throw upload_error(upload_place::payload, at, "a field that is not whole");
    }
    return record;
}

void mps_record_add_json(const upload_file& file, json_stream* out) {
    const auto record = mps_record_decode(file.payload);
    if (record.skipped_bytes > 0) out->member("skipped_bytes", record.skipped_bytes);
    out->begin_array("records");
    if (!file.payload.empty()) put_record(record, out);
    out->end_array();
}

void mps_record_put_report(const upload_file& file, const report_options& options,
                           const text_sink& out) {
    if (file.payload.empty()) {
        out("  No data.\n");
        return;
    }
    const auto record = mps_record_decode(file.payload);
    out(skipped_note(record.skipped_bytes));
    out(fmt::format("  campaign  {}\n  service   version {}.{}\n", record.campaign_id,
                    record.major_version, record.minor_version));
    for (const auto& data : record.raw_data)
        out(fmt::format("\n  Raw data, {} bytes\n", data.size()) + head_of(data, options));
    for (const auto& metric : record.metrics) out(metric_report(metric, options));
    if (record.left_out > 0) out(fmt::format("\n  ... and {} data files more\n", record.left_out));
}
