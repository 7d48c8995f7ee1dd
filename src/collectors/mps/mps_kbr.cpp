#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_kbr.h"

#include <string.h>

#include <algorithm>
#include <utility>

#include "base/sync.h"
#include "collectors/mps/mps_service.h"
#include "modem_client/modem_client.h"
#include "mps_events/mps_events.h"
#include "platform/log.h"

namespace {

constexpr uint32_t REQUEST_TIMEOUT_MS = 10000;
constexpr uint8_t PREPARE_CONSTANT = 80;

// The source offset of a collection spec's piece is made from the low byte of its number,
// so that pieces repeat above 204800 bytes: deliberate.
constexpr size_t PART_NUMBERS = 256;

struct mps_client {
    vexa_mutex mutex{};
    const stop_flag* stop GUARDED_BY(mutex) = nullptr;  // while it is initialised
    bool initialised GUARDED_BY(mutex) = false;
    bool collection_started GUARDED_BY(mutex) = false;
    bool lll_present GUARDED_BY(mutex) = false;
    uint32_t ll_delay_s GUARDED_BY(mutex) = 0;
    uint32_t data_sequence GUARDED_BY(mutex) = 1;  // never reset
    mps_kbr_callback callback GUARDED_BY(mutex) = nullptr;
    mps_service_revision revision GUARDED_BY(mutex){};
};

mps_client g_client;
constinit modem_client g_link;

bool is_initialised() {
    const vexa_lock held(g_client.mutex);
    return g_client.initialised;
}

// ---- Requests

const kbr_service_object* service_object() {
    return vexa_get_service_object_internal_v01(1, 1, 6);
}

// A client without a connection is initialised too: no call goes out on it.
template <class Response>
modem_result ask(uint16_t msg_id, const void* request, size_t request_len, Response* response) {
    const stop_flag* stop = nullptr;
    {
        const vexa_lock held(g_client.mutex);
        stop = g_client.stop;
    }
    if (!stop) return modem_result::GONE;
    const modem_result sent = modem_client_send(&g_link, msg_id, request, request_len, response,
                                                sizeof *response, REQUEST_TIMEOUT_MS, *stop);
    return modem_verdict(sent, response->answer);
}

template <class Request>
modem_result send_request(uint16_t msg_id, const Request& request) {
    mps_response response;
    return ask(msg_id, &request, sizeof request, &response);
}

modem_result send_empty_request(uint16_t msg_id) {
    mps_response response;
    return ask(msg_id, nullptr, 0, &response);
}

void set_flag(bool mps_client::*flag, bool value) {
    const vexa_lock held(g_client.mutex);
    g_client.*flag = value;
}

// ---- The start sequence

size_t count_parts(const owned_bytes& spec) {
    return (spec.length + MPS_SPEC_PART_MAX - 1) / MPS_SPEC_PART_MAX;
}

// Whether the start sequence can read all of it; logged.
bool is_startable(const MpsCampaign* record, const char* function) {
    if (!record) {
        ALOGE("Null pointer passed to %s", function);
        return false;
    }
    if (!is_initialised()) {
        ALOGE("VEXA KBR Instance Un-Initialized");
        return false;
    }
    const std::pair<const owned_bytes*, const char*> specs[] = {
        {&record->collection_spec, "clspec_buf"},
        {&record->static_spec, "stspec_buf"},
        {&record->ctxt_spec, "clctxt_buf"},
        {&record->lll_spec, "lll_buf"},
    };
    for (const auto& [spec, name] : specs) {
        if (spec->length == 0 || spec->bytes) continue;
        ALOGE("Unexpected Null %s pointer passed to %s", name, function);
        return false;
    }
    return true;
}

// Returns OK, or TOO_LARGE for a static spec that the request has no room for.
modem_result fill_start_prepare(const MpsCampaign& record, size_t parts, uint32_t subscription_id,
                                mps_start_prepare_request* request) {
    const owned_bytes& static_spec = record.static_spec;
    if (static_spec.length > sizeof request->static_spec) return modem_result::TOO_LARGE;
    *request = {
        .parts = static_cast<uint8_t>(parts),
        .constant_valid = 1,
        .constant = PREPARE_CONSTANT,
        .power_budget_meas_intr_valid = 1,
        .power_budget_meas_intr = static_cast<uint8_t>(record.powerBudgetMeasIntr),
        .power_budget_max_ap_wakeup_valid = 1,
        .power_budget_max_ap_wakeup = static_cast<uint8_t>(record.powerBudgetMaxAPWakeup),
        .static_spec_valid = static_spec.length > 0,
        .static_spec_len = static_cast<uint32_t>(static_spec.length),
        .subscription_valid = subscription_id != 0,
        .subscription = subscription_id - 1,
        .spec_field6_valid = record.specField6 != 0,
        .spec_field6 = record.specField6,
    };
    if (static_spec.length > 0)
        memcpy(request->static_spec, static_spec.bytes.get(), static_spec.length);
    return modem_result::OK;
}

// A start sequence under way: the part numbers run on across the kinds.
struct start_sequence {
    const MpsCampaign& record;
    const stop_flag& stop;
    const char* function = nullptr;
    size_t part_number = 0;
};

size_t source_offset(mps_spec_kind kind, size_t part_number, size_t done) {
    if (kind != MPS_COLLECTION_SPEC) return done;
    return part_number % PART_NUMBERS * MPS_SPEC_PART_MAX;
}

modem_result send_part(const start_sequence& sequence, mps_spec_kind kind, const uint8_t* bytes,
                       size_t size) {
    if (stop_flag_is_raised(sequence.stop)) return modem_result::STOPPED;
    mps_logic_part_request request{.part_number = static_cast<uint8_t>(sequence.part_number),
                                   .bytes_len = static_cast<uint32_t>(size),
                                   .kind_valid = 1,
                                   .kind = kind};
    memcpy(request.bytes, bytes, size);
    return send_request(MPS_COLLECTION_LOGIC_PART, request);
}

void note_lll_part(uint32_t ll_delay_s) {
    const vexa_lock held(g_client.mutex);
    g_client.lll_present = true;
    g_client.ll_delay_s = ll_delay_s;
}

// Sends a spec in pieces.
modem_result send_spec(start_sequence* sequence, mps_spec_kind kind, const owned_bytes& spec) {
    for (size_t done = 0; done < spec.length; ++sequence->part_number) {
        const size_t size = std::min(spec.length - done, MPS_SPEC_PART_MAX);
        const size_t offset = source_offset(kind, sequence->part_number, done);
        const auto number = static_cast<int>(sequence->part_number);
        const modem_result result = send_part(*sequence, kind, spec.bytes.get() + offset, size);
        if (result != modem_result::OK) {
            ALOGE("%s: Failed to send Collection Logic Part %d. err = %d", sequence->function,
                  number, modem_result_number(result));
            return result;
        }
        done += size;
        ALOGD("%s: Sent Collection Logic Part %d, Type %d, Bytes Left %d", sequence->function,
              number, static_cast<int>(kind), static_cast<int>(spec.length - done));
        if (kind == MPS_LLL_SPEC) note_lll_part(sequence->record.lllDelaySecs);
    }
    return modem_result::OK;
}

modem_result mps_kbr_send_start_req() {
    const modem_result result = send_empty_request(MPS_COLLECTION_START);
    if (result != modem_result::OK) {
        ALOGE("%s: Failed to send Collection Start err = %d", __func__,
              modem_result_number(result));
        return result;
    }
    set_flag(&mps_client::collection_started, true);
    return result;
}

// ---- Indications

void raise_event(uint32_t event) {
    mps_kbr_callback callback = nullptr;
    {
        const vexa_lock held(g_client.mutex);
        callback = g_client.callback;
    }
    if (callback) callback(event);
}

}  // namespace

modem_result mps_kbr_init(const stop_flag& stop) {
    const kbr_service_object* service = service_object();
    if (!service) {
        ALOGE("%s: service_obj is NULL\n", __func__);
        return modem_result::NO_SERVICE;
    }
    const modem_result result = modem_client_connect(&g_link, service, mps_kbr_ind_cb, stop);
    if (result != modem_result::OK)
        ALOGE("%s: failed to init kbr. err:%d", __func__, modem_result_number(result));
    const vexa_lock held(g_client.mutex);
    // Stopped, it may have been released before it came to be: it must not be there afterwards.
    if (stop_flag_is_raised(stop)) return modem_result::GONE;
    g_client.stop = &stop;
    g_client.initialised = true;  // also after a failure: deliberate
    return result;
}

void mps_kbr_register_cb(mps_kbr_callback callback) {
    const vexa_lock held(g_client.mutex);
    g_client.callback = callback;
}

modem_result mps_kbr_get_service_rev(uint32_t* major, uint32_t* minor) {
    if (!is_initialised()) {
        ALOGE("VEXA KBR Instance Un-Initialized");
        return modem_result::FAILED;
    }
    if (!major || !minor) {
        ALOGE("Null pointers passed");
        return modem_result::FAILED;
    }
    mps_revision_response response;
    const modem_result result = ask(MPS_GET_SERVICE_REVISION, nullptr, 0, &response);
    if (result != modem_result::OK) {
        ALOGE("%s: failed to get service revision. err=%d", __func__, modem_result_number(result));
        return result;
    }
    *major = response.major;
    *minor = response.minor;
    ALOGI("major version: %d. minor version: %d\n", response.major, response.minor);
    const vexa_lock held(g_client.mutex);
    g_client.revision = {.major = response.major, .minor = response.minor};
    return result;
}

mps_service_revision mps_kbr_service_revision() {
    const vexa_lock held(g_client.mutex);
    return g_client.revision;
}

modem_result mps_kbr_init_mpss_bsi(const MpsCampaign* record, uint32_t subscription_id,
                                   const stop_flag& stop) {
    if (!is_startable(record, __func__)) return modem_result::FAILED;

    // The static spec travels in the prepare request and is no part.
    const size_t parts = count_parts(record->collection_spec) + count_parts(record->ctxt_spec) +
                         count_parts(record->lll_spec);
    ALOGD("%s: Part Number = %d MEMSET", __func__, static_cast<int>(parts));

    if (stop_flag_is_raised(stop)) return modem_result::STOPPED;
    modem_result result = mps_kbr_send_start_prepare_req(record, parts, subscription_id);
    if (result != modem_result::OK) return result;

    start_sequence sequence{.record = *record, .stop = stop, .function = __func__};
    result = send_spec(&sequence, MPS_COLLECTION_SPEC, record->collection_spec);
    if (result != modem_result::OK) return result;
    result = send_spec(&sequence, MPS_CONTEXT_SPEC, record->ctxt_spec);
    if (result != modem_result::OK) return result;
    set_flag(&mps_client::lll_present, false);
    result = send_spec(&sequence, MPS_LLL_SPEC, record->lll_spec);
    if (result != modem_result::OK) return result;

    if (stop_flag_is_raised(stop)) return modem_result::STOPPED;
    return mps_kbr_send_start_req();
}

modem_result mps_kbr_send_start_prepare_req(const MpsCampaign* record, size_t parts,
                                            uint32_t subscription_id) {
    if (!record || (record->static_spec.length > 0 && !record->static_spec.bytes)) {
        ALOGE("Null pointer passed to %s", __func__);
        return modem_result::FAILED;
    }
    mps_start_prepare_request request;
    modem_result result = fill_start_prepare(*record, parts, subscription_id, &request);
    if (result == modem_result::OK && request.subscription_valid)
        ALOGD("%s: Sub ID being sent is %d", __func__, static_cast<int>(request.subscription));
    if (result == modem_result::OK) result = send_request(MPS_COLLECTION_START_PREPARE, request);
    if (result != modem_result::OK)
        ALOGE("%s: Failed to send Collection Start Prep Msg. err = %d", __func__,
              modem_result_number(result));
    return result;
}

modem_result mps_kbr_stop_flush_bsi() {
    const mps_stop_flush_request request{.flag_valid = 1, .flag = 1};
    const modem_result result = send_request(MPS_STOP_FLUSH, request);
    if (result != modem_result::OK) {
        ALOGE("%s: Failed to send STOPFlush err = %d", __func__, modem_result_number(result));
        return result;
    }
    set_flag(&mps_client::collection_started, false);
    return result;
}

modem_result mps_kbr_fetch_results() {
    mps_data_request request;
    {
        const vexa_lock held(g_client.mutex);
        request.sequence = g_client.data_sequence++;
    }
    const modem_result result = send_request(MPS_DATA_REQUEST, request);
    if (result != modem_result::OK)
        ALOGE("%s: Failed to send DATA_REQ err = %d", __func__, modem_result_number(result));
    return result;
}

bool mps_kbr_is_lll_collected() {
    const vexa_lock held(g_client.mutex);
    return g_client.collection_started && g_client.lll_present;
}

bool mps_kbr_send_lll_start_req() {
    if (!mps_kbr_is_lll_collected()) return true;
    const modem_result result = send_empty_request(MPS_LLL_START);
    if (result == modem_result::OK) return true;
    ALOGE("%s: Failed to send LLL Start Msg. err = %d", __func__, modem_result_number(result));
    return false;
}

bool mps_kbr_send_lll_stop_req() {
    if (!mps_kbr_is_lll_collected()) return true;
    const modem_result result = send_empty_request(MPS_LLL_STOP);
    if (result == modem_result::OK) return true;
    ALOGE("%s: Failed to send LLL Stop Msg. err = %d", __func__, modem_result_number(result));
    return false;
}

uint32_t mps_kbr_get_lll_delayt_timer_secs() {
    const vexa_lock held(g_client.mutex);
    return g_client.ll_delay_s;
}

void mps_kbr_client_release() {
    {
        const vexa_lock held(g_client.mutex);
        if (!g_client.initialised) ALOGE("VEXA KBR Instance Un-Initialized");
        g_client.initialised = false;
        g_client.stop = nullptr;
    }
    modem_client_release(&g_link);
}

void mps_kbr_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len, void*) {
    unique_malloc<void> structure;
    const modem_result result =
        modem_client_decode(client, service_object(), msg_id, buf, len, &structure);
    if (result == modem_result::UNKNOWN_MESSAGE)
        ALOGE("%s: unknown msg_id: %d\n", __func__, static_cast<int>(msg_id));
    if (result != modem_result::OK) return;
    if (msg_id == MPS_SEND_COMPLETE_IND) {
        ALOGI("KBR_VEXA_SEND_DATA_COMPLETE_IND_V01\n");
        raise_event(MPS_EVENT_SEND_COMPLETE);
    } else {
        const auto* full = static_cast<const mps_buffer_full_indication*>(structure.get());
        ALOGI("KBR_VEXA_BUFFER_FULL_IND_V01: type = %d\n", static_cast<int>(full->type));
        raise_event(MPS_EVENT_BUFFER_FULL);
    }
}
