// The modem's persistent device configuration (PDC) service: its messages, as C structures and as
// the service object by which the messaging library turns them into bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "modem_client/modem_client.h"
#include "platform/kbr.h"

// Load and get-info are a request, its response and an indication with the real outcome, all of one
// id.
enum pdc_message_id : uint16_t {
    PDC_GET_SELECTED_CONFIG_IND = 0x22,
    PDC_LIST_CONFIGS_IND = 0x24,
    PDC_LOAD_CONFIG = 0x26,
    PDC_GET_CONFIG_INFO = 0x28,
};

enum pdc_error : uint16_t {
    PDC_ERROR_NONE = 0,
    PDC_ERROR_NO_MEMORY = 2,
    PDC_ERROR_NO_EFFECT = 26,  // a get-info request goes on all the same
    PDC_ERROR_INVALID_ID = 41,
};

inline constexpr size_t PDC_ID_MAX = 124;
inline constexpr size_t PDC_FRAME_MAX = 900;
inline constexpr size_t PDC_CONFIG_HEADER_MAX = 512;

// What indications may carry is more than what is taken from them.
inline constexpr size_t PDC_LISTED_ID_MAX = 252;
inline constexpr size_t PDC_LISTED_MAX = 32;

struct pdc_config_id {
    uint32_t len = 0;
    uint8_t bytes[PDC_ID_MAX] = {};
};

struct pdc_listed_id {
    uint32_t len = 0;
    uint8_t bytes[PDC_LISTED_ID_MAX] = {};
};

// `token` comes back in the indication, so that a late one is not taken for the next call's. It is
// this daemon's own idea: a modem that does not know it leaves it out.
struct pdc_get_config_info_request {
    uint8_t token_valid = 0;
    uint32_t token = 0;
    uint32_t config_type = 0;
    pdc_config_id id{};
};

struct pdc_load_config_request {
    uint8_t token_valid = 0;
    uint32_t token = 0;
    uint32_t config_type = 0;
    pdc_config_id id{};
    uint32_t total_size = 0;  // bytes of the whole configuration
    uint32_t frame_len = 0;
    uint8_t frame[PDC_FRAME_MAX] = {};
};

struct pdc_get_config_info_indication {
    uint8_t token_valid = 0;
    uint32_t token = 0;
    uint8_t config_header_valid = 0;
    uint32_t config_header_len = 0;
    uint8_t config_header[PDC_CONFIG_HEADER_MAX] = {};
};

struct pdc_load_config_indication {
    uint8_t token_valid = 0;
    uint32_t token = 0;
    uint8_t error_valid = 0;
    uint16_t error = 0;  // pdc_error
    uint8_t received_size_valid = 0;
    uint32_t received_size = 0;
    uint8_t remaining_size_valid = 0;
    uint32_t remaining_size = 0;
    uint8_t frame_reset_valid = 0;
    uint8_t frame_reset = 0;
};

struct pdc_list_configs_indication {
    uint8_t error_valid = 0;
    uint16_t error = 0;
    uint8_t configs_valid = 0;
    uint32_t configs_len = 0;
    pdc_listed_id configs[PDC_LISTED_MAX]{};
};

struct pdc_selected_config_indication {
    uint8_t error_valid = 0;
    uint16_t error = 0;
    uint8_t active_id_valid = 0;
    pdc_listed_id active_id{};
    uint8_t pending_id_valid = 0;
    pdc_listed_id pending_id{};
};

// The service's description, for version `major`.`minor` by library version `library`; null for any
// but 1, 15, 6. Static data. Any thread.
const kbr_service_object* pdc_get_service_object_internal_v01(uint32_t major, uint32_t minor,
                                                              uint32_t library);
