// Upload files, and payloads of the known records without the gzip stream that hides them from a
// fuzzer.
#include <cstddef>
#include <cstdint>

#include "record_formats.h"

namespace {

constexpr size_t MAX_PAYLOAD = size_t{1} << 20;

// The only way out other than a result is an upload_error.
template <class Read>
void show(Read read) {
    try {
        const upload_file file = read();
        (void)upload_json("file", file);
        (void)upload_report("file", file, {.max_rows = 100});
    } catch (const upload_error&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    show([&] { return upload_parse({data, size}, MAX_PAYLOAD); });
    constexpr upload_header KNOWN[] = {{.client_id = 2, .data_type = 1, .rec_version = 6},
                                       {.client_id = 501, .data_type = 1, .rec_version = 1}};
    for (const upload_header& header : KNOWN) {
        show([&] { return upload_file{.header = header, .payload = {data, data + size}}; });
    }
    return 0;
}
