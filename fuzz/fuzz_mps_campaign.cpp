// The logic of a campaign for the modem statistics collector.
#include "collectors/mps/mps_campaign_desc.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    MpsCampaign campaign;
    if (!mps_campaign_desc_decode_from_buffer(data, size, &campaign)) return 0;
    for (const owned_bytes* spec : {&campaign.collection_spec, &campaign.static_spec,
                                    &campaign.ctxt_spec, &campaign.lll_spec}) {
        check(spec->length <= size && (spec->bytes != nullptr) == (spec->length > 0));
    }
    return 0;
}
