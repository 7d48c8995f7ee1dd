#include "framework/time/local_time.h"

#include "base/sync.h"

namespace {

vexa_mutex g_zone_lock;  // the C library's zone, which tzset() may replace

}  // namespace

bool vexastats_local_time(time_t when, tm* local) {
    *local = {};
    const vexa_lock lock(g_zone_lock);
    tzset();  // localtime_r alone does not see here that the zone was changed
    return localtime_r(&when, local) != nullptr;
}
