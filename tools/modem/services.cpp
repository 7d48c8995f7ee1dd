#include "modem/diag_stream.h"
#include "modem/ims.h"
#include "modem/modem.h"
#include "modem/pdc.h"
#include "modem/statistics.h"

std::span<const modem_service_maker> modem_services() {
    static constexpr modem_service_maker SERVICES[] = {
        make_diag_stream,
        make_ims_service,
        make_pdc_service,
        make_statistics_service,
    };
    return SERVICES;
}
