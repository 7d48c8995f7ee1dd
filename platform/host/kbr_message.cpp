#include "host/kbr_message.h"

#include <string.h>

#include <algorithm>
#include <utility>

#include "base/little_endian.h"

namespace {

constexpr size_t FIELD_HEADER_SIZE = 3;  // u8 type, u16 length
constexpr size_t COUNT_SIZE = 2;         // u16 in front of the elements of an array
constexpr size_t RESULT_SIZE = 4;        // u16 result, u16 error code
constexpr size_t MAX_FIELDS = 64;        // of one message: mandatory ones are counted in a mask

// Of an array in the C structure: a 32-bit count, then the elements.
constexpr size_t ELEMENTS_OFFSET = 4;

uint16_t get_u16(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] | at[1] << 8);
}

uint32_t load_u32(const uint8_t* at) {
    uint32_t value = 0;
    memcpy(&value, at, sizeof value);
    return value;
}

void store_u32(uint8_t* at, uint32_t value) {
    memcpy(at, &value, sizeof value);
}

bool is_optional(const kbr_field& field) {
    return field.flag_offset != KBR_MANDATORY;
}

// ---- Sizes

size_t members_max_len(std::span<const kbr_field> members);

size_t value_max_len(const kbr_field& field) {
    switch (field.kind) {
        case KBR_SCALAR:
            return field.size;
        case KBR_BYTES:
            return COUNT_SIZE + field.max;
        case KBR_RESULT:
            return RESULT_SIZE;
        case KBR_ARRAY:
            return COUNT_SIZE + field.max * members_max_len(field.members);
    }
    return 0;
}

size_t members_max_len(std::span<const kbr_field> members) {
    size_t len = 0;
    for (const kbr_field& member : members) len += value_max_len(member);
    return len;
}

// ---- Structure to bytes. Each writes one value and returns the place behind it, or null.

uint8_t* put_members(std::span<const kbr_field> members, const uint8_t* in, uint8_t* out);

uint8_t* put_bytes(const kbr_field& field, const uint8_t* in, uint8_t* out) {
    const uint32_t count = load_u32(in + field.offset);
    if (count > field.max) return nullptr;
    out = put_le(out, static_cast<uint16_t>(count));
    memcpy(out, in + field.offset + ELEMENTS_OFFSET, count);
    return out + count;
}

uint8_t* put_array(const kbr_field& field, const uint8_t* in, uint8_t* out) {
    const uint32_t count = load_u32(in + field.offset);
    if (count > field.max) return nullptr;
    out = put_le(out, static_cast<uint16_t>(count));
    const uint8_t* element = in + field.offset + ELEMENTS_OFFSET;
    for (uint32_t i = 0; out && i < count; ++i, element += field.size) {
        out = put_members(field.members, element, out);
    }
    return out;
}

uint8_t* put_value(const kbr_field& field, const uint8_t* in, uint8_t* out) {
    switch (field.kind) {
        case KBR_SCALAR:
            memcpy(out, in + field.offset, field.size);
            return out + field.size;
        case KBR_BYTES:
            return put_bytes(field, in, out);
        case KBR_RESULT:
            out = put_le(out, static_cast<uint16_t>(load_u32(in + field.offset)));
            return put_le(out, static_cast<uint16_t>(load_u32(in + field.offset + 4)));
        case KBR_ARRAY:
            return put_array(field, in, out);
    }
    return nullptr;
}

uint8_t* put_members(std::span<const kbr_field> members, const uint8_t* in, uint8_t* out) {
    for (const kbr_field& member : members) {
        out = put_value(member, in, out);
        if (!out) return nullptr;
    }
    return out;
}

// ---- Bytes to structure

struct reader {
    const uint8_t* at = nullptr;
    const uint8_t* end = nullptr;

    // The next `size` bytes, or null when there are fewer.
    const uint8_t* take(size_t size) {
        if (static_cast<size_t>(end - at) < size) return nullptr;
        return std::exchange(at, at + size);
    }
};

bool get_members(std::span<const kbr_field> members, reader* from, uint8_t* out);

// The count of an array, within its limit.
bool get_count(const kbr_field& field, reader* from, uint32_t* count) {
    const uint8_t* bytes = from->take(COUNT_SIZE);
    if (!bytes) return false;
    *count = get_u16(bytes);
    return *count <= field.max;
}

bool get_bytes(const kbr_field& field, reader* from, uint8_t* out) {
    uint32_t count = 0;
    if (!get_count(field, from, &count)) return false;
    const uint8_t* bytes = from->take(count);
    if (!bytes) return false;
    store_u32(out + field.offset, count);
    memcpy(out + field.offset + ELEMENTS_OFFSET, bytes, count);
    return true;
}

bool get_array(const kbr_field& field, reader* from, uint8_t* out) {
    uint32_t count = 0;
    if (!get_count(field, from, &count)) return false;
    store_u32(out + field.offset, count);
    uint8_t* element = out + field.offset + ELEMENTS_OFFSET;
    for (uint32_t i = 0; i < count; ++i, element += field.size) {
        if (!get_members(field.members, from, element)) return false;
    }
    return true;
}

bool get_scalar(const kbr_field& field, reader* from, uint8_t* out) {
    const uint8_t* bytes = from->take(field.size);
    if (bytes) memcpy(out + field.offset, bytes, field.size);
    return bytes != nullptr;
}

bool get_result(const kbr_field& field, reader* from, uint8_t* out) {
    const uint8_t* bytes = from->take(RESULT_SIZE);
    if (!bytes) return false;
    store_u32(out + field.offset, get_u16(bytes));
    store_u32(out + field.offset + 4, get_u16(bytes + 2));
    return true;
}

bool get_value(const kbr_field& field, reader* from, uint8_t* out) {
    switch (field.kind) {
        case KBR_SCALAR:
            return get_scalar(field, from, out);
        case KBR_BYTES:
            return get_bytes(field, from, out);
        case KBR_RESULT:
            return get_result(field, from, out);
        case KBR_ARRAY:
            return get_array(field, from, out);
    }
    return false;
}

bool get_members(std::span<const kbr_field> members, reader* from, uint8_t* out) {
    return std::all_of(members.begin(), members.end(),
                       [&](const kbr_field& member) { return get_value(member, from, out); });
}

// The next field, its header taken off.
bool get_field(reader* from, uint8_t* type, reader* value) {
    const uint8_t* header = from->take(FIELD_HEADER_SIZE);
    if (!header) return false;
    *type = header[0];
    const size_t size = get_u16(header + 1);
    const uint8_t* bytes = from->take(size);
    if (!bytes) return false;
    *value = {.at = bytes, .end = bytes + size};
    return true;
}

// Takes the value of a field of that type; of a field that comes twice the first counts. One of
// unknown type is skipped. `seen` has a bit for each field of the message that came.
bool read_field(const kbr_message& message, uint8_t type, reader value, uint8_t* out,
                uint64_t* seen) {
    for (size_t i = 0; i < message.fields.size(); ++i) {
        const kbr_field& field = message.fields[i];
        if (field.type != type || (*seen >> i & 1)) continue;
        if (!get_value(field, &value, out) || value.at != value.end) return false;
        if (is_optional(field)) out[field.flag_offset] = 1;
        *seen |= uint64_t{1} << i;
    }
    return true;
}

bool has_mandatory_fields(const kbr_message& message, uint64_t seen) {
    for (size_t i = 0; i < message.fields.size(); ++i) {
        if (!is_optional(message.fields[i]) && !(seen >> i & 1)) return false;
    }
    return true;
}

bool decode_fields(const kbr_message& message, reader from, uint8_t* out) {
    uint64_t seen = 0;
    while (from.at < from.end) {
        uint8_t type = 0;
        reader value;
        if (!get_field(&from, &type, &value)) return false;
        if (!read_field(message, type, value, out, &seen)) return false;
    }
    return has_mandatory_fields(message, seen);
}

}  // namespace

void kbr_put_header(const kbr_header& header, uint8_t* packet) {
    packet = put_le(packet, static_cast<uint8_t>(header.kind));
    packet = put_le(packet, header.transaction);
    packet = put_le(packet, header.msg_id);
    put_le(packet, header.len);
}

bool kbr_get_header(const uint8_t* packet, size_t size, kbr_header* header) {
    if (size < KBR_HEADER_SIZE || packet[0] > KBR_INDICATION) return false;
    *header = {.kind = static_cast<kbr_message_kind>(packet[0]),
               .transaction = get_u16(packet + 1),
               .msg_id = get_u16(packet + 3),
               .len = get_u16(packet + 5)};
    return header->len == size - KBR_HEADER_SIZE;
}

const kbr_message* kbr_find_message(const kbr_service_object& service, kbr_message_kind kind,
                                    uint32_t msg_id) {
    const std::span<const kbr_message> messages = kind == KBR_REQUEST    ? service.requests
                                                  : kind == KBR_RESPONSE ? service.responses
                                                                         : service.indications;
    const auto found =
        std::find_if(messages.begin(), messages.end(),
                     [&](const kbr_message& message) { return message.id == msg_id; });
    return found == messages.end() || found->fields.size() > MAX_FIELDS ? nullptr : &*found;
}

size_t kbr_message_max_len(const kbr_message& message) {
    return message.fields.size() * FIELD_HEADER_SIZE + members_max_len(message.fields);
}

int kbr_encode(const kbr_message& message, const void* in, uint8_t* out, size_t* len) {
    const auto* bytes = static_cast<const uint8_t*>(in);
    uint8_t* at = out;
    for (const kbr_field& field : message.fields) {
        if (is_optional(field) && !bytes[field.flag_offset]) continue;
        uint8_t* value = at + FIELD_HEADER_SIZE;
        uint8_t* end = put_value(field, bytes, value);
        if (!end || end - value > UINT16_MAX) return KBR_ERR_FORMAT;
        at = put_le(at, field.type);
        put_le(at, static_cast<uint16_t>(end - value));
        at = end;
    }
    *len = static_cast<size_t>(at - out);
    return KBR_OK;
}

int kbr_decode(const kbr_message& message, const uint8_t* buf, size_t len, void* out) {
    if (message.struct_size > 0) memset(out, 0, message.struct_size);
    auto* bytes = static_cast<uint8_t*>(out);
    const bool good = decode_fields(message, {.at = buf, .end = buf + len}, bytes);
    if (!good && message.struct_size > 0) memset(out, 0, message.struct_size);
    return good ? KBR_OK : KBR_ERR_FORMAT;
}
