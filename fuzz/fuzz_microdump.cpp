// What the microdump collector reads: its configuration, its clock file, and dumps in chunks whose
// lengths come from the dump itself.
#include <algorithm>
#include <cstring>

#include "collectors/microdump/crash_record.h"
#include "collectors/microdump/microdump_config.h"
#include "collectors/microdump/timeout_file.h"
#include "fuzz_target.h"

namespace {

void take_dump(std::string_view dump) {
    crash_record record;
    crash_record_begin(&record, "now");
    while (!dump.empty() && record.room_len() > 0) {
        const size_t wanted = 1 + static_cast<uint8_t>(dump[0]) * size_t{29};
        const size_t len = std::min({wanted, dump.size(), record.room_len()});
        const size_t before = record.len;
        memcpy(record.room(), dump.data(), len);
        crash_record_add_chunk(&record, len);
        const std::string_view text(record.text + before, record.len - before);
        check(!text.empty() && text.size() <= len && text.back() == '\n' &&
              text.find('\0') == text.npos && record.len <= CRASH_RECORD_SIZE);
        dump.remove_prefix(len);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text = text_of(data, size);
    take_dump(text);
    microdump_config config;
    (void)microdump_config_parse(text, &config);
    uint64_t start_ms = 0;
    (void)timeout_file_parse(text, &start_ms);
    return 0;
}
