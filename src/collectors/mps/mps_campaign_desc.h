// The logic of a campaign of module 6, as the modem statistics collector reads it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/owned_bytes.h"

struct MpsCampaign {
    uint32_t bsiBufferFetchIntSec = 0;
    uint32_t powerBudgetMeasIntr = 0;
    uint32_t powerBudgetMaxAPWakeup = 0;
    uint32_t specField6 = 0;  // for the modem only
    uint32_t lllDelaySecs = 0;
    uint32_t configField6 = 0;  // kept, used by nobody
    owned_bytes collection_spec{};
    owned_bytes static_spec{};
    owned_bytes ctxt_spec{};
    owned_bytes lll_spec{};
};

// Decodes the `length` bytes of a campaign's logic into *out; what *out held before is released. A
// message that cannot be decoded leaves *out zeroed and still gives true: deliberate, the collector
// then starts a collection without specs. Returns false, logged, only for null arguments or no
// bytes. Takes nothing over: the caller keeps the buffer. Any thread.
bool mps_campaign_desc_decode_from_buffer(const uint8_t* buffer, size_t length, MpsCampaign* out);
