// Files that grow no further than so many bytes, as on a full disk: writes fail behind that.
#pragma once

#include <signal.h>
#include <sys/resource.h>

#include <algorithm>

class size_limit {
  public:
    explicit size_limit(rlim_t bytes) { set(bytes); }
    ~size_limit() { set(RLIM_INFINITY); }
    size_limit(const size_limit&) = delete;
    size_limit& operator=(const size_limit&) = delete;

    static void set(rlim_t bytes) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = std::min(bytes, limit.rlim_max);
        setrlimit(RLIMIT_FSIZE, &limit);
    }
};
