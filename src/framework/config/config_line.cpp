#include "framework/config/config_line.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <climits>

#include "base/text_file.h"

bool config_read_value_line(FILE* stream, char* line, size_t size) {
    for (off_t read = 0; read < SMALL_FILE_MAX && fgets(line, static_cast<int>(size), stream);) {
        if (line[0] != '#' && line[0] != '\n') return true;
        // A line with a zero byte in it may be longer than it looks.
        const size_t len = strlen(line);
        read += static_cast<off_t>(line[len - 1] == '\n' ? len : size);
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
