// The logic of a campaign for the modem statistics collector.
#include <cstdlib>

#include "collectors/mps/mps_campaign_desc.h"

namespace {

void check_spec(const owned_bytes& spec, size_t message_length) {
    if (spec.length > message_length || (spec.bytes != nullptr) != (spec.length > 0)) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MpsCampaign campaign;
    if (!mps_campaign_desc_decode_from_buffer(data, size, &campaign)) return 0;
    for (const owned_bytes* spec : {&campaign.collection_spec, &campaign.static_spec,
                                    &campaign.ctxt_spec, &campaign.lll_spec}) {
        check_spec(*spec, size);
    }
    return 0;
}
