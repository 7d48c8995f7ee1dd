// Names of files in the download directory, and the line of the updater's status file. The first
// line is the key asked for.
#include <cstring>

#include "collectors/mccbandlist/mccbandlist_dload.h"
#include "collectors/mccbandlist/mccbandlist_status.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text = text_of(data, size);
    const size_t key_len = text.find('\n');
    if (key_len == text.npos) return 0;
    const std::string_view name = text.substr(key_len + 1);

    mccbandlist_request request;
    if (key_len < sizeof request.key) {
        memcpy(request.key, data, key_len);
        request.key[key_len] = '\0';
    }
    const std::string_view key = request.key;
    const mccbandlist_file kind = mccbandlist_classify(name, request);
    if (kind == mccbandlist_file::LIST && !name.starts_with(key)) abort();
    if (kind == mccbandlist_file::STATUS && !name.starts_with("51-1.0-")) abort();
    if (mccbandlist_status_number(name) < 0) abort();
    uint64_t key_ts = 0;
    (void)mccbandlist_scan_key_ts(name, &key_ts);
    mccbandlist_status status;
    (void)mccbandlist_parse_status(name, &status);
    return 0;
}
