#include "framework/format/record_line.h"

#include <stdio.h>

bool record_line_parse(const char* line, record_times* times) {
    return sscanf(line, "%*[^=]=%d%*[^=]=%lu%*[^=]=%lu%*[^=]=%hd", &times->version,
                  &times->realtime_ms, &times->uptime_ms, &times->timezone_min) == 4;
}

size_t record_line_format(const record_header& header, char (&line)[RECORD_LINE_SIZE]) {
    return static_cast<size_t>(snprintf(
        line, sizeof line, "Version=%d Realtime=%lu Uptime=%lu Timezone=%d\n",
        static_cast<int>(header.rec_version), static_cast<unsigned long>(header.realtime_ms),
        static_cast<unsigned long>(header.uptime_ms), header.timezone_min));
}
