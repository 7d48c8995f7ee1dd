// The thread that connects the collector to the modem's statistics service.
#pragma once

#include <cstdint>

// Body of the service thread: connects, asks for the service's revision and raises
// MPS_EVENT_KBR_READY. It tries once: after a failure, which is logged, the collector is not ready
// for the rest of the process's life. The argument is the stop_flag that ends it, which the client
// goes on using until its release; returns null.
void* kbr_handler(void* stop);

// Raises an event of the collector, for mps_kbr_register_cb.
void mps_kbr_event_cb(uint32_t event);
