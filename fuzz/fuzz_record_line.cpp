// The first line of a record.
#include <cstdio>

#include "framework/record/record_file.h"
#include "fuzz_target.h"

// What the daemon writes it must read again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(text_of(data, size));
    record_times times, again;
    if (!record_line_parse(line.c_str(), &times)) return 0;
    const record_header header = {.rec_version = static_cast<uint32_t>(times.version),
                                  .realtime_ms = times.realtime_ms,
                                  .uptime_ms = times.uptime_ms,
                                  .timezone_min = times.timezone_min};
    char written[RECORD_LINE_SIZE];
    check(record_line_format(header, written) < sizeof written);
    check(record_line_parse(written, &again));
    check(again.version == times.version && again.realtime_ms == times.realtime_ms &&
          again.uptime_ms == times.uptime_ms && again.timezone_min == times.timezone_min);
    return 0;
}
