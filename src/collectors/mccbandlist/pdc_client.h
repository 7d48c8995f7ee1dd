// The client of pdc_kbr.h from the inside: what the calls and the indications share.
#pragma once

#include <cstdint>

#include "base/sync.h"
#include "collectors/mccbandlist/pdc_indications.h"
#include "collectors/mccbandlist/pdc_kbr.h"

inline constexpr uint32_t PDC_IDL_MAJOR = 1;
inline constexpr uint32_t PDC_IDL_MINOR = 15;
inline constexpr uint32_t PDC_LIBRARY_VERSION = 6;

// What becomes of a call.
enum pdc_result : int32_t {
    PDC_OK = 0,
    PDC_FAILED = -1,
    PDC_BUSY = -2,
    PDC_FRAME_RESET = -3,
    PDC_INVALID_ID = -4,
    PDC_NO_MEMORY = -5,
    PDC_NONE = -6,
};

// One kind of call: at most one is in progress.
struct pdc_operation {
    int wake_fd = -1;  // eventfd, readable when a waiting caller has its indication
    bool busy = false;
    bool waiting = false;  // the caller sleeps on wake_fd
    bool done = false;     // the indication has come
    int32_t result = 0;
    uint32_t token = 0;                 // of the call in progress
    pdc_config_info* record = nullptr;  // the caller's, during the call
};

struct pdc_client {
    vexa_mutex mutex{};
    uint32_t last_token GUARDED_BY(mutex) = 0;  // never reset
    pdc_operation load GUARDED_BY(mutex){};
    pdc_operation info GUARDED_BY(mutex){};
    uint32_t remaining_size GUARDED_BY(mutex) = 0;  // last reported by the modem
    uint32_t received_size GUARDED_BY(mutex) = 0;
    pdc_unasked unasked GUARDED_BY(mutex){};
};

extern pdc_client g_pdc;  // pdc_kbr.cpp

// The service's description, of the version that the daemon is made for; null: there is none.
inline const kbr_service_object* pdc_service() {
    return pdc_get_service_object_internal_v01(PDC_IDL_MAJOR, PDC_IDL_MINOR, PDC_LIBRARY_VERSION);
}
