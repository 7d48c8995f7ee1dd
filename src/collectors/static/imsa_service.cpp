#include "collectors/static/imsa_service.h"

#include <array>

namespace {

// The optional fields of a message are counted from here.
constexpr uint8_t FIRST_OPTIONAL = 0x10;

// `count` optional values of a message, one behind the other in its structure from `offset` on.
template <class Value, size_t count>
constexpr std::array<kbr_field, count> optional_values(size_t offset) {
    std::array<kbr_field, count> fields{};
    for (size_t i = 0; i < count; ++i) {
        const size_t at = offset + i * sizeof(Value);
        fields[i] =
            kbr_scalar(static_cast<uint8_t>(FIRST_OPTIONAL + i), at + offsetof(Value, value),
                       sizeof(Value::value), at + offsetof(Value, valid));
    }
    return fields;
}

// The same behind the result that a response begins with.
template <class Value, size_t count>
constexpr std::array<kbr_field, count + 1> result_and_values() {
    std::array<kbr_field, count + 1> fields{kbr_result(0x02, 0)};
    const auto values = optional_values<Value, count>(sizeof(modem_answer));
    for (size_t i = 0; i < count; ++i) fields[i + 1] = values[i];
    return fields;
}

constexpr auto STATUS_RESPONSE = result_and_values<imsa_value, 10>();
constexpr auto ACTIVE_SUBSCRIPTIONS = result_and_values<imsa_flag, 4>();
constexpr auto RESULT = result_and_values<imsa_value, 0>();
constexpr auto REGISTER = optional_values<imsa_flag, 15>(0);
constexpr auto BIND = optional_values<imsa_value, 1>(0);
constexpr auto STATUS = optional_values<imsa_value, IMSA_STATUS_COUNT>(0);
constexpr kbr_field REGISTRATION[] = {
    kbr_scalar(0x01, offsetof(imsa_registration_indication, registered), 1),
};

constexpr kbr_message REQUESTS[] = {
    {IMSA_GET_SERVICE_STATUS, 0, {}},
    {IMSA_REGISTER_INDICATIONS, sizeof(imsa_register_request), REGISTER},
    {IMSA_BIND_SUBSCRIPTION, sizeof(imsa_bind_request), BIND},
    {IMSA_GET_ACTIVE_SUBSCRIPTIONS, 0, {}},
};

constexpr kbr_message RESPONSES[] = {
    {IMSA_GET_SERVICE_STATUS, sizeof(imsa_status_response), STATUS_RESPONSE},
    {IMSA_REGISTER_INDICATIONS, sizeof(modem_answer), RESULT},
    {IMSA_BIND_SUBSCRIPTION, sizeof(modem_answer), RESULT},
    {IMSA_GET_ACTIVE_SUBSCRIPTIONS, sizeof(imsa_active_subscriptions_response),
     ACTIVE_SUBSCRIPTIONS},
};

constexpr kbr_message INDICATIONS[] = {
    {IMSA_REGISTRATION_STATUS_IND, sizeof(imsa_registration_indication), REGISTRATION},
    {IMSA_SERVICE_STATUS_IND, sizeof(imsa_status_indication), STATUS},
    {IMSA_BIND_SUBSCRIPTION_STATUS_IND, sizeof(imsa_bind_indication), BIND},
};

constexpr kbr_service_object SERVICE = {
    .name = "imsa",
    .idl_version = 1,
    .idl_minor_version = 36,
    .library_version = 6,
    .max_message_len = 77,  // a service status response with all its fields
    .requests = REQUESTS,
    .responses = RESPONSES,
    .indications = INDICATIONS,
};

}  // namespace

const kbr_service_object* imsa_get_service_object_internal_v01(uint32_t major, uint32_t minor,
                                                               uint32_t library) {
    return modem_client_service(SERVICE, major, minor, library);
}
