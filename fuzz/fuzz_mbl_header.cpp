// The header of a band list from any bytes, and the rule which of two is newer.
#include <cstring>

#include "collectors/mccbandlist/mccbandlist_header.h"
#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    mccbandlist_header first;
    mccbandlist_header second;
    const bool is_read = mccbandlist_read_header(data, size, &first) == 0;
    if (is_read != (size >= MCCBANDLIST_HEADER_SIZE)) abort();
    if (!is_read) return 0;
    if (strnlen(first.owner_n, sizeof first.owner_n) > MCCBANDLIST_OWNER_SIZE) abort();
    if (mccbandlist_is_new_ver(first, first)) abort();
    const size_t at = size / 2;
    if (mccbandlist_read_header(data + at, size - at, &second) != 0) return 0;
    if (mccbandlist_is_new_ver(first, second) && mccbandlist_is_new_ver(second, first)) abort();
    return 0;
}
