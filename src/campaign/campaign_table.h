// The live campaigns, one a module, with what is known of the phone, and who may ask for them.
#pragma once

#include "base/owned_bytes.h"
#include "base/sync.h"
#include "campaign/campaign_rules.h"

struct campaign_shared {
    vexa_mutex lock{};  // taken before any lock of the modem collector's events, never after
    campaign_state state GUARDED_BY(lock){};
};

// Lives as long as the process, so that a collector may ask at any time.
extern campaign_shared g_campaign;

// Forgets all campaigns and what is known of the phone. Any thread; takes the lock.
void campaign_table_clear();

// Takes the campaigns that were decoded into *fresh over into the live table: a campaign that its
// module has already stays as it is, another one takes its place. Stored files of campaigns that
// went are deleted. Module 6 is started at once when it may run. Any thread; takes the lock.
void updateCampaignTableAndAct(const campaign_table& fresh);

// The logic of a module's campaign, read from its stored file, into *logic (the caller's), and the
// low 32 bits of its id into *campaign_id. Without a campaign, or when its file cannot be read, the
// logic is empty; logged. Any thread; takes the campaign lock.
void campaign_mgr_get_campaign(uint32_t module, owned_bytes* logic, uint32_t* campaign_id);

// Copies what is known of the phone's subscription and network. Returns false, logged, for null.
// Any thread; takes the campaign lock.
bool campaign_mgr_get_ph_info(phone_state* out);
