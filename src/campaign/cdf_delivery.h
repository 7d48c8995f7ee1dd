// The delivered campaign file: its directory watched, the file decoded and taken away.
// All functions: the manager's thread.
#pragma once

#include "base/unique_handle.h"
#include "framework/time/stop.h"
#include "framework/time/watch.h"

// Where the download agent delivers it.
inline constexpr char CDF_DIR[] = "/data/vendor/vexa/down/101";

struct cdf_watch {
    unique_fd notifier{};
    watch_way way{};        // to the download directory
    int dir = -1;           // watch descriptor of the download directory
    bool complete = false;  // false: there is something that cannot be watched yet
};

// What a batch of events asks for.
enum class cdf_news {
    NONE,
    PROCESS,     // the file is new or was written
    WATCH_OVER,  // it went, or the watch is of no use any more: begin afresh
};

// Decodes what a run that was killed had taken away and not decoded. To be called once, with the
// stored campaigns loaded.
void cdf_finish_interrupted(const stop_flag& stop);

// Watches the download directory and, where there is one, the campaign file, which is then decoded
// right away and stays. Whatever of it is missing or cannot be watched is logged and leaves
// watch->complete false; the directories above report then when it may have come. Returns false,
// logged, when nothing can be watched at all.
bool cdf_watch_begin(cdf_watch* watch, const stop_flag& stop);

// Reads what the notifier has. Logged.
cdf_news cdf_read_events(cdf_watch* watch, const stop_flag& stop);

// Lets the writer get through, decodes the file and deletes it. One that was written or put in its
// place meanwhile is decoded as well. After a stop in between it is left for the next start.
// Logged.
void cdf_process(const stop_flag& stop);
