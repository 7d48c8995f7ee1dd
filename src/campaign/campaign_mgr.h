// The campaign manager: which campaign each collector module has, and when it may run.
//
// Its thread takes campaign files from the download agent, keeps them in CAMPAIGN_DIR, listens to
// what another process of the phone says of roaming and networks, and switches the campaigns. For
// the modem statistics collector it raises events (mps_events/mps_events.h).
#pragma once

#include <cstdint>

#include "base/owned_bytes.h"
#include "campaign/campaign_rules.h"

// The thread's body: runs until SIGUSR1 comes, which must be blocked in every thread of the
// process. Takes nothing and returns null. Logged throughout.
void* campaign_mgr_main(void* arg);

// The logic of a module's campaign, read from its stored file, into *logic (the caller's), and the
// low 32 bits of its id into *campaign_id. Without a campaign, or when its file cannot be read, the
// logic is empty; logged. Any thread; takes the campaign lock.
void campaign_mgr_get_campaign(uint32_t module, owned_bytes* logic, uint32_t* campaign_id);

// Copies what is known of the phone's subscription and network. Returns false, logged, for null.
// Any thread; takes the campaign lock.
bool campaign_mgr_get_ph_info(phone_state* out);
