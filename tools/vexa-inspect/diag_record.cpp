#include "diag_record.h"

#include <fmt/format.h>

#include "byte_cursor.h"
#include "text.h"

namespace {

constexpr size_t HEADER_SIZE = 16;

std::string packet_table(const std::vector<diag_packet>& packets, size_t max_rows) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& packet : packets) {
        if (rows.size() == max_rows) break;
        rows.push_back({fmt::format("{:06x}", packet.offset), fmt::format("{}", packet.length),
                        fmt::format("0x{:04x}", packet.log_code),
                        fmt::format("{}", packet.time_stamp), fmt::format("{}", packet.sequence)});
    }
    std::string table =
        text_table({{"offset"}, {"bytes"}, {"log code"}, {"time stamp"}, {"sequence"}}, rows);
    if (rows.size() < packets.size())
        table += fmt::format("  and {} more\n", packets.size() - rows.size());
    return table;
}

}  // namespace

std::vector<diag_packet> diag_record_packets(std::span<const uint8_t> payload) {
    std::vector<diag_packet> packets;
    byte_cursor in(payload);
    while (in.left() >= HEADER_SIZE) {
        diag_packet packet;
        packet.offset = in.offset();
        packet.length = in.take<uint16_t>("length");
        packet.log_code = in.take<uint16_t>("log code");
        packet.time_stamp = in.take<uint64_t>("time stamp");
        packet.sequence = in.take<uint32_t>("sequence");
        if (packet.length < HEADER_SIZE || packet.length - HEADER_SIZE > in.left()) return {};
        packet.data = in.take_bytes(packet.length - HEADER_SIZE, "data");
        packets.push_back(packet);
    }
    if (in.left() > 0) return {};
    return packets;
}

void diag_record_add_json(const upload_file& file, json_stream* out) {
    const auto packets = diag_record_packets(file.payload);
    if (packets.empty() && !file.payload.empty())
        out->member("payload_hex", text_digits(file.payload));
    out->begin_array("records");
    for (const auto& packet : packets)
        out->value({{"offset", packet.offset},
                    {"length", packet.length},
                    {"log_code", packet.log_code},
                    {"time_stamp", packet.time_stamp},
                    {"sequence", packet.sequence},
                    {"data_hex", text_digits(packet.data)}});
    out->end_array();
}

std::string diag_record_report(const upload_file& file, const report_options& options) {
    if (file.payload.empty()) return "  No packets.\n";
    std::string report;
    const auto packets = diag_record_packets(file.payload);
    if (!packets.empty())
        report += fmt::format("  packets   {}\n\n{}\n", packets.size(),
                              packet_table(packets, options.max_rows));
    return report + "  Payload:\n" + text_hex(file.payload, options.max_hex_bytes);
}
