#include "collectors/mccbandlist/pdc_service.h"

namespace {

// Where a field's value and, when it is optional, its flag lie in the message's structure.
#define VALUE(structure, member) offsetof(structure, member), sizeof(structure::member)
#define FLAG(structure, member) offsetof(structure, member##_valid)
#define ID(structure, member) offsetof(structure, member), sizeof(structure::member.bytes)

// The library finds the bytes of an array right behind its length.
static_assert(offsetof(pdc_config_id, bytes) == 4 && offsetof(pdc_listed_id, bytes) == 4);
static_assert(offsetof(pdc_load_config_request, frame) ==
              offsetof(pdc_load_config_request, frame_len) + 4);
static_assert(offsetof(pdc_get_config_info_indication, config_header) ==
              offsetof(pdc_get_config_info_indication, config_header_len) + 4);
static_assert(offsetof(pdc_list_configs_indication, configs) ==
              offsetof(pdc_list_configs_indication, configs_len) + 4);

using get_info = pdc_get_config_info_request;
using load = pdc_load_config_request;
using info_ind = pdc_get_config_info_indication;
using load_ind = pdc_load_config_indication;
using list_ind = pdc_list_configs_indication;
using selected_ind = pdc_selected_config_indication;

constexpr kbr_field GET_CONFIG_INFO[] = {
    kbr_scalar(0x01, VALUE(get_info, token), FLAG(get_info, token)),
    kbr_scalar(0x02, VALUE(get_info, config_type)),
    kbr_bytes(0x03, ID(get_info, id)),
};

constexpr kbr_field LOAD_CONFIG[] = {
    kbr_scalar(0x01, VALUE(load, token), FLAG(load, token)),
    kbr_scalar(0x02, VALUE(load, config_type)),
    kbr_bytes(0x03, ID(load, id)),
    kbr_scalar(0x04, VALUE(load, total_size)),
    kbr_bytes(0x05, offsetof(load, frame_len), sizeof(load::frame)),
};

constexpr kbr_field RESPONSE[] = {
    kbr_result(0x02, offsetof(modem_answer, result)),
};

constexpr kbr_field CONFIG_INFO_IND[] = {
    kbr_scalar(0x01, VALUE(info_ind, token), FLAG(info_ind, token)),
    kbr_bytes(0x10, offsetof(info_ind, config_header_len), sizeof(info_ind::config_header),
              FLAG(info_ind, config_header)),
};

constexpr kbr_field LOAD_CONFIG_IND[] = {
    kbr_scalar(0x01, VALUE(load_ind, token), FLAG(load_ind, token)),
    kbr_scalar(0x10, VALUE(load_ind, error), FLAG(load_ind, error)),
    kbr_scalar(0x11, VALUE(load_ind, received_size), FLAG(load_ind, received_size)),
    kbr_scalar(0x12, VALUE(load_ind, remaining_size), FLAG(load_ind, remaining_size)),
    kbr_scalar(0x13, VALUE(load_ind, frame_reset), FLAG(load_ind, frame_reset)),
};

constexpr kbr_field LISTED_ID[] = {
    kbr_bytes(0, offsetof(pdc_listed_id, len), sizeof(pdc_listed_id::bytes)),
};

constexpr kbr_field LIST_CONFIGS_IND[] = {
    kbr_scalar(0x10, VALUE(list_ind, error), FLAG(list_ind, error)),
    {.type = 0x11,
     .kind = KBR_ARRAY,
     .offset = offsetof(list_ind, configs_len),
     .size = sizeof(pdc_listed_id),
     .max = PDC_LISTED_MAX,
     .flag_offset = FLAG(list_ind, configs),
     .members = LISTED_ID},
};

constexpr kbr_field SELECTED_CONFIG_IND[] = {
    kbr_scalar(0x10, VALUE(selected_ind, error), FLAG(selected_ind, error)),
    kbr_bytes(0x11, ID(selected_ind, active_id), FLAG(selected_ind, active_id)),
    kbr_bytes(0x12, ID(selected_ind, pending_id), FLAG(selected_ind, pending_id)),
};

constexpr kbr_message REQUESTS[] = {
    {PDC_LOAD_CONFIG, sizeof(pdc_load_config_request), LOAD_CONFIG},
    {PDC_GET_CONFIG_INFO, sizeof(pdc_get_config_info_request), GET_CONFIG_INFO},
};

constexpr kbr_message RESPONSES[] = {
    {PDC_LOAD_CONFIG, sizeof(modem_answer), RESPONSE},
    {PDC_GET_CONFIG_INFO, sizeof(modem_answer), RESPONSE},
};

constexpr kbr_message INDICATIONS[] = {
    {PDC_GET_SELECTED_CONFIG_IND, sizeof(pdc_selected_config_indication), SELECTED_CONFIG_IND},
    {PDC_LIST_CONFIGS_IND, sizeof(pdc_list_configs_indication), LIST_CONFIGS_IND},
    {PDC_LOAD_CONFIG, sizeof(pdc_load_config_indication), LOAD_CONFIG_IND},
    {PDC_GET_CONFIG_INFO, sizeof(pdc_get_config_info_indication), CONFIG_INFO_IND},
};

constexpr kbr_service_object SERVICE = {
    .name = "pdc",
    .service_id = 76,
    .idl_version = 1,
    .idl_minor_version = 15,
    .library_version = 6,
    .max_message_len = 8138,  // a full list of the longest ids
    .requests = REQUESTS,
    .responses = RESPONSES,
    .indications = INDICATIONS,
};

}  // namespace

const kbr_service_object* pdc_get_service_object_internal_v01(uint32_t major, uint32_t minor,
                                                              uint32_t library) {
    return modem_client_service(SERVICE, major, minor, library);
}
