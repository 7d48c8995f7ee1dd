// A client of one of the modem's services: what the daemon's three of them share.
//
// A modem may be slow, mute or gone, and the library's calls then block for as long as their
// time-outs say, which is longer than the system waits for a daemon that is to end. So each is made
// by a thread of its own, and a raised stop flag ends the caller's wait at once:
//
//   connecting   is left to itself; a connection that comes of it is released unseen
//   a request    fails, because the client is released under it
//
// Once that flag is raised, or the client released, every further call is refused.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/sync.h"
#include "framework/time/stop.h"
#include "platform/kbr.h"

struct modem_connection;

// Lives as long as the process.
struct modem_client {
    vexa_mutex mutex{};
    modem_connection* connection GUARDED_BY(mutex) = nullptr;
};

// `service` when it is of that version and for that library, else null. Any thread.
inline const kbr_service_object* modem_client_service(const kbr_service_object& service,
                                                      uint32_t major, uint32_t minor,
                                                      uint32_t library) {
    const bool known = major == service.idl_version && minor == service.idl_minor_version &&
                       library == service.library_version;
    return known ? &service : nullptr;
}

// Connects a client without a connection, as kbr_client_init_instance does with any instance; the
// callback's cb_data is null, and none runs before the client is connected. Returns a kbr_error;
// KBR_ERR_GONE once `stop` is raised. One thread at a time.
int modem_client_connect(modem_client* client, const kbr_service_object* service,
                         kbr_indication_cb indication_cb, uint32_t timeout_s,
                         const stop_flag& stop);

// Whether there is a connection that was not released. Any thread.
bool modem_client_is_connected(modem_client* client);

// Sends a request, as kbr_client_send_msg_sync does. Returns a kbr_error; KBR_ERR_GONE without a
// connection, and once `stop` is raised, which releases the client. The caller holds nothing that
// the client's callback waits for. Any thread but the callback's.
int modem_client_send(modem_client* client, uint16_t msg_id, const void* request,
                      size_t request_len, void* response, size_t response_len, uint32_t timeout_ms,
                      const stop_flag& stop);

// Releases the connection, if there is one: calls in progress fail, and when the one call that
// found it returns, no callback runs any more. Under the same conditions as a request.
void modem_client_release(modem_client* client);
