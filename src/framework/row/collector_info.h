// One collector: a row of the table in core/collectors.cpp. The row is at once the collector's
// configuration, its run-time control block, the header of the file it is writing, and its hooks.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "base/sync.h"
#include "framework/format/upload_header.h"
#include "framework/time/interruptible.h"
#include "framework/time/stop.h"

struct collector_info;

using collector_thread_func = int (*)(collector_info* row);
using collector_cfg_read_handler = void (*)(FILE* stream,
                                            collector_info* row);       // stream may be null
using collector_cfg_update_handler = int (*)(collector_info* row);      // 0: written
using collector_consent_handler = void (*)(const collector_info& row);  // must not wait
using collector_sig_handler = void (*)(int signo);                      // must be async-signal-safe

// Threads: `enabled` and `terminate` are written under `mutex` and may be read without it; `stop`
// and `running` go from 0 to 1 once. Everything from `rec_fname` and `size` on belongs to the row's
// own thread; a library's thread that appends too shares a lock with it.
struct collector_info {
    const char* name = nullptr;
    const char* up_dir = nullptr;       // dropbox directory; its existence is the owner's consent
    const char* down_dir = nullptr;     // where downloaded files arrive
    const char* cfg_file = nullptr;     // local configuration; null: none
    const char* dl_cfg_file = nullptr;  // downloaded configuration; null: none
    char rec_fname[256] = "";           // path of the open record; empty: none
    std::atomic<uint8_t> enabled{0};    // opted in
    std::atomic<uint8_t> terminate{0};  // leave the opt-in wait
    stop_flag stop{};                   // the thread must end
    std::atomic<uint8_t> running{0};    // the thread was created
    interruptible library_calls{};      // those of the thread that have no descriptor to wait on
    int32_t size = 65536;               // upper bound of one upload file, bytes
    uint64_t max_upload_wait_time = 0;  // ms
    int32_t notify = 0;
    int32_t interval = 0;
    int32_t interval_max = 0;
    int32_t interval_min = 0;
    int32_t threshold = 0;
    int32_t threshold_max = 0;
    int32_t threshold_min = 0;
    int32_t no_supported_kernel = 0;
    int32_t compress_ratio = 200;  // compressed bytes per 1000 bytes of record, estimated
    pthread_t thread{};
    vexa_mutex mutex{};
    vexa_cond cond{};
    record_header hdr{};
    collector_thread_func thread_func = nullptr;
    collector_cfg_read_handler cfg_read_handler = nullptr;
    collector_cfg_update_handler cfg_update_handler = nullptr;
    collector_sig_handler sig_handler = nullptr;
    void* state = nullptr;  // the thread's own, for the hooks that it calls through the row
    // For a thread that waits elsewhere than for consent: called after each change of `enabled` and
    // `terminate`, with `mutex` held. Thread: the opt-out monitor's.
    collector_consent_handler consent_handler = nullptr;
};
