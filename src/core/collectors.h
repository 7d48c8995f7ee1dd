// The table of collectors.
#pragma once

#include <cstdint>

#include "framework/row/collector_info.h"

// Writable, and alive as long as the process. One thread runs per row, in this order.
extern collector_info g_collectors[];
extern const int32_t g_collector_count;
