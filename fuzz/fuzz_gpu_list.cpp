// The lists of the GPU's power levels; the first byte says how many levels there are.
#include <vector>

#include "collectors/gpu/gpu_sample.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string line(text_of(data + 1, size - 1));
    std::vector<gpu_level> levels(data[0]);
    const bool parsed =
        parse_gpu_list(line.c_str(), &gpu_level::frequency_Hz, levels.data(), levels.size());
    // So many words take at least a character each and one between them.
    check(!parsed || levels.empty() || line.size() >= 2 * levels.size() - 1);

    std::vector<uint8_t> bytes(gpu_sample_len(true, data[0]));
    gpu_sample_put(bytes.data(),
                   {.time_stamp = 1u << 31, .levels = levels.data(), .level_count = data[0]});
    return 0;
}
