#include "record_formats.h"

#include <fmt/format.h>

#include <utility>

#include "alog_record.h"
#include "cpu_report.h"
#include "diag_record.h"
#include "gpu_record.h"
#include "microdump_record.h"
#include "mps_record.h"
#include "static_record.h"
#include "text.h"

namespace {

constexpr size_t DATA_TYPE_OFFSET = 12;

// Of FORMATS whose tables are sized by what is in all of their rows.
template <std::string (*report)(const upload_file&, const report_options&)>
void in_one_piece(const upload_file& file, const report_options& options, const text_sink& out) {
    out(report(file, options));
}

constexpr record_format FORMATS[] = {
    {.client_id = 1,
     .rec_version = 4,
     .data_type = 1,
     .name = "GPU statistics",
     .add_json = gpu_record_add_json,
     .report = in_one_piece<gpu_record_report>},
    {.client_id = 2,
     .rec_version = 6,
     .data_type = 1,
     .name = "CPU statistics",
     .add_json = cpu_record_add_json,
     .report = in_one_piece<cpu_record_report>},
    {.client_id = 3,
     .rec_version = 1,
     .data_type = 3,
     .name = "static information",
     .add_json = static_record_add_json,
     .report = in_one_piece<static_record_report>},
    {.client_id = 4,
     .rec_version = 1,
     .data_type = 1,
     .name = "modem log packets",
     .add_json = diag_record_add_json,
     .report = in_one_piece<diag_record_report>},
    {.client_id = 5,
     .rec_version = 2,
     .data_type = 2,
     .name = "modem crash dumps",
     .add_json = microdump_record_add_json,
     .report = in_one_piece<microdump_record_report>},
    {.client_id = 6,
     .rec_version = 1,
     .data_type = 4,
     .name = "modem statistics",
     .add_json = mps_record_add_json,
     .report = mps_record_put_report},
    {.client_id = 501,
     .rec_version = 1,
     .data_type = 1,
     .name = "Android log",
     .add_json = alog_record_add_json,
     .report = alog_record_put_report},
};

void add_unknown_json(const upload_file& file, json_stream* out) {
    out->member("payload_hex", text_digits(file.payload));
    out->member("records", json_object::array());
}

void put_header(const std::string& path, const upload_file& file, json_stream* out) {
    const auto& header = file.header;
    out->member("file", path);
    out->member("header_version", header.header_version);
    out->member("header_len", header.header_len);
    out->member("client_id", header.client_id);
    out->member("data_type", header.data_type);
    out->member("rec_version", header.rec_version);
    out->member("realtime_ms", header.realtime_ms);
    out->member("payload_len", header.payload_len);
    out->member("header_attr1", header.header_attr1);
    out->member("header_attr2", header.header_attr2);
    out->member("uptime_ms", header.uptime_ms);
    out->member("timezone_min", header.timezone_min);
    out->member("campaign_id", header.campaign_id);
    out->member("seq", header.seq);
    out->member("payload_bytes", file.payload.size());
}

std::string unknown_report(const upload_file& file, const report_options& options) {
    return "  Payload of an unknown format:\n" + text_hex(file.payload, options.max_hex_bytes);
}

std::string header_report(const upload_header& header, const char* format_name,
                          size_t payload_bytes) {
    return fmt::format(
        "  client    {} ({}), record version {}, data type {}\n"
        "  begun     {}, {} after boot\n"
        "  sequence  {}, campaign {}, attributes {} and {}\n"
        "  payload   {} bytes in the file, {} unpacked\n",
        header.client_id, format_name, header.rec_version, header.data_type,
        text_local_time(header.realtime_ms, header.timezone_min), text_duration(header.uptime_ms),
        header.seq, header.campaign_id ? fmt::format("{}", header.campaign_id) : "none",
        header.header_attr1, header.header_attr2, header.payload_len, payload_bytes);
}

// The payload may turn out to be damaged until its first piece is out; what stands in front of it
// waits for that.
class held_head {
  public:
    explicit held_head(const text_sink& out) : out_(out) {}

    void put(std::string_view text) {
        if (is_held_) {
            head_ += text;
            return;
        }
        if (!head_.empty()) out_(std::exchange(head_, {}));
        out_(text);
    }
    void release() { is_held_ = false; }

  private:
    const text_sink& out_;
    std::string head_;
    bool is_held_ = true;
};

}  // namespace

std::span<const record_format> record_format_list() {
    return FORMATS;
}

const record_format* record_format_find(const upload_header& header) {
    for (const auto& format : FORMATS) {
        if (format.client_id != header.client_id || format.rec_version != header.rec_version)
            continue;
        if (format.data_type != header.data_type)
            throw upload_error(upload_place::file, DATA_TYPE_OFFSET,
                               fmt::format("data type is {}, but {} has {}", header.data_type,
                                           format.name, format.data_type));
        return &format;
    }
    return nullptr;
}

void upload_put_json(const std::string& path, const upload_file& file, const text_sink& out) {
    const auto* format = record_format_find(file.header);
    held_head held(out);
    json_stream stream([&](std::string_view text) { held.put(text); });
    stream.begin_object();
    put_header(path, file, &stream);
    held.release();
    if (format)
        format->add_json(file, &stream);
    else
        add_unknown_json(file, &stream);
    stream.end_object();
}

std::string upload_json(const std::string& path, const upload_file& file) {
    std::string text;
    upload_put_json(path, file, [&](std::string_view piece) { text += piece; });
    return text;
}

void upload_put_report(const std::string& path, const upload_file& file,
                       const report_options& options, const text_sink& out) {
    const auto* format = record_format_find(file.header);
    held_head held(out);
    held.put(text_printable(path) + "\n" +
             header_report(file.header, format ? format->name : "unknown", file.payload.size()) +
             "\n");
    held.release();
    if (format)
        format->report(file, options, [&](std::string_view text) { held.put(text); });
    else
        held.put(unknown_report(file, options));
}

std::string upload_report(const std::string& path, const upload_file& file,
                          const report_options& options) {
    std::string text;
    upload_put_report(path, file, options, [&](std::string_view piece) { text += piece; });
    return text;
}
