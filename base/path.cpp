#include "base/path.h"

#include <stdio.h>

namespace {

bool join(char* out, size_t size, const char* first, const char* between, const char* last) {
    const int len = snprintf(out, size, "%s%s%s", first, between, last);
    if (len >= 0 && static_cast<size_t>(len) < size) return true;
    if (size > 0) out[0] = '\0';
    return false;
}

}  // namespace

bool path_join(char* out, size_t size, const char* directory, const char* name) {
    return join(out, size, directory, "/", name);
}

bool path_extend(char* out, size_t size, const char* path, const char* suffix) {
    return join(out, size, path, "", suffix);
}
