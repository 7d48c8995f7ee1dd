#define LOG_TAG "vexastatsd"

#include "campaign/campaign_desc.h"

#include <pb_decode.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "base/replace_file.h"
#include "campaign.pb.h"
#include "platform/log.h"

namespace {

constexpr char ENTRY_DECODE[] = "campaign_desciption_entry_decode_from_buffer";

// What a file is written as before it gets its name: one name for all, so that a kill leaves at
// most one, and not taken for a campaign's at the next start.
constexpr char UNFINISHED_FILE[] = "/data/vendor/vexastats/101/unfinished";

// A campaign that is being decoded.
struct decoding {
    uint32_t network_count = 0;
    MccMncEnablementRecord networks[CAMPAIGN_NETWORKS_MAX] = {};
    owned_bytes logic{};
    campaign_refusal refusal = campaign_refusal::NONE;

    // The first thing that is wrong counts. Returns false.
    bool refuse(campaign_refusal why) {
        if (refusal == campaign_refusal::NONE) refusal = why;
        return false;
    }
};

pb_callback_t decode_with(bool (*decode)(pb_istream_t*, const pb_field_t*, void**), void* arg) {
    pb_callback_t callback{};
    callback.funcs.decode = decode;
    callback.arg = arg;
    return callback;
}

// ---- Callbacks: one element of a streamed field each

bool campaign_mnc_list_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* campaign = static_cast<decoding*>(*arg);
    MccMncEnablementRecord* record = &campaign->networks[campaign->network_count - 1];
    const uint32_t index = record->mncCount++;
    if (index >= CAMPAIGN_MNCS_MAX) {
        ALOGE("%s: Exceeded Max number of MNC PER MCC Enablements\n", __func__);
        return campaign->refuse(campaign_refusal::TOO_MANY_MNCS);
    }
    if (!pb_decode_varint32(stream, &record->mnc[index])) {
        ALOGE("%s: failed ", __func__);
        return campaign->refuse(campaign_refusal::DAMAGED);
    }
    return true;
}

void log_networks(uint32_t index, const MccMncEnablementRecord& record) {
    ALOGI("MCC_MNC_ENABLERMENT index = %d mcc = %d\n", static_cast<int>(index),
          static_cast<int>(record.mcc));
    for (uint32_t i = 0; i < record.mncCount; ++i) {
        ALOGI("MNC %d\n", static_cast<int>(record.mnc[i]));
    }
}

bool campaign_mcc_mnc_enablement_logic_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* campaign = static_cast<decoding*>(*arg);
    if (campaign->network_count >= CAMPAIGN_NETWORKS_MAX) {
        ALOGE("%s: Exceeded Max number of MCC MNC Enablements\n", __func__);
        return campaign->refuse(campaign_refusal::TOO_MANY_NETWORKS);
    }
    const uint32_t index = campaign->network_count++;
    MccMncEnablementRecord* record = &campaign->networks[index];
    record->mncCount = 0;
    MccMncEnablement message = MccMncEnablement_init_zero;
    message.mnc = decode_with(campaign_mnc_list_decode, campaign);
    if (!pb_decode(stream, MccMncEnablement_fields, &message)) {
        ALOGE("%s: Submessage decode Failed\n", __func__);
        return campaign->refuse(campaign_refusal::DAMAGED);
    }
    record->mcc = message.mcc;
    log_networks(index, *record);
    return true;
}

// Of a field that comes again the last one counts.
bool campaign_logic_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* campaign = static_cast<decoding*>(*arg);
    owned_bytes* logic = &campaign->logic;
    const size_t length = stream->bytes_left;
    ALOGE("%s: campaign logic length %d\n", __func__, static_cast<int>(length));
    *logic = {};
    if (length > CAMPAIGN_LOGIC_MAX_BYTES) {
        ALOGE("%s: Too big campaign size\n", __func__);
        return campaign->refuse(campaign_refusal::LOGIC_TOO_BIG);
    }
    if (length == 0) return true;
    logic->bytes.reset(static_cast<uint8_t*>(malloc(length)));
    if (!logic->bytes) {
        ALOGE("%s: Could not malloc buffer to  hold campaign\n", __func__);
        return campaign->refuse(campaign_refusal::NO_MEMORY);
    }
    if (!pb_read(stream, logic->bytes.get(), length)) {
        ALOGE("%s: Could not read from proto buf for logic\n", __func__);
        return campaign->refuse(campaign_refusal::DAMAGED);
    }
    logic->length = length;
    return true;
}

// ---- The steps of decoding one campaign

enum class network_fields { DECODED, SKIPPED };

// A failure is not logged here, what is wrong with a field is.
bool decode_message(const uint8_t* buffer, size_t length, network_fields networks,
                    decoding* campaign, CampaignDescriptionEntry* message) {
    *message = CampaignDescriptionEntry_init_zero;
    CampaignEnablementAndLogic* inner = &message->enablementAndLogic;
    if (networks == network_fields::DECODED) {
        inner->enablement.mccMncEnablement =
            decode_with(campaign_mcc_mnc_enablement_logic_decode, campaign);
    }
    inner->logic.logic = decode_with(campaign_logic_decode, campaign);
    pb_istream_t stream = pb_istream_from_buffer(buffer, length);
    return pb_decode(&stream, CampaignDescriptionEntry_fields, message) ||
           campaign->refuse(campaign_refusal::DAMAGED);
}

campaign_path stored_path(const CampaignDescriptionEntry& message) {
    return campaign_file_name(message.moduleId, message.campaignId, message.expiry.ExpValue);
}

// Puts a new entry into the module's slot. The campaign that was there goes, and its file, unless
// the new one's has the same name.
bool claim_slot(unique_campaign* slot, const CampaignDescriptionEntry& message) {
    if (*slot) {
        ALOGE("%s: Got another campaign for the same module Id %d\n", ENTRY_DECODE,
              static_cast<int>(message.moduleId));
        const campaign_path earlier = campaign_file_name(message.moduleId, **slot);
        if (earlier != stored_path(message)) (void)unlink(earlier.data());
    }
    *slot = campaign_entry_new();
    if (!*slot) ALOGE("%s: Malloc failed\n", ENTRY_DECODE);
    return *slot != nullptr;
}

bool keep_file(void*, uint32_t, const campaign_path& path, const uint8_t* bytes, size_t length) {
    return campaign_store(path, bytes, length);
}

// An expiry of another kind leaves an entry that has nothing but its id.
campaign_refusal fill_entry(CampaignEntry* entry, const CampaignDescriptionEntry& message,
                            const decoding& campaign) {
    entry->campaignId = message.campaignId;
    if (message.expiry.ExpType != CAMPAIGN_EXPIRY_IS_UTC) {
        ALOGE("%s: Only UTC is supported for Expiry Time format %d type is not supported\n",
              ENTRY_DECODE, static_cast<int>(message.expiry.ExpType));
        return campaign_refusal::EXPIRY_NOT_UTC;
    }
    const CampaignEnablementLogic& enablement = message.enablementAndLogic.enablement;
    entry->expiryValue = message.expiry.ExpValue;
    entry->enablementType = enablement.enablementType;
    entry->timeSlices = enablement.timeBasedEnablement.timeSlices;
    entry->mccMncCount = campaign.network_count;
    if (campaign.network_count == 0) return campaign_refusal::NONE;
    entry->mccMncList = campaign_network_list_new();
    if (!entry->mccMncList) {
        ALOGE("%s: Malloc failed for mcc mnc list\n", ENTRY_DECODE);
        return campaign_refusal::NO_MEMORY;
    }
    std::copy_n(campaign.networks, CAMPAIGN_NETWORKS_MAX, entry->mccMncList.get());
    return campaign_refusal::NONE;
}

void log_campaign(const CampaignDescriptionEntry& message, size_t logic_length) {
    const CampaignEnablementLogic& enablement = message.enablementAndLogic.enablement;
    ALOGI(
        "Campaign Logic Length = %d campaignId = %ju, moduleId = %d, ExpType = %d, ExpValue = %ju, "
        "enablementType = %d, timeSlices = %d\n",
        static_cast<int>(logic_length), static_cast<uintmax_t>(message.campaignId),
        static_cast<int>(message.moduleId), static_cast<int>(message.expiry.ExpType),
        static_cast<uintmax_t>(message.expiry.ExpValue),
        static_cast<int>(enablement.enablementType),
        static_cast<int>(enablement.timeBasedEnablement.timeSlices));
}

}  // namespace

void freeCampaignEntry(CampaignEntry* entry) {
    delete entry;
}

unique_campaign campaign_entry_new() {
    return unique_campaign(new (std::nothrow) CampaignEntry{});
}

std::unique_ptr<MccMncEnablementRecord[]> campaign_network_list_new() {
    return std::unique_ptr<MccMncEnablementRecord[]>(
        new (std::nothrow) MccMncEnablementRecord[CAMPAIGN_NETWORKS_MAX]{});
}

campaign_path campaign_file_name(uint32_t module, uint64_t campaign_id, uint64_t expiry_value) {
    campaign_path path{};
    snprintf(path.data(), path.size(), "%s/%d-%d-%d.camp", CAMPAIGN_DIR, static_cast<int>(module),
             static_cast<int>(campaign_id), static_cast<int>(expiry_value));
    return path;
}

bool campaign_store(const campaign_path& path, const uint8_t* bytes, size_t length) {
    ALOGI("%s: Writing Campaign Descriptor File %s\n", ENTRY_DECODE, path.data());
    if (vexastats_replace_file_by(path.data(), UNFINISHED_FILE, bytes, length) == 0) return true;
    ALOGE("%s: Campaign Descriptor file create Failed\n", ENTRY_DECODE);
    return false;
}

campaign_refusal campaign_decode_entry(const uint8_t* buffer, size_t length, campaign_table* table,
                                       const campaign_keeper& keeper) {
    decoding campaign;
    CampaignDescriptionEntry message;
    if (!decode_message(buffer, length, network_fields::DECODED, &campaign, &message)) {
        ALOGE("%s: Submessage decode Failed\n", ENTRY_DECODE);
        return campaign.refusal;
    }
    const uint32_t module = message.moduleId;
    if (module >= CAMPAIGN_MODULES) {
        ALOGE("%s: Wrong Module Id passed %d\n", ENTRY_DECODE, static_cast<int>(module));
        return campaign_refusal::WRONG_MODULE;
    }
    unique_campaign& slot = (*table)[module];
    if (!claim_slot(&slot, message)) return campaign_refusal::NO_MEMORY;
    if (keeper.keep && !keeper.keep(keeper.arg, module, stored_path(message), buffer, length)) {
        return campaign_refusal::NOT_KEPT;
    }
    // The expiry is looked at only now, with the file written and the slot taken: deliberate.
    const campaign_refusal refusal = fill_entry(slot.get(), message, campaign);
    if (refusal == campaign_refusal::NONE) log_campaign(message, campaign.logic.length);
    return refusal;
}

bool campaign_desciption_entry_decode_from_buffer(const uint8_t* buffer, size_t length,
                                                  campaign_table* table, bool write) {
    if (!buffer || !table) {
        ALOGE("Null pointer passed in function %s\n", ENTRY_DECODE);
        return false;
    }
    const campaign_keeper keeper{.keep = write ? keep_file : nullptr, .arg = nullptr};
    return campaign_decode_entry(buffer, length, table, keeper) == campaign_refusal::NONE;
}

bool get_campaign_logic_from_campaign_description(const uint8_t* buffer, size_t length,
                                                  owned_bytes* out) {
    if (!buffer || !out) {
        ALOGE("%s: Null passed\n", __func__);
        return false;
    }
    *out = {};
    decoding campaign;
    CampaignDescriptionEntry message;
    if (!decode_message(buffer, length, network_fields::SKIPPED, &campaign, &message)) {
        ALOGE("%s: Submessage decode Failed\n", __func__);
        return false;
    }
    *out = std::move(campaign.logic);
    return true;
}
