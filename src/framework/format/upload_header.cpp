#include "framework/format/upload_header.h"

namespace {

// A cursor that converts between integers and big-endian bytes, in either direction.
template <class Int>
void put(uint8_t** at, Int value) {
    for (size_t i = sizeof(Int); i-- > 0;) {
        *(*at)++ = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
    }
}

template <class Int>
Int get(const uint8_t** at) {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(Int); i++) value = value << 8 | *(*at)++;
    return static_cast<Int>(value);
}

}  // namespace

void upload_header_encode(const record_header& header, uint8_t (&out)[UPLOAD_HEADER_LEN]) {
    uint8_t* at = out;
    put<uint32_t>(&at, header.header_version);
    put<uint32_t>(&at, header.header_len);
    put<uint32_t>(&at, header.client_id);
    put<uint8_t>(&at, header.data_type);
    put<uint32_t>(&at, header.rec_version);
    put<uint64_t>(&at, header.realtime_ms);
    put<uint32_t>(&at, header.payload_len);
    put<uint8_t>(&at, header.header_attr1);
    put<uint8_t>(&at, header.header_attr2);
    put<uint64_t>(&at, header.uptime_ms);
    put<int16_t>(&at, header.timezone_min);
    put<uint64_t>(&at, header.campaign_id);
    put<uint32_t>(&at, header.seq);
}

void upload_header_decode(const uint8_t (&in)[UPLOAD_HEADER_LEN], record_header* header) {
    const uint8_t* at = in;
    header->header_version = get<uint32_t>(&at);
    header->header_len = get<uint32_t>(&at);
    header->client_id = get<uint32_t>(&at);
    header->data_type = get<uint8_t>(&at);
    header->rec_version = get<uint32_t>(&at);
    header->realtime_ms = get<uint64_t>(&at);
    header->payload_len = get<uint32_t>(&at);
    header->header_attr1 = get<uint8_t>(&at);
    header->header_attr2 = get<uint8_t>(&at);
    header->uptime_ms = get<uint64_t>(&at);
    header->timezone_min = get<int16_t>(&at);
    header->campaign_id = get<uint64_t>(&at);
    header->seq = get<uint32_t>(&at);
}
