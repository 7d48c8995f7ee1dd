// Messages between their C structures and their bytes on the way, by the tables of a service
// object.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kbr.h"

// What stands in front of a message's fields: u8 kind, u16 transaction, u16 message id, u16 length
// of the fields. All integers on the way are little-endian.
inline constexpr size_t KBR_HEADER_SIZE = 7;
inline constexpr size_t KBR_PACKET_MAX = KBR_HEADER_SIZE + UINT16_MAX;

struct kbr_header {
    kbr_message_kind kind = KBR_REQUEST;
    uint16_t transaction = 0;
    uint16_t msg_id = 0;
    uint16_t len = 0;
};

void kbr_put_header(const kbr_header& header, uint8_t* packet);

// Reads the header of a packet of `size` bytes. Returns whether it is a message, whole and no more.
bool kbr_get_header(const uint8_t* packet, size_t size, kbr_header* header);

// The description of a message; null when the service has no such message.
const kbr_message* kbr_find_message(const kbr_service_object& service, kbr_message_kind kind,
                                    uint32_t msg_id);

// Most bytes that the fields of a message can take.
size_t kbr_message_max_len(const kbr_message& message);

// Writes the fields of the structure `in` to `out`, which has room for kbr_message_max_len bytes.
// Returns KBR_OK with *len filled, or KBR_ERR_FORMAT when a length in the structure is above its
// limit.
int kbr_encode(const kbr_message& message, const void* in, uint8_t* out, size_t* len);

// Fills the structure `out` from `len` bytes of fields. It is zeroed first, also on failure. A
// field that comes twice counts as it comes first. Returns KBR_OK, or KBR_ERR_FORMAT when a
// mandatory field is missing or a length does not fit.
int kbr_decode(const kbr_message& message, const uint8_t* buf, size_t len, void* out);
