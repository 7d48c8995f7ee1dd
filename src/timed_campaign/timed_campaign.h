// A collector's campaign for a set time (timed_campaign/campaign_file.h): taking it from its
// configuration files, writing it back, waiting until there is one, and the collector's outer loop.
// Its record's business is in timed_campaign/campaign_record.h. All functions: the row's own
// thread.
#pragma once

#include <cstdio>

#include "framework/config/config_update.h"
#include "framework/record/record.h"
#include "framework/row/collector_info.h"
#include "timed_campaign/campaign_file.h"

// How one collector's campaigns are called in the log.
struct campaign_texts {
    const char* tag = nullptr;             // of all messages
    const char* request_caller = nullptr;  // function named when the request for a file fails
    const char* title = nullptr;           // "<title> Mask"
    const char* state_prefix = "";         // in front of "active campaign" and the search for one
    const char* wait_prefix = "";          // in front of "Waiting on"
    bool logs_update_wait = false;         // the name of the function that waits for an update
    config_update_texts update{};
};

struct campaign_kind {
    const char* key = nullptr;          // in the file's keys, "num_<key>_masks", and in messages
    const char* config_file = nullptr;  // name of the downloaded file
    const char* record_dir = nullptr;
    const char* record_file = nullptr;
    campaign_texts texts{};
};

// Lives in its collector. The row's `state` points to it while the row's hooks may be called.
struct timed_campaign {
    const campaign_kind* kind = nullptr;
    collector_info* row = nullptr;
    campaign_state state{};  // the running campaign, or none
    record_handle record{};
    file_mark seen{};  // the downloaded file when it was last loaded

    bool runs() const { return state.id != NO_CAMPAIGN; }
    bool stopped() const { return stop_flag_is_raised(row->stop); }
};

// The campaign that a hook of the row is about.
inline timed_campaign* campaign_of(const collector_info& row) {
    return static_cast<timed_campaign*>(row.state);
}

enum class campaign_change {
    REFUSED,         // no valid file for this row, logged; nothing has changed
    ALREADY_ACTIVE,  // the file's campaign runs already; nothing has changed
    NO_MEMORY,       // for the masks; there are none then
    GOES_ON,         // the masks and the record's size are the file's, the campaign another
    STARTED,
};

// Takes size and masks from a configuration file, and its campaign when the file says that it is to
// start. A null stream is REFUSED without a message.
campaign_change campaign_read_config(FILE* stream, timed_campaign* campaign);

// Replaces the row's local file by one with the campaign as it stands. Returns 0, or -EINVAL,
// logged.
int campaign_write_config(const timed_campaign& campaign);

// The body of the collector's thread. Asks the download agent for a configuration file, once there
// is a directory for it, and waits for the owner's consent; without the request's success it waits
// for a file first: deliberate. Then runs cycles, with a wait for the next file behind each, until
// the row's `stop` is raised, which it is at the end in any case. Nothing is read after a stop. The
// row's `state` is the campaign meanwhile.
void campaign_run(timed_campaign* campaign, void (*run_cycle)(void* owner), void* owner);

// Loads the parameters until there is a campaign whose stop time has not passed, waiting for
// configuration updates in between. Returns 0, the loader's error, or -EINTR once the row's `stop`
// is raised.
int campaign_wait_active(timed_campaign* campaign);

// Ends the campaign in memory. The local file still names it, so the next load brings its number
// back, with a stop time that has passed.
void campaign_end(campaign_state* state);
