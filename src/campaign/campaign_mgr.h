// The campaign manager: which campaign each collector module has, and when it may run.
//
// Its thread takes campaign files from the download agent, keeps them in CAMPAIGN_DIR, listens to
// what another process of the phone says of roaming and networks, and switches the campaigns. For
// the modem statistics collector it raises events (mps_events/mps_events.h).
#pragma once

// The thread's body: runs until SIGUSR1 comes, which must be blocked in every thread of the
// process. Takes nothing and returns null. Logged throughout.
void* campaign_mgr_main(void* arg);
