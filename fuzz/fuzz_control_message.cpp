// A message on the campaign manager's control socket, over a real one: only a well-formed one may
// change what is known of the phone.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/unique_handle.h"
#include "campaign/campaign_table.h"
#include "campaign/control_message.h"

namespace {

uint32_t be32(const uint8_t* at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

// What the phone is after the message, by an independent reading of it.
phone_state expected(const phone_state& before, const uint8_t* data, size_t size) {
    phone_state after = before;
    if (size < 8) return after;
    const uint32_t id = be32(data), length = be32(data + 4);
    if (id == 1 && length == 1 && size >= 9) after.roaming = data[8] != 0;
    if ((id == 2 || id == 3) && length == 8 && size >= 16) {
        after.default_sub = be32(data + 8);
        after.mcc = static_cast<uint16_t>(be32(data + 12) >> 16);
        after.mnc = static_cast<uint16_t>(be32(data + 12));
    }
    return after;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int ends[2];
    if (size > 4096 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
    const unique_fd client(ends[0]), server(ends[1]);
    if (send(client.get(), data, size, 0) != static_cast<ssize_t>(size)) return 0;
    shutdown(client.get(), SHUT_WR);

    phone_state before;
    campaign_mgr_get_ph_info(&before);
    control_message message;
    control_message_receive(server.get(), true, &message);
    handleIncomingSocketMsg(server.get(), message);
    phone_state after;
    campaign_mgr_get_ph_info(&after);
    const phone_state wanted = expected(before, data, size);
    if (after.default_sub != wanted.default_sub || after.roaming != wanted.roaming ||
        after.mcc != wanted.mcc || after.mnc != wanted.mnc) {
        abort();
    }
    return 0;
}
