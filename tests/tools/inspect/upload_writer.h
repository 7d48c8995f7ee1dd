// Writes upload files for the inspector's tests, from the format's description and nothing else.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>
#include <vector>

using byte_vector = std::vector<uint8_t>;

inline void put_le(byte_vector& out, uint64_t value, int width) {
    for (int i = 0; i < width; i++) out.push_back(static_cast<uint8_t>(value >> 8 * i));
}

inline void put_be(byte_vector& out, uint64_t value, int width) {
    for (int i = width - 1; i >= 0; i--) out.push_back(static_cast<uint8_t>(value >> 8 * i));
}

inline void put_text(byte_vector& out, std::string_view text) {
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
}

inline byte_vector from_hex(std::string_view hex) {
    byte_vector out;
    for (size_t i = 0; i < hex.size(); i++) {
        if (hex[i] == ' ') continue;
        out.push_back(
            static_cast<uint8_t>(std::strtoul(std::string(hex.substr(i, 2)).c_str(), nullptr, 16)));
        i++;
    }
    return out;
}

inline byte_vector gzip(std::span<const uint8_t> plain) {
    z_stream stream{};
    if (deflateInit2(&stream, -1, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK) std::abort();
    byte_vector out(deflateBound(&stream, plain.size()));
    stream.next_in = const_cast<Bytef*>(plain.data());
    stream.avail_in = static_cast<uInt>(plain.size());
    stream.next_out = out.data();
    stream.avail_out = static_cast<uInt>(out.size());
    if (deflate(&stream, Z_FINISH) != Z_STREAM_END) std::abort();
    out.resize(stream.total_out);
    deflateEnd(&stream);
    return out;
}

struct file_fields {
    uint32_t client_id = 2;
    uint8_t data_type = 1;
    uint32_t rec_version = 6;
    uint64_t realtime_ms = 1700000000000;
    uint64_t uptime_ms = 360000;
    int16_t timezone_min = 60;
};

// A file whose payload is already compressed.
inline byte_vector packed_upload(const byte_vector& packed, const file_fields& fields = {}) {
    byte_vector out;
    put_be(out, 7, 4);
    put_be(out, 53, 4);
    put_be(out, fields.client_id, 4);
    put_be(out, fields.data_type, 1);
    put_be(out, fields.rec_version, 4);
    put_be(out, fields.realtime_ms, 8);
    put_be(out, packed.size(), 4);
    put_be(out, 1, 1);
    put_be(out, 1, 1);
    put_be(out, fields.uptime_ms, 8);
    put_be(out, static_cast<uint16_t>(fields.timezone_min), 2);
    put_be(out, 0, 8);
    put_be(out, 1, 4);
    out.insert(out.end(), packed.begin(), packed.end());
    return out;
}

inline byte_vector upload(std::span<const uint8_t> payload, const file_fields& fields = {}) {
    return packed_upload(gzip(payload), fields);
}

// One CPU sample. The defaults are an idle phone of two CPUs.
struct sample_fields {
    uint32_t stamp = 3610;  // 100 ms
    int timezone_min = 0;   // written when bit 31 of the stamp is set
    std::vector<std::vector<uint32_t>> times = {{100, 0, 50, 1000, 10, 1, 2},
                                                {90, 0, 40, 1100, 5, 0, 1}};
    std::vector<uint32_t> freq_khz = {1804800, 300000};
    int32_t charge_uah = 2512000;
    uint16_t power = 0x81CA;
    std::vector<std::pair<std::string_view, int32_t>> zones = {{"bat", 31500}};
    std::vector<byte_vector> network = {};
    std::vector<byte_vector> processes = {};
};

inline byte_vector network_entry(uint8_t interface_class, uint16_t uid, uint8_t set, uint32_t rx,
                                 uint32_t tx) {
    byte_vector out;
    put_le(out, interface_class, 1);
    put_le(out, uid, 2);
    put_le(out, set, 1);
    put_le(out, rx, 4);
    put_le(out, tx, 4);
    return out;
}

inline byte_vector process_entry(std::string_view name, uint16_t load_x500, uint8_t cpuset,
                                 std::vector<byte_vector> rows = {}) {
    byte_vector out;
    put_text(out, name);
    put_le(out, load_x500, 2);
    put_le(out, cpuset, 1);
    rows.resize(4, byte_vector(12));
    for (const auto& row : rows) out.insert(out.end(), row.begin(), row.end());
    return out;
}

inline byte_vector sample(const sample_fields& fields = {}) {
    byte_vector out;
    put_le(out, fields.stamp, 4);
    if (fields.stamp >> 31) put_le(out, static_cast<uint16_t>(fields.timezone_min), 2);
    put_le(out, fields.times.size(), 4);
    for (const auto& cpu : fields.times)
        for (const uint32_t ticks : cpu) put_le(out, ticks, 4);
    for (const uint32_t freq : fields.freq_khz) put_le(out, freq, 4);
    put_le(out, static_cast<uint32_t>(fields.charge_uah), 4);
    put_le(out, fields.power, 2);
    put_le(out, fields.zones.size(), 2);
    for (const auto& [name, temp] : fields.zones) {
        put_text(out, name);
        put_le(out, static_cast<uint32_t>(temp), 4);
    }
    put_le(out, fields.network.size(), 2);
    for (const auto& entry : fields.network) out.insert(out.end(), entry.begin(), entry.end());
    put_le(out, fields.processes.size(), 2);
    for (const auto& entry : fields.processes) out.insert(out.end(), entry.begin(), entry.end());
    return out;
}

inline byte_vector operator+(byte_vector left, const byte_vector& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}
