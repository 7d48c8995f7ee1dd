// One request to the modem that a stop of the daemon does not have to wait for.
#pragma once

#include <cstddef>
#include <cstdint>

#include "collectors/mccbandlist/pdc_service.h"
#include "framework/stop.h"

// As kbr_client_send_msg_sync with a request of at most sizeof(pdc_load_config_request) bytes, but
// comes back with KBR_ERR_GONE once `stop` is raised. *client is then null: the library offers no
// way to end a call under way from outside without a race, so the thread that is in it, bounded by
// timeout_ms, releases the client when it comes back. Any thread.
int pdc_send(kbr_client** client, uint16_t msg_id, const void* request, size_t request_len,
             pdc_response* response, uint32_t timeout_ms, const stop_flag& stop);
