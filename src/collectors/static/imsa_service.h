// The modem's IMS application service: its messages, as C structures and as the service object by
// which the messaging library turns them into bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "modem_client/modem_client.h"
#include "platform/kbr.h"

enum imsa_message_id : uint16_t {
    IMSA_GET_SERVICE_STATUS = 0x21,
    IMSA_REGISTER_INDICATIONS = 0x22,
    IMSA_REGISTRATION_STATUS_IND = 0x23,
    IMSA_SERVICE_STATUS_IND = 0x24,
    IMSA_BIND_SUBSCRIPTION = 0x33,
    IMSA_BIND_SUBSCRIPTION_STATUS_IND = 0x35,
    IMSA_GET_ACTIVE_SUBSCRIPTIONS = 0x36,
};

// How many values the service status has.
inline constexpr size_t IMSA_STATUS_COUNT = 6;

struct imsa_value {
    uint8_t valid = 0;
    uint32_t value = 0;
};
static_assert(sizeof(imsa_value) == 8 && offsetof(imsa_value, value) == 4);

struct imsa_status_response {
    modem_answer answer{};
    imsa_value status[IMSA_STATUS_COUNT];
    imsa_value unused[4];  // described by the service, read by nobody
};
static_assert(sizeof(imsa_status_response) == 88);
static_assert(offsetof(imsa_status_response, status) + offsetof(imsa_value, value) == 12);

struct imsa_status_indication {
    imsa_value status[IMSA_STATUS_COUNT];
};
static_assert(sizeof(imsa_status_indication) == 48);

struct imsa_flag {
    uint8_t valid = 0;
    uint8_t value = 0;
};

// Which indications are wanted: a flag for each kind.
struct imsa_register_request {
    imsa_flag wanted[15];
};
static_assert(sizeof(imsa_register_request) == 30);

struct imsa_bind_request {
    imsa_value subscription{};
};
static_assert(sizeof(imsa_bind_request) == 8);

struct imsa_active_subscriptions_response {
    modem_answer answer{};
    imsa_flag active[4];  // by subscription; the last is read by nobody
};
static_assert(sizeof(imsa_active_subscriptions_response) == 16);
static_assert(offsetof(imsa_active_subscriptions_response, active) + offsetof(imsa_flag, value) ==
              9);

struct imsa_registration_indication {
    uint8_t registered = 0;
};

struct imsa_bind_indication {
    imsa_value subscription{};
};
static_assert(sizeof(imsa_bind_indication) == 8);

// The service's description, for version `major`.`minor` by library version `library`; null for any
// but 1, 36, 6. Static data. Any thread.
const kbr_service_object* imsa_get_service_object_internal_v01(uint32_t major, uint32_t minor,
                                                               uint32_t library);
