#define LOG_TAG "vexastatsd"

#include "campaign/campaign_map.h"

#include <pb_decode.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "base/owned_bytes.h"
#include "campaign.pb.h"
#include "framework/time/wait.h"
#include "platform/log.h"

namespace {

// The file of a campaign that another one of its module is going to take the place of.
struct postponed_file {
    campaign_path path{};
    owned_bytes content{};
};

struct map_target {
    campaign_table* table = nullptr;
    bool write = false;
    const stop_flag* stop = nullptr;
    bool stopped = false;
    uint32_t index = 0;                             // of the element that is looked at
    std::array<uint32_t, CAMPAIGN_MODULES> last{};  // each module's last element
    std::array<postponed_file, CAMPAIGN_MODULES> postponed{};
};

// Calls visit(stream of the element, field, &target) for each campaign of a map. A zero byte ends a
// message; what is behind it is the next one.
bool visit_elements(pb_istream_t* stream, bool (*visit)(pb_istream_t*, const pb_field_t*, void**),
                    map_target* target) {
    CampaignDescriptionMap message = CampaignDescriptionMap_init_zero;
    message.entry.funcs.decode = visit;
    message.entry.arg = target;
    target->index = 0;
    do {
#ifdef PB_DECODE_NULLTERMINATED
        // The library's series before 0.4 always do so.
        const unsigned flags = PB_DECODE_NULLTERMINATED;
        if (!pb_decode_ex(stream, CampaignDescriptionMap_fields, &message, flags)) return false;
#else
        if (!pb_decode(stream, CampaignDescriptionMap_fields, &message)) return false;
#endif
    } while (stream->bytes_left > 0);
    return true;
}

// ---- Which campaigns are going to be overtaken

// Notes an element as its module's last one so far. Ends at one that will be refused, since nothing
// behind it counts.
bool note_last(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* target = static_cast<map_target*>(*arg);
    if (stream->bytes_left == 0) return false;
    CampaignDescriptionEntry message = CampaignDescriptionEntry_init_zero;
    if (!pb_decode(stream, CampaignDescriptionEntry_fields, &message)) return false;
    if (message.moduleId >= CAMPAIGN_MODULES) return false;
    target->last[message.moduleId] = target->index++;
    return message.expiry.ExpType == CAMPAIGN_EXPIRY_IS_UTC;
}

void find_last(const uint8_t* buffer, size_t length, map_target* target) {
    pb_istream_t stream = pb_istream_from_buffer(buffer, length);
    (void)visit_elements(&stream, note_last, target);  // what is wrong with it is said later
}

// ---- Keeping files

// Writes what is its module's last campaign and puts off the others.
bool keep_last(void* arg, uint32_t module, const campaign_path& path, const uint8_t* bytes,
               size_t length) {
    auto* target = static_cast<map_target*>(arg);
    if (!target->write) return true;
    postponed_file* postponed = &target->postponed[module];
    *postponed = {};  // its campaign has just lost the slot
    if (target->last[module] <= target->index) return campaign_store(path, bytes, length);
    postponed->content.bytes.reset(static_cast<uint8_t*>(malloc(length)));
    if (!postponed->content.bytes) return campaign_store(path, bytes, length);
    memcpy(postponed->content.bytes.get(), bytes, length);
    postponed->content.length = length;
    postponed->path = path;
    return true;
}

// Writes the files of campaigns that nobody took the place of, since the map was refused before.
// One that cannot be written leaves the table.
void store_postponed(map_target* target) {
    for (uint32_t module = 0; module < CAMPAIGN_MODULES; ++module) {
        const postponed_file& file = target->postponed[module];
        unique_campaign& slot = (*target->table)[module];
        if (!file.content.bytes || !slot) continue;
        if (!campaign_store(file.path, file.content.bytes.get(), file.content.length)) slot.reset();
    }
}

// ---- Decoding

bool stop_came(map_target* target) {
    target->stopped = target->stop && !vexastats_sleep_ms(0, *target->stop);
    return target->stopped;
}

bool campaign_description_map_entry_decode(pb_istream_t* stream, const pb_field_t*, void** arg) {
    auto* target = static_cast<map_target*>(*arg);
    if (stop_came(target)) return false;
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
    const campaign_refusal refusal = campaign_decode_entry(buffer.get(), length, target->table,
                                                           {.keep = keep_last, .arg = target});
    ++target->index;
    return refusal == campaign_refusal::NONE;
}

}  // namespace

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

bool campaignDecode(const uint8_t* buffer, size_t length, campaign_table* table, bool write,
                    const stop_flag* stop) {
    if (!buffer || !table) {
        ALOGE("Null pointer passed in function %s\n", __func__);
        return false;
    }
    map_target target{.table = table, .write = write, .stop = stop};
    if (write) find_last(buffer, length, &target);
    pb_istream_t stream = pb_istream_from_buffer(buffer, length);
    // Nothing at all would be a good message, but is not accepted.
    if (length > 0 && visit_elements(&stream, campaign_description_map_entry_decode, &target)) {
        ALOGI("Decode Success\n");
        return true;
    }
    if (target.stopped) return false;
    store_postponed(&target);
    ALOGE("Decoding failed: %s\n", PB_GET_ERROR(&stream));
    return false;
}
