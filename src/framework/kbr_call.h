// What the daemon's clients of the modem's services share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/stop.h"
#include "platform/kbr.h"

// `service` when it is of that version and for that library, else null. Any thread.
inline const kbr_service_object* vexastats_kbr_service(const kbr_service_object& service,
                                                       uint32_t major, uint32_t minor,
                                                       uint32_t library) {
    const bool known = major == service.idl_version && minor == service.idl_minor_version &&
                       library == service.library_version;
    return known ? &service : nullptr;
}

// A message that a stop ends at once: its time-out may be longer than the system waits for a daemon
// that is to end. kbr_client_send_msg_sync, made by a thread of its own while the caller waits.
// Once `stop` is raised the client is released, which makes the call fail, and *client is null.
// Returns a kbr_error; KBR_ERR_GONE for a null client. The caller holds nothing that the client's
// callback waits for, and nobody else releases the client meanwhile. Any thread but the client's
// own.
int vexastats_kbr_call(kbr_client** client, uint16_t msg_id, const void* request,
                       size_t request_len, void* response, size_t response_len, uint32_t timeout_ms,
                       const stop_flag& stop);
