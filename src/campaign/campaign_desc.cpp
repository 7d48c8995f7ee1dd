#define LOG_TAG "vexastatsd"

#include "campaign/campaign_desc.h"

#include <pb_decode.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "base/replace_file.h"
#include "campaign.pb.h"
#include "platform/log.h"

namespace {

constexpr char ENTRY_DECODE[] = "campaign_desciption_entry_decode_from_buffer";
constexpr uint32_t EXPIRY_IS_UTC = 2;

// What a file is written as before it gets its name: one name for all, so that a kill leaves at
// most one, and not taken for a campaign's at the next start.
constexpr char UNFINISHED_FILE[] = "/data/vendor/vexastats/101/unfinished";

struct network_block {
    uint32_t count = 0;
    MccMncEnablementRecord records[CAMPAIGN_NETWORKS_MAX] = {};
};

// Where the elements of a map go.
struct map_target {
    campaign_table* table = nullptr;
    bool write = false;
};

pb_callback_t decode_with(bool (*decode)(pb_istream_t*, const pb_field_t*, void**), void* arg) {
    pb_callback_t callback{};
    callback.funcs.decode = decode;
    callback.arg = arg;
    return callback;
}

// Decodes until the stream or, with a zero byte, the message ends. The library's series before 0.4
// always do so.
bool decode_up_to_zero(pb_istream_t* stream, const pb_msgdesc_t* fields, void* message) {
#ifdef PB_DECODE_NULLTERMINATED
    return pb_decode_ex(stream, fields, message, PB_DECODE_NULLTERMINATED);
#else
    return pb_decode(stream, fields, message);
#endif
}

// ---- Callbacks: one element of a streamed field each

bool campaign_mnc_list_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* record = static_cast<MccMncEnablementRecord*>(*arg);
    const uint32_t index = record->mncCount++;
    if (index >= CAMPAIGN_MNCS_MAX) {
        ALOGE("%s: Exceeded Max number of MNC PER MCC Enablements\n", __func__);
        return false;
    }
    if (!pb_decode_varint32(stream, &record->mnc[index])) {
        ALOGE("%s: failed ", __func__);
        return false;
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
    auto* block = static_cast<network_block*>(*arg);
    if (!block) {
        ALOGE("%s: Submessage decode Failed Null pointer passed\n", __func__);
        return false;
    }
    const uint32_t index = block->count++;
    if (index >= CAMPAIGN_NETWORKS_MAX) {
        ALOGE("%s: Exceeded Max number of MCC MNC Enablements\n", __func__);
        return false;
    }
    MccMncEnablementRecord* record = &block->records[index];
    record->mncCount = 0;
    MccMncEnablement message = MccMncEnablement_init_zero;
    message.mnc = decode_with(campaign_mnc_list_decode, record);
    if (!pb_decode(stream, MccMncEnablement_fields, &message)) {
        ALOGE("%s: Submessage decode Failed\n", __func__);
        return false;
    }
    record->mcc = message.mcc;
    log_networks(index, *record);
    return true;
}

// Of a field that comes again the last one counts.
bool campaign_logic_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* logic = static_cast<owned_bytes*>(*arg);
    if (!logic) {
        ALOGE("%s: Null passed\n", __func__);
        return false;
    }
    const size_t length = stream->bytes_left;
    ALOGE("%s: campaign logic length %d\n", __func__, static_cast<int>(length));
    *logic = {};
    if (length > CAMPAIGN_LOGIC_MAX_BYTES) {
        ALOGE("%s: Too big campaign size\n", __func__);
        return false;
    }
    if (length == 0) return true;
    logic->bytes.reset(static_cast<uint8_t*>(malloc(length)));
    if (!logic->bytes) {
        ALOGE("%s: Could not malloc buffer to  hold campaign\n", __func__);
        return false;
    }
    if (!pb_read(stream, logic->bytes.get(), length)) {
        ALOGE("%s: Could not read from proto buf for logic\n", __func__);
        return false;
    }
    logic->length = length;
    return true;
}

bool campaign_description_map_entry_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    const auto* target = static_cast<const map_target*>(*arg);
    const size_t length = stream->bytes_left;
    if (length == 0) return false;  // without a message: deliberate
    const unique_malloc<uint8_t> buffer(static_cast<uint8_t*>(malloc(length)));
    if (!buffer) {
        ALOGE("%s: Could not malloc buffer to  hold campaign Descriptor\n", __func__);
        return false;
    }
    if (!pb_read(stream, buffer.get(), length)) {
        ALOGE("%s: Could not read from proto buf for campaign Descriptor\n", __func__);
        return false;
    }
    return campaign_desciption_entry_decode_from_buffer(buffer.get(), length, target->table,
                                                        target->write);
}

// ---- The steps of decoding one campaign

// `networks` may be null: they are skipped then.
bool decode_message(const uint8_t* buffer, size_t length, network_block* networks,
                    owned_bytes* logic, CampaignDescriptionEntry* message) {
    *message = CampaignDescriptionEntry_init_zero;
    CampaignEnablementAndLogic* inner = &message->enablementAndLogic;
    if (networks) {
        inner->enablement.mccMncEnablement =
            decode_with(campaign_mcc_mnc_enablement_logic_decode, networks);
    }
    inner->logic.logic = decode_with(campaign_logic_decode, logic);
    pb_istream_t stream = pb_istream_from_buffer(buffer, length);
    return pb_decode(&stream, CampaignDescriptionEntry_fields, message);
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

bool store_campaign(const CampaignDescriptionEntry& message, const uint8_t* buffer, size_t length) {
    const campaign_path path = stored_path(message);
    ALOGI("%s: Writing Campaign Descriptor File %s\n", ENTRY_DECODE, path.data());
    if (vexastats_replace_file_by(path.data(), UNFINISHED_FILE, buffer, length) == 0) return true;
    ALOGE("%s: Campaign Descriptor file create Failed\n", ENTRY_DECODE);
    return false;
}

// An expiry of another kind leaves an entry that has nothing but its id.
bool fill_entry(CampaignEntry* entry, const CampaignDescriptionEntry& message,
                const network_block& networks) {
    entry->campaignId = message.campaignId;
    if (message.expiry.ExpType != EXPIRY_IS_UTC) {
        ALOGE("%s: Only UTC is supported for Expiry Time format %d type is not supported\n",
              ENTRY_DECODE, static_cast<int>(message.expiry.ExpType));
        return false;
    }
    const CampaignEnablementLogic& enablement = message.enablementAndLogic.enablement;
    entry->expiryValue = message.expiry.ExpValue;
    entry->enablementType = enablement.enablementType;
    entry->timeSlices = enablement.timeBasedEnablement.timeSlices;
    entry->mccMncCount = networks.count;
    if (networks.count == 0) return true;
    entry->mccMncList = campaign_network_list_new();
    if (!entry->mccMncList) {
        ALOGE("%s: Malloc failed for mcc mnc list\n", ENTRY_DECODE);
        return false;
    }
    std::copy_n(networks.records, CAMPAIGN_NETWORKS_MAX, entry->mccMncList.get());
    return true;
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

bool campaign_file_map(const char* caller, const uint8_t* file, size_t length, const uint8_t** map,
                       size_t* map_length) {
    const int first = length > 0 ? file[0] : 0;
    const int second = length > 1 ? file[1] : 0;
    if (first != CAMPAIGN_FILE_HEAD[0] || second != CAMPAIGN_FILE_HEAD[1]) {
        ALOGE("%s: Campaign Descriptor file format unsupported %d %d\n", caller, first, second);
        return false;
    }
    const size_t head = std::min(length, sizeof CAMPAIGN_FILE_HEAD);
    *map = file + head;
    *map_length = length - head;
    return true;
}

bool campaignDecode(const uint8_t* buffer, size_t length, campaign_table* table, bool write) {
    if (!buffer || !table) {
        ALOGE("Null pointer passed in function %s\n", __func__);
        return false;
    }
    map_target target{.table = table, .write = write};
    CampaignDescriptionMap message = CampaignDescriptionMap_init_zero;
    message.entry = decode_with(campaign_description_map_entry_decode, &target);
    pb_istream_t stream = pb_istream_from_buffer(buffer, length);
    // A zero byte ends a message; what is behind it is the next one. Nothing at all would be a good
    // message, but is not accepted.
    do {
        if (length == 0 || !decode_up_to_zero(&stream, CampaignDescriptionMap_fields, &message)) {
            ALOGE("Decoding failed: %s\n", PB_GET_ERROR(&stream));
            return false;
        }
    } while (stream.bytes_left > 0);
    ALOGI("Decode Success\n");
    return true;
}

bool campaign_desciption_entry_decode_from_buffer(const uint8_t* buffer, size_t length,
                                                  campaign_table* table, bool write) {
    if (!buffer || !table) {
        ALOGE("Null pointer passed in function %s\n", ENTRY_DECODE);
        return false;
    }
    network_block networks;
    owned_bytes logic;
    CampaignDescriptionEntry message;
    if (!decode_message(buffer, length, &networks, &logic, &message)) {
        ALOGE("%s: Submessage decode Failed\n", ENTRY_DECODE);
        return false;
    }
    if (message.moduleId >= CAMPAIGN_MODULES) {
        ALOGE("%s: Wrong Module Id passed %d\n", ENTRY_DECODE, static_cast<int>(message.moduleId));
        return false;
    }
    unique_campaign& slot = (*table)[message.moduleId];
    if (!claim_slot(&slot, message)) return false;
    if (write && !store_campaign(message, buffer, length)) return false;
    // The expiry is looked at only now, with the file written and the slot taken: deliberate.
    if (!fill_entry(slot.get(), message, networks)) return false;
    log_campaign(message, logic.length);
    return true;
}

bool get_campaign_logic_from_campaign_description(const uint8_t* buffer, size_t length,
                                                  owned_bytes* out) {
    if (!buffer || !out) {
        ALOGE("%s: Null passed\n", __func__);
        return false;
    }
    *out = {};
    CampaignDescriptionEntry message;
    if (!decode_message(buffer, length, nullptr, out, &message)) {
        ALOGE("%s: Submessage decode Failed\n", __func__);
        *out = {};
        return false;
    }
    return true;
}
