#define LOG_TAG "vexastatsd"

#include "collectors/static/aost_imsa.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_handle.h"
#include "collectors/static/aost_reporter.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "modem_client/modem_client.h"
#include "platform/log.h"

constinit aost_reporter g_aost;

namespace {

constexpr uint32_t IMSA_CALL_TIMEOUT_MS = 120000;
constexpr int CONNECT_RETRIES = 24;
constexpr int64_t RETIRE_PAUSE_MS = 1000;

void reset_state(write_req* req) {
    const vexa_lock held(g_aost.data_lock);
    g_aost.row = req ? req->row : nullptr;
    g_aost.record = req ? req->handle : nullptr;
    g_aost.has_record = false;
    g_aost.stored = false;
    g_aost.subs_type = 0;
    for (uint32_t& value : g_aost.status) value = 0;
    g_aost.status_text[0] = '\0';
    g_aost.interval_s = AOST_INTERVAL_S;
    g_aost.last_params_ms = 0;
    g_aost.alarm_due_ms = AOST_NO_ALARM;
}

// ---- Messages

// `callback_client` is the client of the callback that sends, or null: the static thread sends, and
// a stop ends its call.
template <class Response>
modem_result send(kbr_client* callback_client, uint16_t msg_id, const void* request,
                  size_t request_len, Response* response, const modem_answer& answer) {
    const modem_result sent =
        callback_client
            ? modem_callback_send(callback_client, msg_id, request, request_len, response,
                                  sizeof *response, IMSA_CALL_TIMEOUT_MS)
            : modem_client_send(&g_aost.client, msg_id, request, request_len, response,
                                sizeof *response, IMSA_CALL_TIMEOUT_MS, g_aost.row.load()->stop);
    return modem_verdict(sent, answer);
}

template <class Request>
modem_result send_request(kbr_client* callback_client, uint16_t msg_id, const Request& request) {
    modem_answer answer;
    const modem_result result =
        send(callback_client, msg_id, &request, sizeof request, &answer, answer);
    // The word "async" is the message's own.
    if (result != modem_result::OK)
        ALOGE("[ERROR] kbr_client_send_msg_async() failed, rc=%d", modem_result_number(result));
    return result;
}

template <class Response>
modem_result send_question(uint16_t msg_id, Response* response) {
    const modem_result result = send(nullptr, msg_id, nullptr, 0, response, response->answer);
    if (result != modem_result::OK)
        ALOGE("[ERROR] kbr_client_send_msg_sync() error=%d", modem_result_number(result));
    return result;
}

// The first active subscription, or the bound one when none is.
modem_result aost_imsa_get_active_subs_sync() {
    ALOGI("%s", __func__);
    imsa_active_subscriptions_response response;
    const modem_result result = send_question(IMSA_GET_ACTIVE_SUBSCRIPTIONS, &response);
    if (result != modem_result::OK) return result;
    constexpr uint32_t SUBSCRIPTIONS = 3;
    const vexa_lock held(g_aost.data_lock);
    for (uint32_t i = SUBSCRIPTIONS; i-- > 0;) {
        if (response.active[i].value) g_aost.subs_type = i;
    }
    ALOGI("subs type=%d", static_cast<int>(g_aost.subs_type));
    return result;
}

modem_result aost_imsa_set_bind_subs_sync(kbr_client* callback_client) {
    ALOGI("%s", __func__);
    imsa_bind_request request;
    {
        const vexa_lock held(g_aost.data_lock);
        request.subscription = {.valid = 1, .value = g_aost.subs_type};
    }
    return send_request(callback_client, IMSA_BIND_SUBSCRIPTION, request);
}

modem_result register_indications(kbr_client* callback_client) {
    imsa_register_request request;
    for (const size_t kind : {0, 1, 10}) request.wanted[kind] = {.valid = 1, .value = 1};
    return send_request(callback_client, IMSA_REGISTER_INDICATIONS, request);
}

// ---- Set-up

const kbr_service_object* service_object() {
    return imsa_get_service_object_internal_v01(1, 36, 6);
}

// Only the failure of the last attempt is logged.
constexpr modem_patience PATIENCE = {
    .attempts = 1 + CONNECT_RETRIES,
    .pause_ms = 5000,
    .note_failure =
        [](modem_result result, int attempt) {
            if (attempt < CONNECT_RETRIES) return;
            ALOGE("[ERROR] %s() kbr_client_init_instance() error=%d",
                  "aost_imsa_init_client_handle", modem_result_number(result));
        },
    .note_retry = [](int attempt) { ALOGD("retry=%d", attempt); },
};

modem_result aost_imsa_init_client_handle(const stop_flag& stop) {
    ALOGD("%s()", __func__);
    const kbr_service_object* service = service_object();
    if (!service) {
        ALOGE("[ERROR] obj is NULL");
        return modem_result::NO_SERVICE;
    }
    return modem_client_connect_patiently(&g_aost.client, service, aost_imsa_resp_ind_cb, PATIENCE,
                                          stop);
}

// ---- Status

// Puts a status line behind `heading`; what does not fit is cut off.
void compose_status(const char* heading) REQUIRES(g_aost.data_lock) {
    const auto value = [](size_t i) REQUIRES(g_aost.data_lock) {
        return static_cast<int>(g_aost.status[i]);
    };
    snprintf(g_aost.status_text, sizeof g_aost.status_text, "%s- [%ld, %d, %d, %d, %d, %d, %d]\n",
             heading, static_cast<long>(vexastats_uptime_ms()), value(0), value(1), value(2),
             value(3), value(4), value(5));
}

// ---- Indications

void log_registration(const imsa_registration_indication& indication) {
    ALOGI("KBR_IMSA_REGISTRATION_STATUS_IND_V01");
    ALOGI("ims_registered=%d ", indication.registered);
}

// Returns whether a valid value differs from the stored one, which is replaced.
bool store_values(const imsa_status_indication& indication) REQUIRES(g_aost.data_lock) {
    bool is_changed = false;
    uint32_t* stored = g_aost.status;
    for (const imsa_value& reported : indication.status) {
        if (reported.valid && reported.value != *stored) {
            *stored = reported.value;
            is_changed = true;
        }
        ++stored;
    }
    return is_changed;
}

// Returns false when the reporter has to end.
bool write_change(const imsa_status_indication& indication) {
    const vexa_lock held(g_aost.data_lock);
    if (!store_values(indication)) {
        ALOGI("No status change");
        return true;
    }
    compose_status("");
    return aost_imsa_write_service_status_change(false);
}

void store_status(const imsa_status_indication& indication) {
    ALOGI("KBR_IMSA_SERVICE_STATUS_IND_V01");
    if (!write_change(indication)) aost_imsa_retire();
}

bool note_subscription(const imsa_value& subscription) {
    const vexa_lock held(g_aost.data_lock);
    if (!subscription.valid || subscription.value == g_aost.subs_type) return false;
    g_aost.subs_type = subscription.value;
    return true;
}

// The data lock is not held while the messages are on their way: the alarm, and with it a stop,
// would have to wait for both time-outs. Only the library's one thread comes here.
void note_bind_status(kbr_client* client, const imsa_bind_indication& indication) {
    ALOGI("KBR_IMSA_BIND_SUBSCRIPTION_STATUS_IND_V01");
    if (!note_subscription(indication.subscription)) return;
    if (aost_imsa_set_bind_subs_sync(client) == modem_result::OK &&
        register_indications(client) == modem_result::OK) {
        ALOGI("sub type=%d ", static_cast<int>(indication.subscription.value));
    } else {
        aost_imsa_retire();
    }
}

// Null, logged, when it is no such indication.
unique_malloc<void> decode(kbr_client* client, uint32_t msg_id, const void* buf, uint32_t len) {
    unique_malloc<void> structure;
    const modem_result result =
        modem_client_decode(client, service_object(), msg_id, buf, len, &structure);
    if (result == modem_result::OK) return structure;
    if (result == modem_result::NO_MEMORY) {
        ALOGE("malloc failed");
    } else {
        ALOGI("decode failed, msg_id=0x%x, error=0x%x", msg_id,
              static_cast<unsigned>(modem_result_number(result)));
    }
    return nullptr;
}

bool is_known(uint32_t msg_id) {
    return msg_id == IMSA_REGISTRATION_STATUS_IND || msg_id == IMSA_SERVICE_STATUS_IND ||
           msg_id == IMSA_BIND_SUBSCRIPTION_STATUS_IND;
}

}  // namespace

void aost_imsa_resp_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len, void*) {
    ALOGI("%s, msg_id=0x%x, tid=%d", __func__, msg_id, gettid());
    const unique_malloc<void> structure = decode(client, msg_id, buf, len);
    if (!is_known(msg_id)) {
        ALOGI("[WARNING] no case for msg_id=0x%x", msg_id);
    } else if (!structure) {
        ALOGE("[ERROR] ind_msg_ptr is NULL");
    } else if (msg_id == IMSA_REGISTRATION_STATUS_IND) {
        log_registration(*static_cast<const imsa_registration_indication*>(structure.get()));
    } else if (msg_id == IMSA_SERVICE_STATUS_IND) {
        store_status(*static_cast<const imsa_status_indication*>(structure.get()));
    } else {
        note_bind_status(client, *static_cast<const imsa_bind_indication*>(structure.get()));
    }
}

modem_result aost_imsa_init(write_req* req) {
    ALOGI("%s, tid=%d", __func__, gettid());
    collector_info* row = req->row;
    reset_state(req);

    modem_result result = aost_imsa_init_client_handle(row->stop);
    if (result == modem_result::OK) result = aost_imsa_get_active_subs_sync();
    if (result == modem_result::OK) result = aost_imsa_set_bind_subs_sync(nullptr);
    if (result != modem_result::OK) return result;
    if (!aost_alarm_install()) return modem_result::FAILED;

    aost_request_config(*row);
    aost_load_params(row);
    aost_alarm_arm(g_aost.interval_s);
    g_aost.registered = true;
    return result;
}

modem_result aost_imsa_start() {
    return register_indications(nullptr);
}

bool aost_imsa_get_registered() {
    if (!g_aost.registered) return false;
    ALOGI("%s", "aost_imsa_get_service_status_sync");
    imsa_status_response response;
    const modem_result result = send_question(IMSA_GET_SERVICE_STATUS, &response);
    if (result != modem_result::OK) {
        ALOGE("[ERROR] Failed to get the service status, error=%d", modem_result_number(result));
        return false;
    }
    const vexa_lock held(g_aost.data_lock);
    // Whether a value is valid is not looked at here: deliberate.
    std::ranges::transform(response.status, g_aost.status, &imsa_value::value);
    compose_status(g_aost.stored ? "\nims service status:\n" : "");
    return aost_imsa_write_service_status_change(false) && g_aost.registered;
}

void aost_imsa_retire() {
    // The name is the message's own.
    const bool was_registered = g_aost.registered.exchange(false);
    ALOGI("%s(), registered=%d", "aost_imsa_deinit", was_registered);
    if (!was_registered) return;
    aost_wake();
    const collector_info* row = g_aost.row;
    if (row) vexastats_sleep_ms(RETIRE_PAUSE_MS, row->stop);
}

void aost_imsa_deinit() {
    aost_imsa_retire();
    // With nothing held: a callback under way may need the data lock to finish.
    modem_client_release(&g_aost.client);
    reset_state(nullptr);
}
