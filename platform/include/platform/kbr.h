// Messages to and from the modem's services: requests with their responses, and indications, which
// the modem sends by itself. Messages are C structures here and fields of type, length and value on
// the way; a service object describes how the one becomes the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// ---- What a service's messages look like

enum kbr_message_kind : uint32_t {
    KBR_REQUEST = 0,
    KBR_RESPONSE = 1,
    KBR_INDICATION = 2,
};

enum kbr_field_kind : uint8_t {
    KBR_SCALAR,  // an integer of `size` bytes: 1, 2, 4 or 8
    KBR_BYTES,   // u32 length, at most `max`, and right behind it `max` bytes
    KBR_RESULT,  // u32 result (0: success), u32 error code; u16 each on the way
    KBR_ARRAY,   // u32 count, at most `max`, and right behind it `max` structures of `size` bytes
                 // each, made of `members`
};

// The flag's offset of a field that is always there.
inline constexpr uint16_t KBR_MANDATORY = UINT16_MAX;

// One field of a message, or one member of a structure in it. Offsets are bytes from the start of
// the C structure that it is part of.
struct kbr_field {
    uint8_t type = 0;  // on the way; ascending in a message, unused in members
    kbr_field_kind kind = KBR_SCALAR;
    uint16_t offset = 0;
    uint16_t size = 0;
    uint16_t max = 0;
    uint16_t flag_offset = KBR_MANDATORY;  // of the byte that tells whether the field is there
    std::span<const kbr_field> members{};
};

constexpr kbr_field kbr_scalar(uint8_t type, size_t offset, size_t size,
                               size_t flag_offset = KBR_MANDATORY) {
    return {.type = type,
            .kind = KBR_SCALAR,
            .offset = static_cast<uint16_t>(offset),
            .size = static_cast<uint16_t>(size),
            .flag_offset = static_cast<uint16_t>(flag_offset)};
}
// `offset` is that of the length, in front of the bytes.
constexpr kbr_field kbr_bytes(uint8_t type, size_t offset, size_t max,
                              size_t flag_offset = KBR_MANDATORY) {
    return {.type = type,
            .kind = KBR_BYTES,
            .offset = static_cast<uint16_t>(offset),
            .max = static_cast<uint16_t>(max),
            .flag_offset = static_cast<uint16_t>(flag_offset)};
}
constexpr kbr_field kbr_result(uint8_t type, size_t offset) {
    return {.type = type, .kind = KBR_RESULT, .offset = static_cast<uint16_t>(offset)};
}

struct kbr_message {
    uint16_t id = 0;
    uint16_t struct_size = 0;  // bytes of the C structure; 0: the message has no fields
    std::span<const kbr_field> fields{};
};

// Static data: it outlives every client.
struct kbr_service_object {
    const char* name = nullptr;  // on Linux, of the service's socket (docs/platform.md)
    uint32_t service_id = 0;
    uint32_t idl_version = 0;
    uint32_t idl_minor_version = 0;
    uint32_t library_version = 0;
    uint32_t max_message_len = 0;  // bytes of the longest message's fields
    std::span<const kbr_message> requests{};
    std::span<const kbr_message> responses{};
    std::span<const kbr_message> indications{};
};

// ---- Results

enum kbr_error : int {
    KBR_OK = 0,
    KBR_ERR_INTERNAL = -1,  // no memory, no descriptor, no thread
    KBR_ERR_REFUSED = -2,   // the response came and reports failure; its result pair is filled in
    KBR_ERR_TIMEOUT = -3,
    KBR_ERR_ARGUMENT = -4,  // null, an unknown message, or a structure of another size
    KBR_ERR_GONE = -5,      // no such service, or the connection was lost
    KBR_ERR_FORMAT = -6,  // a value that does not fit its field, or bytes that are no such message
};

// ---- Clients

// A connection to one service. A client whose modem has gone stays, and fails every call at once;
// it does not connect again.
struct kbr_client;

// Any instance of a service.
inline constexpr uint32_t KBR_ANY_INSTANCE = 65535;

// Called for every indication, in the order in which they came, from a thread of the library's own.
// `buf` holds the `len` bytes of the message's fields, for kbr_client_message_decode, during the
// call. The callback may make calls of its client and may release it.
using kbr_indication_cb = void (*)(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len,
                                   void* cb_data);

extern "C" {

// Connects to a service. A service that is not there fails at once; timeout_s bounds the wait, in
// seconds, for one that is slow to accept. `indication_cb` may be null, `cb_data` is handed to it
// as it is. On success *client is the caller's, for kbr_client_release; otherwise it is null.
// Returns a kbr_error. Indications may come before it returns. Any thread.
int kbr_client_init_instance(const kbr_service_object* service, uint32_t instance,
                             kbr_indication_cb indication_cb, void* cb_data, uint32_t timeout_s,
                             kbr_client** client);

// Sends request `msg_id` and waits for its response. `request` is the message's C structure of
// request_len bytes (null and 0 for a message without fields), `response` that of the response; it
// is zeroed first, and filled when the result is KBR_OK or KBR_ERR_REFUSED. Returns a kbr_error;
// KBR_ERR_TIMEOUT after timeout_ms milliseconds. A response that comes later is thrown away. Any
// thread, any number at a time. A call that begins while another thread releases the client, or
// just after, fails with KBR_ERR_GONE.
int kbr_client_send_msg_sync(kbr_client* client, uint32_t msg_id, const void* request,
                             uint32_t request_len, void* response, uint32_t response_len,
                             uint32_t timeout_ms);

// Turns the `len` bytes of a message's fields into its C structure of out_len bytes, zeroed first.
// Fields of unknown type are skipped. Returns a kbr_error. Any thread.
int kbr_client_message_decode(kbr_client* client, kbr_message_kind kind, uint32_t msg_id,
                              const void* buf, uint32_t len, void* out, uint32_t out_len);

// Disconnects and frees the client. Calls in progress fail with KBR_ERR_GONE. When it returns no
// callback runs and none will, save one that it was called from. So the caller holds nothing that
// the callback waits for. Returns a kbr_error. Any thread, once.
int kbr_client_release(kbr_client* client);

// ---- Service objects

// Each returns a kbr_error and fills its last argument. Any thread.
int kbr_idl_get_idl_version(const kbr_service_object* service, uint32_t* version);
int kbr_idl_get_idl_minor_version(const kbr_service_object* service, uint32_t* version);
int kbr_idl_get_message_c_struct_len(const kbr_service_object* service, kbr_message_kind kind,
                                     uint32_t msg_id, uint32_t* len);
}
