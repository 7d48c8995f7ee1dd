// The fields of messages from the modem. The first byte chooses the message.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "collectors/mps/mps_service.h"
#include "host/kbr_message.h"

namespace {

struct id {
    uint32_t kind, len;
    uint8_t bytes[124];
};
struct id_list {
    uint32_t result, error;
    uint8_t list_valid;
    uint32_t count;
    id ids[25];
    uint8_t active_valid;
    id active;
};
constexpr kbr_field ID[] = {kbr_scalar(0, offsetof(id, kind), 4),
                            kbr_bytes(0, offsetof(id, len), sizeof(id::bytes))};
constexpr kbr_field ID_LIST[] = {
    kbr_result(0x02, 0),
    {.type = 0x10,
     .kind = KBR_ARRAY,
     .offset = offsetof(id_list, count),
     .size = sizeof(id),
     .max = 25,
     .flag_offset = offsetof(id_list, list_valid),
     .members = ID},
    {.type = 0x11,
     .kind = KBR_STRUCT,
     .offset = offsetof(id_list, active),
     .flag_offset = offsetof(id_list, active_valid),
     .members = ID},
};
constexpr kbr_message ID_LIST_MESSAGE = {1, sizeof(id_list), ID_LIST};

std::vector<kbr_message> all_messages() {
    const kbr_service_object* service = vexa_get_service_object_internal_v01(1, 1, 6);
    std::vector<kbr_message> all = {ID_LIST_MESSAGE};
    for (const auto messages : {service->requests, service->responses, service->indications})
        all.insert(all.end(), messages.begin(), messages.end());
    return all;
}

void check(bool holds) {
    if (!holds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::vector<kbr_message> messages = all_messages();
    if (size == 0) return 0;
    const kbr_message& message = messages[data[0] % messages.size()];
    std::vector<uint8_t> out(message.struct_size);
    if (kbr_decode(message, data + 1, size - 1, out.data()) != KBR_OK) {
        for (const uint8_t byte : out) check(byte == 0);
        return 0;
    }
    // What was read can be written, and is then read as the same.
    std::vector<uint8_t> bytes(kbr_message_max_len(message));
    std::vector<uint8_t> again(message.struct_size);
    size_t len = 0;
    check(kbr_encode(message, out.data(), bytes.data(), &len) == KBR_OK && len <= bytes.size());
    check(kbr_decode(message, bytes.data(), len, again.data()) == KBR_OK);
    check(out == again);
    return 0;
}
