#define LOG_TAG "vexastatsd"

#include "collectors/mps/mps_service_thread.h"

#include "collectors/mps/mps_kbr.h"
#include "framework/time/stop.h"
#include "mps_events/mps_events.h"
#include "platform/log.h"

void mps_kbr_event_cb(uint32_t event) {
    mps_set_event(event);
}

void* kbr_handler(void* arg) {
    const auto& stop = *static_cast<const stop_flag*>(arg);
    modem_result result = mps_kbr_init(stop);
    if (result != modem_result::OK) {
        ALOGE("%s: failed to init kbr. err:%d", __func__, modem_result_number(result));
        return nullptr;
    }
    mps_kbr_register_cb(mps_kbr_event_cb);
    if (stop_flag_is_raised(stop)) return nullptr;
    mps_service_revision revision;
    result = mps_kbr_get_service_rev(&revision.major, &revision.minor);
    if (result != modem_result::OK) {
        ALOGE("%s: failed to get revision. err:%d", __func__, modem_result_number(result));
        return nullptr;
    }
    mps_set_event(MPS_EVENT_KBR_READY);
    return nullptr;
}
