// Upload files, and payloads of every known record without the gzip stream that hides them from a
// fuzzer.
#include "fuzz_target.h"
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
    for (const record_format& format : record_format_list()) {
        show([&] {
            upload_file file;
            file.header.client_id = format.client_id;
            file.header.data_type = format.data_type;
            file.header.rec_version = format.rec_version;
            file.payload.assign(data, data + size);
            return file;
        });
    }
    return 0;
}
