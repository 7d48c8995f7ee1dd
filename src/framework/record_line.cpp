#include "framework/record_line.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "framework/clock.h"

bool record_line_parse(const char* line, record_times* times) {
    return sscanf(line, "%*[^=]=%d%*[^=]=%lu%*[^=]=%lu%*[^=]=%hd", &times->version,
                  &times->realtime_ms, &times->uptime_ms, &times->timezone_min) == 4;
}

unique_file record_open(const char* path, const char* mode) {
    unique_file stream(fopen(path, mode));
    // Without a buffer of its own the stream holds nothing back that a failed write could leave
    // behind.
    if (stream) (void)setvbuf(stream.get(), nullptr, _IONBF, 0);
    return stream;
}

bool record_read_line(FILE* stream, char (&line)[RECORD_LINE_SIZE]) {
    const ssize_t count = pread(fileno(stream), line, sizeof line - 1, 0);
    if (count <= 0) return false;
    line[count] = '\0';
    if (char* newline = strchr(line, '\n')) newline[1] = '\0';
    return true;
}

void record_set_times_now(collector_info* row) {
    row->hdr.realtime_ms = vexastats_real_time_ms();
    row->hdr.uptime_ms = vexastats_uptime_ms();
    row->hdr.timezone_min = vexastats_timezone_min();
}

bool record_line_write(FILE* stream, const collector_info* row) {
    char line[RECORD_LINE_SIZE];
    const int len = snprintf(line, sizeof line, "Version=%d Realtime=%lu Uptime=%lu Timezone=%d\n",
                             static_cast<int>(row->hdr.rec_version),
                             static_cast<unsigned long>(row->hdr.realtime_ms),
                             static_cast<unsigned long>(row->hdr.uptime_ms), row->hdr.timezone_min);
    return fwrite(line, 1, static_cast<size_t>(len), stream) == static_cast<size_t>(len);
}
