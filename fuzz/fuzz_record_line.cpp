// The first line of a record.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/record/record_file.h"

namespace {

void check(bool holds) {
    if (!holds) abort();
}

// What the daemon writes it must read again.
void check_written_line(const record_times& times) {
    char line[RECORD_LINE_SIZE];
    snprintf(line, sizeof line, "Version=%d Realtime=%lu Uptime=%lu Timezone=%d\n", times.version,
             static_cast<unsigned long>(times.realtime_ms),
             static_cast<unsigned long>(times.uptime_ms), times.timezone_min);
    record_times again;
    check(record_line_parse(line, &again));
    check(again.version == times.version && again.realtime_ms == times.realtime_ms &&
          again.uptime_ms == times.uptime_ms && again.timezone_min == times.timezone_min);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    record_times times;
    if (record_line_parse(line.c_str(), &times)) check_written_line(times);
    return 0;
}
