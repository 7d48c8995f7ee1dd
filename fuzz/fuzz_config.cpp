// The value line of a collector's configuration file.
#include <cstdio>

#include "framework/config/config_line.h"
#include "fuzz_target.h"

namespace {

std::string written(const config_values& values) {
    char line[256];
    snprintf(line, sizeof line,
             "clientid=%lld;size=%d;interval=%d;threshold=%d;notify=%d;no_supported_kernel=%d\n",
             static_cast<long long>(values.client_id), values.size, values.interval,
             values.threshold, values.notify, values.no_supported_kernel);
    return line;
}

}  // namespace

// What the daemon writes it must read again.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    config_values values, again;
    const int count = config_parse_line(std::string(text_of(data, size)).c_str(), &values);
    check(count >= 0 && count <= CONFIG_LOCAL_VALUES);
    check(count == CONFIG_LOCAL_VALUES || values.no_supported_kernel == 0);
    const std::string line = written(values);
    check(config_parse_line(line.c_str(), &again) == CONFIG_LOCAL_VALUES);
    check(written(again) == line);
    return 0;
}
