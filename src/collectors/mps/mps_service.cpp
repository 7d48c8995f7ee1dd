#include "collectors/mps/mps_service.h"

namespace {

// Where a field's value and, when it is optional, its flag lie in the message's structure.
#define VALUE(structure, member) offsetof(structure, member), sizeof(structure::member)
#define BYTES(structure, member) offsetof(structure, member##_len), sizeof(structure::member)
#define FLAG(structure, member) offsetof(structure, member##_valid)

// The library finds the bytes of an array right behind its length.
static_assert(offsetof(mps_start_prepare_request, static_spec) ==
              offsetof(mps_start_prepare_request, static_spec_len) + 4);
static_assert(offsetof(mps_logic_part_request, bytes) ==
              offsetof(mps_logic_part_request, bytes_len) + 4);
static_assert(sizeof(mps_response) == 16 && sizeof(mps_revision_response) == 16);
static_assert(sizeof(mps_send_complete_indication) == 16);

using prepare = mps_start_prepare_request;
using part = mps_logic_part_request;
using stop = mps_stop_flush_request;
using data = mps_data_request;
using buffer_full = mps_buffer_full_indication;
using complete = mps_send_complete_indication;
using revision = mps_revision_response;
using standard = mps_response;

constexpr kbr_field START_PREPARE[] = {
    kbr_scalar(0x01, VALUE(prepare, parts)),
    kbr_scalar(0x10, VALUE(prepare, constant), FLAG(prepare, constant)),
    kbr_scalar(0x11, VALUE(prepare, power_budget_meas_intr), FLAG(prepare, power_budget_meas_intr)),
    kbr_scalar(0x12, VALUE(prepare, power_budget_max_ap_wakeup),
               FLAG(prepare, power_budget_max_ap_wakeup)),
    kbr_scalar(0x13, VALUE(prepare, unused), FLAG(prepare, unused)),
    kbr_bytes(0x14, BYTES(prepare, static_spec), FLAG(prepare, static_spec)),
    kbr_scalar(0x15, VALUE(prepare, subscription), FLAG(prepare, subscription)),
    kbr_scalar(0x16, VALUE(prepare, spec_field6), FLAG(prepare, spec_field6)),
};

constexpr kbr_field LOGIC_PART[] = {
    kbr_scalar(0x01, VALUE(part, part_number)),
    kbr_bytes(0x02, BYTES(part, bytes)),
    kbr_scalar(0x10, VALUE(part, kind), FLAG(part, kind)),
};

constexpr kbr_field STOP_FLUSH[] = {
    kbr_scalar(0x10, VALUE(stop, flag), FLAG(stop, flag)),
};

constexpr kbr_field DATA_REQUEST[] = {
    kbr_scalar(0x01, VALUE(data, zero)),
    kbr_scalar(0x02, VALUE(data, sequence)),
};

constexpr kbr_field BUFFER_FULL[] = {
    kbr_scalar(0x01, VALUE(buffer_full, type)),
};

constexpr kbr_field SEND_COMPLETE[] = {
    kbr_scalar(0x01, VALUE(complete, first)),
    kbr_scalar(0x02, VALUE(complete, second)),
    kbr_scalar(0x10, VALUE(complete, third), FLAG(complete, third)),
};

constexpr kbr_field REVISION[] = {
    kbr_result(0x02, offsetof(revision, answer)),
    kbr_scalar(0x10, VALUE(revision, major), FLAG(revision, major)),
    kbr_scalar(0x11, VALUE(revision, minor), FLAG(revision, minor)),
};

constexpr kbr_field STANDARD_RESPONSE[] = {
    kbr_result(0x02, offsetof(standard, answer)),
    kbr_scalar(0x10, VALUE(standard, value), FLAG(standard, value)),
};

constexpr kbr_message REQUESTS[] = {
    {MPS_GET_SERVICE_REVISION, 0, {}},
    {MPS_COLLECTION_START_PREPARE, sizeof(mps_start_prepare_request), START_PREPARE},
    {MPS_COLLECTION_LOGIC_PART, sizeof(mps_logic_part_request), LOGIC_PART},
    {MPS_COLLECTION_START, 0, {}},
    {MPS_STOP_FLUSH, sizeof(mps_stop_flush_request), STOP_FLUSH},
    {MPS_DATA_REQUEST, sizeof(mps_data_request), DATA_REQUEST},
    {MPS_LLL_STOP, 0, {}},
    {MPS_LLL_START, 0, {}},
};

constexpr kbr_message RESPONSES[] = {
    {MPS_GET_SERVICE_REVISION, sizeof(mps_revision_response), REVISION},
    {MPS_COLLECTION_START_PREPARE, sizeof(mps_response), STANDARD_RESPONSE},
    {MPS_COLLECTION_LOGIC_PART, sizeof(mps_response), STANDARD_RESPONSE},
    {MPS_COLLECTION_START, sizeof(mps_response), STANDARD_RESPONSE},
    {MPS_STOP_FLUSH, sizeof(mps_response), STANDARD_RESPONSE},
    {MPS_DATA_REQUEST, sizeof(mps_response), STANDARD_RESPONSE},
    {MPS_LLL_STOP, sizeof(mps_response), STANDARD_RESPONSE},
    {MPS_LLL_START, sizeof(mps_response), STANDARD_RESPONSE},
};

constexpr kbr_message INDICATIONS[] = {
    {MPS_BUFFER_FULL_IND, sizeof(mps_buffer_full_indication), BUFFER_FULL},
    {MPS_SEND_COMPLETE_IND, sizeof(mps_send_complete_indication), SEND_COMPLETE},
};

constexpr kbr_service_object SERVICE = {
    .name = "vexa",
    .service_id = 75,
    .idl_version = 1,
    .idl_minor_version = 1,
    .library_version = 6,
    .max_message_len = 839,
    .requests = REQUESTS,
    .responses = RESPONSES,
    .indications = INDICATIONS,
};

}  // namespace

const kbr_service_object* vexa_get_service_object_internal_v01(uint32_t major, uint32_t minor,
                                                               uint32_t library) {
    return modem_client_service(SERVICE, major, minor, library);
}
