#define LOG_TAG "vexastatsd-mbl"

#include "collectors/mccbandlist/pdc_indications.h"

#include <string.h>
#include <sys/eventfd.h>

#include <algorithm>

#include "collectors/mccbandlist/pdc_client.h"
#include "modem_client/modem_client.h"
#include "platform/log.h"

namespace {

void set_done(pdc_operation* operation, int32_t result) {
    operation->result = result;
    if (operation->waiting) (void)eventfd_write(operation->wake_fd, 1);
    operation->done = true;
}

// One that no call in progress has asked for, late or unasked, is nobody's. One that says nothing
// of its call, or that nobody can read, is that of the call in progress.
template <class Indication>
bool is_expected(const pdc_operation& operation, const Indication* indication) {
    if (!operation.busy || operation.done) return false;
    return !indication || !indication->token_valid || indication->token == operation.token;
}

int32_t load_result(const pdc_load_config_indication& indication) {
    switch (indication.error_valid ? indication.error : uint16_t{PDC_ERROR_NONE}) {
        case PDC_ERROR_NONE:
            break;
        case PDC_ERROR_NO_MEMORY:
            ALOGE("no memory in modem EFS");
            return PDC_NO_MEMORY;
        case PDC_ERROR_INVALID_ID:
            ALOGE("Invalid config id, maybe already exists");
            return PDC_INVALID_ID;
        default:
            ALOGE("load configuration error, code = %d", indication.error);
            return PDC_FAILED;
    }
    if (!indication.frame_reset_valid) return PDC_OK;
    ALOGE("PDC frame data is reset");
    return PDC_FRAME_RESET;
}

template <class Indication>
bool reports_error(const Indication* indication) {
    if (!indication || !indication->error_valid || indication->error == PDC_ERROR_NONE)
        return false;
    ALOGE("KBR error, error code: %d", indication->error);
    return true;
}

// Returns whether it fits.
bool copy_id(const pdc_listed_id& from, pdc_config_id* to) {
    if (from.len > PDC_ID_MAX) return false;
    *to = {.len = from.len};
    memcpy(to->bytes, from.bytes, from.len);
    return true;
}

int32_t copy_selected(const pdc_selected_config_indication* indication, pdc_config_id* selected) {
    if (!indication || reports_error(indication)) return PDC_FAILED;
    if (indication->active_id_valid)
        return copy_id(indication->active_id, selected) ? PDC_OK : PDC_FAILED;
    if (indication->pending_id_valid) ALOGI("has pending configuration");
    return PDC_NONE;
}

int32_t copy_list(const pdc_list_configs_indication* indication, pdc_unasked* unasked) {
    if (!indication || reports_error(indication) || !indication->configs_valid ||
        indication->configs_len > PDC_CONFIGS_MAX)
        return PDC_FAILED;
    if (indication->configs_len == 0) {
        ALOGE("None MBN available in modem EFS");
        return PDC_NONE;
    }
    ALOGI("succeed to get config_list");
    unasked->listed = 0;
    for (uint32_t i = 0; i < indication->configs_len; ++i) {
        if (!copy_id(indication->configs[i], &unasked->list[i])) return PDC_FAILED;
        unasked->listed = i + 1;
    }
    return PDC_OK;
}

void dispatch(uint32_t msg_id, const void* indication) {
    switch (msg_id) {
        case PDC_GET_SELECTED_CONFIG_IND:
            return kbr_pdc_get_selected_config_ind_hdlr(
                static_cast<const pdc_selected_config_indication*>(indication));
        case PDC_LIST_CONFIGS_IND:
            return kbr_pdc_list_configs_ind_hdlr(
                static_cast<const pdc_list_configs_indication*>(indication));
        case PDC_LOAD_CONFIG:
            return kbr_pdc_load_config_ind_hdlr(
                static_cast<const pdc_load_config_indication*>(indication));
        case PDC_GET_CONFIG_INFO:
            return kbr_pdc_get_config_info_ind_hdlr(
                static_cast<const pdc_get_config_info_indication*>(indication));
        default:
            return;
    }
}

}  // namespace

void kbr_pdc_unsol_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len, void*) {
    ALOGI("%s ", __func__);
    unique_malloc<void> payload;
    switch (modem_client_decode(client, pdc_service(), msg_id, buf, len, &payload)) {
        case modem_result::OK:
            return dispatch(msg_id, payload.get());
        case modem_result::UNKNOWN_MESSAGE:
            ALOGE("failed to get message c_struct len");
            return;
        case modem_result::NO_MEMORY:
            ALOGE("failed to allocate memory for payload");
            break;
        default:
            ALOGE("failed to decode kbr message, msg_id: 0x%02x", msg_id);
            break;
    }
    dispatch(msg_id, nullptr);  // whoever waits for it waits no longer
}

void kbr_pdc_get_config_info_ind_hdlr(const pdc_get_config_info_indication* indication) {
    const vexa_lock held(g_pdc.mutex);
    pdc_operation& info = g_pdc.info;
    if (!indication) {
        ALOGE("NULL pointer for ind_data_ptr");
        if (is_expected(info, indication)) set_done(&info, PDC_FAILED);
        return;
    }
    const uint32_t len = std::min<uint32_t>(indication->config_header_len, PDC_CONFIG_HEADER_MAX);
    ALOGI("%s: config_header_valid [%d]", __func__, indication->config_header_valid);
    ALOGI("%s: config_header_len [%d]", __func__, static_cast<int>(len));
    if (!is_expected(info, indication)) return;
    if (indication->config_header_valid && info.record) {
        *info.record = {.header_valid = 1, .header_len = len};
        memcpy(info.record->header, indication->config_header, len);
    }
    set_done(&info, PDC_OK);
}

void kbr_pdc_load_config_ind_hdlr(const pdc_load_config_indication* indication) {
    ALOGI("%s ", __func__);
    int32_t result = PDC_FAILED;
    if (indication) {
        result = load_result(*indication);
    } else {
        ALOGE("NULL pointer for ind_dat_ptr");
    }
    const vexa_lock held(g_pdc.mutex);
    pdc_operation& load = g_pdc.load;
    if (!is_expected(load, indication)) return;
    if (result == PDC_OK && indication->remaining_size_valid)
        g_pdc.remaining_size = indication->remaining_size;
    if (result == PDC_OK && indication->received_size_valid)
        g_pdc.received_size = indication->received_size;
    set_done(&load, result);
}

// Nobody in this daemon waits for the following two.

void kbr_pdc_get_selected_config_ind_hdlr(const pdc_selected_config_indication* indication) {
    const vexa_lock held(g_pdc.mutex);
    g_pdc.unasked.selected_result = copy_selected(indication, &g_pdc.unasked.selected);
}

void kbr_pdc_list_configs_ind_hdlr(const pdc_list_configs_indication* indication) {
    const vexa_lock held(g_pdc.mutex);
    g_pdc.unasked.list_result = copy_list(indication, &g_pdc.unasked);
}
