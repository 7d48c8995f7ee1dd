// The client of the modem's persistent device configuration (PDC) service. There is one for the
// process. An operation is a request and an indication with the real outcome, made into one
// blocking call; a raised `stop` ends any of them at once, and it then fails. All failures are
// logged. Calls come from one thread, the updater's; what indications leave is the business of
// pdc_indications.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "collectors/mccbandlist/pdc_service.h"
#include "framework/time/stop.h"

// How long a segment waits for its indication. The modem writes at most 900 bytes for it.
inline constexpr int64_t PDC_LOAD_LIMIT_MS = 60000;

struct pdc_config_info {
    uint32_t header_valid = 0;
    uint32_t header_len = 0;
    uint8_t header[PDC_CONFIG_HEADER_MAX] = {};
};

// Whether the daemon can talk to a service of that interface version: 1.15 or later.
bool pdc_is_idl_supported(uint32_t major, uint32_t minor);

// Connects, in up to 20 attempts of 4 s with pauses of 5 s. Returns 0 or -1.
int pdc_kbr_init(const stop_flag& stop);

// Releases the connection, if there is one. With no call in progress.
void pdc_kbr_clean();

// Reads the header of a configuration that the modem holds. *info is written during the call only,
// and left alone when the modem sends no header. Returns 0; -1 when the request or the indication
// failed or 10 s of wall clock passed without one; -2 when such a call is in progress; or -4 for an
// id of more than 124 bytes.
int pdc_get_config_info(const pdc_config_id& id, pdc_config_info* info, uint32_t config_type,
                        const stop_flag& stop);

// Loads one segment, at most 900 bytes, of a configuration of total_size bytes. *remaining becomes
// what the modem still expects; it is left alone when the modem does not say. Returns 0; -1 (the
// request failed, the modem refused, or PDC_LOAD_LIMIT_MS passed); -2 and -4 as above, -4 also when
// the modem does not take the id; -3 (the modem has begun anew); -5 (it is full).
int pdc_load_config_segment(const uint8_t* frame, size_t frame_len, size_t total_size,
                            const pdc_config_id& id, uint32_t config_type, uint32_t* remaining,
                            const stop_flag& stop);

// Loads a whole configuration in segments. Returns 0, -1, or the segment's result.
int pdc_load_config_mem(const uint8_t* bytes, size_t size, const pdc_config_id& id,
                        uint32_t config_type, const stop_flag& stop);
