// The list of possible cores (the first line) and lines of "/proc/stat" (the others).
#include <vector>

#include "collectors/cpu/cpu_times.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest = text_of(data, size);
    int32_t cpu_count = 0;
    std::vector<cpu_times> slots;
    while (!rest.empty()) {
        const std::string line = take_line(&rest);
        if (slots.empty()) {
            cpu_count = parse_cpu_possible(line);
            check(cpu_count <= MAX_CPU_COUNT && cpu_count != 0);
            if (cpu_count < 0) return 0;
            slots.resize(static_cast<size_t>(cpu_count));
        } else {
            (void)parse_cpu_line(line, slots.data(), cpu_count);
        }
    }
    return 0;
}
