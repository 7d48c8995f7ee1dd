// The value line of a collector's configuration file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "framework/config/config_line.h"

namespace {

void check(bool holds) {
    if (!holds) abort();
}

// What the daemon writes it must read again.
void check_written_line(const config_values& values) {
    char line[256];
    snprintf(line, sizeof line,
             "clientid=%lld;size=%d;interval=%d;threshold=%d;notify=%d;no_supported_kernel=%d\n",
             static_cast<long long>(values.client_id), values.size, values.interval,
             values.threshold, values.notify, values.no_supported_kernel);
    config_values again;
    check(config_parse_line(line, &again) == CONFIG_LOCAL_VALUES);
    check(again.client_id == values.client_id && again.size == values.size &&
          again.interval == values.interval && again.threshold == values.threshold &&
          again.notify == values.notify && again.no_supported_kernel == values.no_supported_kernel);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    config_values values;
    const int count = config_parse_line(line.c_str(), &values);
    check(count >= 0 && count <= CONFIG_LOCAL_VALUES);
    if (count < CONFIG_LOCAL_VALUES) check(values.no_supported_kernel == 0);
    check_written_line(values);
    return 0;
}
