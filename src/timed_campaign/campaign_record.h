// The record of a timed campaign: its begin, its hand-over, and what the owner's consent means for
// it. All functions: the row's own thread, unless said otherwise. Failures are logged.
#pragma once

#include "timed_campaign/timed_campaign.h"

// Whether what is captured now may be kept. Cheap: what the row's monitor knows. Any thread.
inline bool campaign_is_opted_in(const collector_info& row) {
    return row.enabled != 0;
}

// Whether the record may be written and handed over now: the row is opted in, and its dropbox is
// there, which the monitor may not have noticed to be gone.
bool campaign_has_consent(const timed_campaign& campaign);

// Begins a record for the next campaign; what the last one left behind is discarded, unless it
// could not be handed over: then that is tried again, and it is gone on with when it fails. Returns
// false when there is none.
bool campaign_open_record(timed_campaign* campaign);

// Appends to the record. Returns the bytes appended, as vexastats_write_file.
size_t campaign_append(timed_campaign* campaign, const void* data, size_t len);

// Takes the record up again after a hand-over that failed for want of consent. Returns false when
// there is none.
bool campaign_resume_record(timed_campaign* campaign);

// After a write that failed although the owner consents, which ends the collector: opens the record
// again, so that its last write and its hand-over are tried, and keeps the next begin, also after a
// kill, from discarding it.
void campaign_recover_record(timed_campaign* campaign);

// Hands the record over at a campaign's end. One that cannot be handed over is not discarded by the
// next begin.
void campaign_hand_over_record(timed_campaign* campaign);

// Closes and deletes the record: what was captured when its owner has withdrawn the consent.
void campaign_discard_record(timed_campaign* campaign);
