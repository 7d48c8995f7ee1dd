// The modem's performance statistics service: its messages, as C structures and as the service
// object by which the messaging library turns them into bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "modem_client/modem_client.h"
#include "platform/kbr.h"

enum mps_message_id : uint16_t {
    MPS_GET_SERVICE_REVISION = 1,
    MPS_COLLECTION_START_PREPARE = 2,
    MPS_COLLECTION_LOGIC_PART = 3,
    MPS_COLLECTION_START = 4,
    MPS_STOP_FLUSH = 5,
    MPS_BUFFER_FULL_IND = 6,
    MPS_DATA_REQUEST = 7,
    MPS_SEND_COMPLETE_IND = 8,
    MPS_LLL_STOP = 9,
    MPS_LLL_START = 10,
};

// Most bytes of a spec in one message.
inline constexpr size_t MPS_SPEC_PART_MAX = 800;

// What a part of a collection's logic belongs to.
enum mps_spec_kind : uint32_t {
    MPS_COLLECTION_SPEC = 1,
    MPS_CONTEXT_SPEC = 2,
    MPS_LLL_SPEC = 3,
};

struct mps_response {
    modem_answer answer{};
    uint8_t value_valid = 0;
    uint32_t value = 0;  // used by nobody
};

struct mps_revision_response {
    modem_answer answer{};
    uint8_t major_valid = 0;
    uint16_t major = 0;
    uint8_t minor_valid = 0;
    uint16_t minor = 0;
};

struct mps_start_prepare_request {
    uint8_t parts = 0;  // low byte of the number of collection logic parts that follow
    uint8_t constant_valid = 0;
    uint8_t constant = 0;  // always 80
    uint8_t power_budget_meas_intr_valid = 0;
    uint8_t power_budget_meas_intr = 0;
    uint8_t power_budget_max_ap_wakeup_valid = 0;
    uint8_t power_budget_max_ap_wakeup = 0;
    uint8_t unused_valid = 0;
    uint8_t unused = 0;  // described by the service, never sent
    uint8_t static_spec_valid = 0;
    uint32_t static_spec_len = 0;
    uint8_t static_spec[MPS_SPEC_PART_MAX] = {};
    uint8_t subscription_valid = 0;
    uint32_t subscription = 0;
    uint8_t spec_field6_valid = 0;
    uint32_t spec_field6 = 0;
};

struct mps_logic_part_request {
    uint8_t part_number = 0;  // low byte
    uint32_t bytes_len = 0;
    uint8_t bytes[MPS_SPEC_PART_MAX] = {};
    uint8_t kind_valid = 0;
    uint32_t kind = 0;  // mps_spec_kind
};

struct mps_stop_flush_request {
    uint8_t flag_valid = 0;
    uint8_t flag = 0;  // always 1
};

struct mps_data_request {
    uint32_t zero = 0;  // always 0
    uint32_t sequence = 0;
};

struct mps_buffer_full_indication {
    uint32_t type = 0;
};

struct mps_send_complete_indication {
    uint32_t first = 0;
    uint32_t second = 0;
    uint8_t third_valid = 0;
    uint32_t third = 0;
};

// The service's description, for version `major`.`minor` by library version `library`; null for any
// but 1, 1, 6. Static data. Any thread.
const kbr_service_object* vexa_get_service_object_internal_v01(uint32_t major, uint32_t minor,
                                                               uint32_t library);
