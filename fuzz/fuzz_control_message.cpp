// A message on the campaign manager's control socket, over a real one: only a well-formed one may
// change what is known of the phone.
#include <sys/socket.h>

#include "base/unique_handle.h"
#include "campaign/campaign_table.h"
#include "campaign/control_message.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    int ends[2];
    if (size > 4096 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
    const unique_fd client(ends[0]), server(ends[1]);
    if (send(client.get(), data, size, 0) != static_cast<ssize_t>(size)) return 0;
    shutdown(client.get(), SHUT_WR);

    phone_state before, after;
    campaign_mgr_get_ph_info(&before);
    control_message message;
    control_message_receive(server.get(), true, &message);
    check(message.verdict != control_verdict::OPEN);
    handleIncomingSocketMsg(server.get(), message);
    campaign_mgr_get_ph_info(&after);
    if (message.verdict == control_verdict::GOOD) {
        check(size > control_message::HEADER_SIZE);
    } else {
        check(after.default_sub == before.default_sub && after.roaming == before.roaming &&
              after.mcc == before.mcc && after.mnc == before.mnc);
    }
    return 0;
}
