#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_campaign_desc.h"

#include <pb_decode.h>

#include <utility>

#include "campaign.pb.h"
#include "platform/log.h"

namespace {

// Of a field that comes again the last one counts that is not empty. There is no limit but the
// message's own length.
bool mps_bytes_spec_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    const size_t length = stream->bytes_left;
    if (length == 0) return true;
    ALOGI("%s Bytes left  = %d\n", __func__, static_cast<int>(length));
    auto* spec = static_cast<owned_bytes*>(*arg);
    *spec = {};
    spec->bytes.reset(static_cast<uint8_t*>(malloc(length)));
    if (!spec->bytes) {
        ALOGE("%s: Could not malloc buffer to  hold spec\n", __func__);
        return false;
    }
    if (!pb_read(stream, spec->bytes.get(), length)) {
        ALOGE("%s: Could not read from proto buf for spec\n", __func__);
        return false;
    }
    spec->length = length;
    return true;
}

void stream_spec(pb_callback_t* field, owned_bytes* spec) {
    field->funcs.decode = mps_bytes_spec_decode;
    field->arg = spec;
}

void log_campaign(const MpsCampaignDescription& message, const MpsCampaign& campaign) {
    const MpsCampaignConfig& config = message.config;
    ALOGI("MPS Decode Success\n");
    ALOGI(
        "ConfigVersion=  %d, bsiBufferFetchIntSec = %d, powerBudgetMeasIntr = %d, "
        "powerBudgetMaxAPWakeup = %d, collectionLogicID = %ju\n",
        static_cast<int>(config.ConfigVersion), static_cast<int>(config.bsiBufferFetchIntSec),
        static_cast<int>(config.powerBudgetMeasIntr),
        static_cast<int>(config.powerBudgetMaxAPWakeup),
        static_cast<uintmax_t>(message.specs.collectionLogicID));
    ALOGI("Collection Spec Size %d Static Spec Size %d Ctxt Spec Size %d LLL spec Size %d\n",
          static_cast<int>(campaign.collection_spec.length),
          static_cast<int>(campaign.static_spec.length),
          static_cast<int>(campaign.ctxt_spec.length), static_cast<int>(campaign.lll_spec.length));
}

// Config version and logic id are logged, not kept.
void copy_numbers(const MpsCampaignDescription& message, MpsCampaign* campaign) {
    campaign->bsiBufferFetchIntSec = message.config.bsiBufferFetchIntSec;
    campaign->powerBudgetMeasIntr = message.config.powerBudgetMeasIntr;
    campaign->powerBudgetMaxAPWakeup = message.config.powerBudgetMaxAPWakeup;
    campaign->specField6 = message.specs.specField6;
    campaign->lllDelaySecs = message.config.lllDelaySecs;
    campaign->configField6 = message.config.configField6;
}

}  // namespace

bool mps_campaign_desc_decode_from_buffer(const uint8_t* buffer, size_t length, MpsCampaign* out) {
    if (!buffer || !out || length == 0) {
        ALOGE("%s: Null passed to function\n", __func__);
        return false;
    }
    ALOGI("Size = %ld %d\n", static_cast<long>(length), buffer[0]);
    *out = {};
    MpsCampaign campaign;
    MpsCampaignDescription message = MpsCampaignDescription_init_zero;
    stream_spec(&message.specs.collectionSpec, &campaign.collection_spec);
    stream_spec(&message.specs.staticSpec, &campaign.static_spec);
    stream_spec(&message.specs.ctxtSpec, &campaign.ctxt_spec);
    stream_spec(&message.specs.lllSpec, &campaign.lll_spec);
    pb_istream_t stream = pb_istream_from_buffer(buffer, length);
    if (!pb_decode(&stream, MpsCampaignDescription_fields, &message)) {
        ALOGE("MPS Decoding failed: %s\n", PB_GET_ERROR(&stream));
        return true;  // deliberate: the campaign then is one without specs
    }
    log_campaign(message, campaign);
    copy_numbers(message, &campaign);
    *out = std::move(campaign);
    return true;
}
