// Local time, in the phone's zone as it is set now. Any thread.
#pragma once

#include <ctime>

// A moment, in seconds since 1970. Returns false, with *local all zero, when it cannot be had. Not
// logged.
bool vexastats_local_time(time_t when, tm* local);
