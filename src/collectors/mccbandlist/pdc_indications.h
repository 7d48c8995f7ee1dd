// What the modem's persistent device configuration (PDC) service sends by itself: the outcomes of
// the calls of pdc_kbr.h. Thread: the messaging library's, unless it says otherwise.
#pragma once

#include <cstddef>
#include <cstdint>

#include "collectors/mccbandlist/pdc_service.h"

// Most entries of the list of configurations.
inline constexpr size_t PDC_CONFIGS_MAX = 25;

// The client's indication callback.
void kbr_pdc_unsol_ind_cb(kbr_client* client, uint32_t msg_id, void* buf, uint32_t len, void* data);

// What it calls. Null stands for an indication without data.
void kbr_pdc_get_selected_config_ind_hdlr(const pdc_selected_config_indication* indication);
void kbr_pdc_list_configs_ind_hdlr(const pdc_list_configs_indication* indication);
void kbr_pdc_load_config_ind_hdlr(const pdc_load_config_indication* indication);
void kbr_pdc_get_config_info_ind_hdlr(const pdc_get_config_info_indication* indication);

// What the two indications that this daemon does not ask for leave.
struct pdc_unasked {
    int32_t list_result = 0;
    uint32_t listed = 0;
    pdc_config_id list[PDC_CONFIGS_MAX]{};
    int32_t selected_result = 0;
    pdc_config_id selected{};
};
