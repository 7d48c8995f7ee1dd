// In driven time directories are listed by name, so that a run is the same on every file system.
// The linker leads the C library's calls here (CMakeLists.txt).
#include <dirent.h>
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <vector>

#include "host/driven.h"

namespace {

struct sorted_listing {
    std::vector<dirent> entries;
    size_t next = 0;
};

// A directory belongs to the thread that opened it.
thread_local std::map<DIR*, sorted_listing> g_listings;

}  // namespace

extern "C" {

dirent* __real_readdir(DIR* dir);
int __real_closedir(DIR* dir);
void __real_rewinddir(DIR* dir);

[[gnu::weak]] dirent* __wrap_readdir(DIR* dir) {
    if (!driven_is_on()) return __real_readdir(dir);
    const auto [found, is_new] = g_listings.try_emplace(dir);
    sorted_listing& listing = found->second;
    if (is_new) {
        while (const dirent* entry = __real_readdir(dir)) {
            // Only so much of it is there.
            memcpy(&listing.entries.emplace_back(), entry,
                   std::min<size_t>(entry->d_reclen, sizeof *entry));
        }
        std::sort(listing.entries.begin(), listing.entries.end(),
                  [](const dirent& a, const dirent& b) { return strcmp(a.d_name, b.d_name) < 0; });
    }
    if (listing.next == listing.entries.size()) return nullptr;
    return &listing.entries[listing.next++];
}

[[gnu::weak]] void __wrap_rewinddir(DIR* dir) {
    if (driven_is_on()) g_listings.erase(dir);
    __real_rewinddir(dir);
}

[[gnu::weak]] int __wrap_closedir(DIR* dir) {
    if (driven_is_on()) g_listings.erase(dir);
    return __real_closedir(dir);
}
}
