// A message to the modem that a stop ends at once: its time-out may be longer than the system waits
// for a daemon that is to end.
#pragma once

#include <cstddef>
#include <cstdint>

#include "framework/stop.h"
#include "platform/kbr.h"

// kbr_client_send_msg_sync, made by a thread of its own while the caller waits. Once `stop` is
// raised the client is released, which makes the call fail, and *client is null. Returns a
// kbr_error; KBR_ERR_GONE for a null client. The caller holds nothing that the client's callback
// waits for, and nobody else releases the client meanwhile. Any thread but the client's own.
int vexastats_kbr_call(kbr_client** client, uint16_t msg_id, const void* request,
                       size_t request_len, void* response, size_t response_len, uint32_t timeout_ms,
                       const stop_flag& stop);
