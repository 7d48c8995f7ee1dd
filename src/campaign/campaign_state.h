// What the parts of the campaign manager share: the live campaigns, and what may be done to them.
#pragma once

#include "campaign/campaign_rules.h"
#include "framework/stop.h"
#include "framework/sync.h"

struct campaign_shared {
    vexa_mutex lock{};  // taken before any lock of the modem collector's events, never after
    campaign_state state GUARDED_BY(lock){};
};

// Lives as long as the process, so that a collector may ask at any time.
extern campaign_shared g_campaign;

// Switches campaigns by what the clock and the phone's state are now. Any thread; takes the lock.
void campaign_check();

// How long the manager may sleep until its next check, in milliseconds; negative: without limit.
// It is what the last change of the table computed, and stays that. Once an expiry was met, though,
// which makes it ten seconds for good, the checks that cannot change anything are passed over: in
// the rhythm of the ten seconds, the next one comes when a campaign's hour or expiry has come, and
// none without a campaign. Thread: the manager's; takes the lock.
int64_t campaign_take_timeout_ms();

// Takes the campaigns that were decoded into *fresh over into the live table: a campaign that its
// module has already stays as it is, another one takes its place. Stored files of campaigns that
// went are deleted. Module 6 is started at once when it may run. Any thread; takes the lock.
void updateCampaignTableAndAct(const campaign_table& fresh);

// Decodes every stored campaign and takes them over. Thread: the manager's.
void campaign_mgr_load_campaigns_from_storage();

// Decodes the campaign file that `fd` has open and takes over what could be decoded, also when not
// all of it could. `path` is for the log. Returns false when `stop` came first: nothing is taken
// over then, and the file must stay for the next start. Thread: the manager's.
bool campaign_mgr_decode_and_notify(int fd, const char* path, const stop_flag& stop);
