// A stored campaign file, for its entry and for its logic.
#include "campaign/campaign_desc.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    campaign_table table;
    owned_bytes logic;
    const bool accepted = campaign_desciption_entry_decode_from_buffer(data, size, &table, false);
    const bool has_logic = get_campaign_logic_from_campaign_description(data, size, &logic);
    check(has_logic || !accepted || size == 0);
    check(logic.length <= CAMPAIGN_LOGIC_MAX_BYTES);
    check((logic.bytes != nullptr) == (logic.length > 0));
    return 0;
}
