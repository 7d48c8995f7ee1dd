// The list of possible cores (the first line) and lines of "/proc/stat" (the others).
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "collectors/cpu/cpu_times.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    int32_t cpu_count = 0;
    std::vector<cpu_times> slots;
    while (!rest.empty()) {
        const size_t newline = rest.find('\n');
        const std::string line(rest.substr(0, newline));
        rest.remove_prefix(newline == rest.npos ? rest.size() : newline + 1);
        if (slots.empty()) {
            cpu_count = parse_cpu_possible(line);
            if (cpu_count > MAX_CPU_COUNT || cpu_count == 0) abort();
            if (cpu_count < 0) return 0;
            slots.resize(static_cast<size_t>(cpu_count));
        } else {
            (void)parse_cpu_line(line, slots.data(), cpu_count);
        }
    }
    return 0;
}
