#include "framework/record/record_path.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include "base/path.h"

namespace {

bool path_exists(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0;
}

bool name_dropped(const collector_info& row, record_names* names) {
    const char* base = strrchr(names->finished, '/');
    if (!base) return false;
    return path_join(names->dropped, row.up_dir, base + 1);
}

}  // namespace

bool record_path_end_in(record_path& path, const char* suffix) {
    char* dot = strrchr(path, '.');
    if (!dot) return false;
    const size_t room = sizeof path - static_cast<size_t>(dot - path);
    if (strlen(suffix) >= room) return false;
    memcpy(dot, suffix, strlen(suffix) + 1);
    return true;
}

bool record_names_find(const collector_info& row, const char* path, uint64_t* ms,
                       record_names* names) {
    const size_t len = strlen(path);
    if (len >= sizeof names->finished) return false;
    memcpy(names->finished, path, len + 1);
    for (;; ++*ms) {
        char suffix[32];
        snprintf(suffix, sizeof suffix, ".%lu", static_cast<unsigned long>(*ms));
        if (!record_path_end_in(names->finished, suffix) || !name_dropped(row, names)) return false;
        const bool own = strcmp(names->finished, path) == 0;
        if ((own || !path_exists(names->finished)) && !path_exists(names->dropped)) return true;
    }
}
