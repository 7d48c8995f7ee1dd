// What the collectors of timed campaigns (timed_campaign/timed_campaign.h) have in common: their
// outer loop, taking a campaign from its configuration files, writing it back, waiting until there
// is one, and what the owner's consent means for its record. All functions: the row's own thread.
#pragma once

#include <cstdio>

#include "framework/config/config_update.h"
#include "framework/record/record.h"
#include "framework/row/collector_info.h"
#include "timed_campaign/timed_campaign.h"

// What one collector's campaigns are called, in the file and in the log, and where its record is.
struct campaign_kind {
    const char* tag = nullptr;             // of all messages
    const char* request_caller = nullptr;  // function named when the request for a file fails
    const char* config_file = nullptr;     // name of the downloaded file
    const char* record_dir = nullptr;
    const char* record_file = nullptr;
    const char* key = nullptr;           // in the file's keys: "num_<key>_masks"
    const char* title = nullptr;         // in messages: "<title> Mask"
    const char* loader = nullptr;        // "<loader> init_params failed"
    const char* state_prefix = nullptr;  // in front of "active campaign" and the search for one
    const char* wait_prefix = nullptr;   // in front of "Waiting on"
    config_update_texts update{};
    bool logs_update_wait = false;  // the name of the function that waits for an update
};

enum class campaign_change {
    REFUSED,         // no valid file for this row, logged; nothing has changed
    ALREADY_ACTIVE,  // the file's campaign runs already; nothing has changed
    NO_MEMORY,       // for the masks; there are none then
    GOES_ON,         // the masks and the record's size are the file's, the campaign another
    STARTED,
};

// Takes size and masks from a configuration file, and its campaign when the file says that it is to
// start. A null stream is REFUSED without a message.
campaign_change campaign_read_config(FILE* stream, collector_info* row, const campaign_kind& kind,
                                     timed_campaign* campaign);

// Replaces the row's local file by one with the campaign as it stands. Returns 0, or -EINVAL,
// logged.
int campaign_write_config(const collector_info& row, const campaign_kind& kind,
                          const timed_campaign& campaign);

// The body of the collector's thread. Asks the download agent for a configuration file, once there
// is a directory for it, and waits for the owner's consent; without the request's success it waits
// for a file first: deliberate. Then runs cycles, with a wait for the next file behind each, until
// the row's `stop` is raised, which it is at the end in any case. Nothing is read after a stop.
void campaign_run(collector_info* row, const campaign_kind& kind, timed_campaign* campaign,
                  void (*run_cycle)(void* owner), void* owner);

// Whether what is captured now may be kept. Cheap: what the row's monitor knows.
inline bool campaign_is_opted_in(const collector_info& row) {
    return row.enabled != 0;
}

// Whether the record may be written and handed over now: the row is opted in, and its dropbox is
// there, which the monitor may not have noticed to be gone.
bool campaign_has_consent(const collector_info& row);

// Begins a record for the next campaign; what the last one left behind is discarded, unless it
// could not be handed over: then that is tried again, and it is gone on with when it fails. Returns
// false, logged, when there is none.
bool campaign_open_record(collector_info* row, const campaign_kind& kind, record_handle* handle);

// Takes the record up again after a hand-over that failed for want of consent. Returns false,
// logged, when there is none.
bool campaign_resume_record(collector_info* row, const campaign_kind& kind, record_handle* handle);

// After a write that failed although the owner consents, which ends the collector: opens the record
// again, so that its last write and its hand-over are tried, and keeps the next begin, also after a
// kill, from discarding it. Failures are logged.
void campaign_recover_record(collector_info* row, const campaign_kind& kind, record_handle* handle);

// Hands the record over at a campaign's end. One that cannot be handed over is not discarded by the
// next begin. Failures are logged.
void campaign_hand_over_record(collector_info* row, const campaign_kind& kind,
                               record_handle* handle);

// Closes and deletes the record: what was captured when its owner has withdrawn the consent.
void campaign_discard_record(collector_info* row, const campaign_kind& kind, record_handle* handle);

// Ends the campaign in memory. The local file still names it, so the next load brings its number
// back, with a stop time that has passed.
void campaign_end(timed_campaign* campaign);

// Forgets the campaign; its duration stays.
void campaign_reset(timed_campaign* campaign);

// Loads the parameters until there is a campaign whose stop time has not passed, waiting for
// configuration updates in between. Returns 0, the loader's error, or -EINTR once the row's `stop`
// is raised.
int campaign_wait_active(collector_info* row, const campaign_kind& kind, timed_campaign* campaign);

// Waits for the downloaded configuration file to come or change since it was last loaded, until the
// row's `stop` is raised or a failure, which is logged.
void campaign_wait_update(collector_info* row, const campaign_kind& kind,
                          const timed_campaign& campaign);
