#include "framework/config_line.h"

#include <stdio.h>

#include <algorithm>
#include <climits>

bool config_read_value_line(FILE* stream, char (&line)[CONFIG_LINE_SIZE]) {
    while (fgets(line, sizeof line, stream)) {
        if (line[0] != '#' && line[0] != '\n') return true;
    }
    return false;
}

int config_parse_line(const char* line, config_values* values) {
    // Wide enough that the scan itself saturates instead of wrapping round.
    long long client_id = 0, size = 0, interval = 0, threshold = 0, notify = 0, no_kernel = 0;
    const int count = sscanf(line,
                             "clientid=%lld;size=%lld;interval=%lld;threshold=%lld;notify=%lld;"
                             "no_supported_kernel=%lld",
                             &client_id, &size, &interval, &threshold, &notify, &no_kernel);
    const auto narrow = [](long long value) {
        return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
    };
    *values = {
        .client_id = client_id,
        .size = narrow(size),
        .interval = narrow(interval),
        .threshold = narrow(threshold),
        .notify = narrow(notify),
        .no_supported_kernel = narrow(no_kernel),
    };
    return std::max(count, 0);
}
