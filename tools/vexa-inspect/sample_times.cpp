#include "sample_times.h"

#include <fmt/format.h>

std::string skipped_note(size_t skipped_bytes) {
    if (skipped_bytes == 0) return "";
    return fmt::format(
        "  The first {} bytes are no whole sample: the record was begun before the clock was "
        "set.\n\n",
        skipped_bytes);
}

std::string samples_line(size_t all, size_t shown) {
    return fmt::format("  samples   {}{}\n\n", all,
                       shown < all ? fmt::format(", {} of them shown", shown) : "");
}
