// The fields of messages from the modem, of both services with fields of any length. The first byte
// chooses the message.
#include <vector>

#include "collectors/mccbandlist/pdc_service.h"
#include "collectors/mps/mps_service.h"
#include "fuzz_target.h"
#include "host/kbr_message.h"

namespace {

std::vector<kbr_message> all_messages() {
    std::vector<kbr_message> all;
    for (const kbr_service_object* service : {pdc_get_service_object_internal_v01(1, 15, 6),
                                              vexa_get_service_object_internal_v01(1, 1, 6)}) {
        for (const auto messages : {service->requests, service->responses, service->indications})
            all.insert(all.end(), messages.begin(), messages.end());
    }
    return all;
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
