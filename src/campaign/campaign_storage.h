// The directory in which accepted campaigns are kept (CAMPAIGN_DIR), as a start finds it.
// All functions: the manager's thread.
#pragma once

// Makes the directory where there is none. A failure is logged.
void campaign_storage_make_dir();

// Decodes every stored campaign and takes them over. Logged.
void campaign_mgr_load_campaigns_from_storage();
