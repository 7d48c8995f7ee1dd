// What the numbers of a campaign mean, in words.
#pragma once

#include <ctime>
#include <string>

#include "campaign/campaign_desc.h"

// "Monday to Friday, 08:00 to 12:00, 22:00 to 24:00"
std::string time_slices_in_words(const CampaignEntry& entry);

// "310-5, 310-7, all of 262"
std::string networks_in_words(const CampaignEntry& entry);

// "Mon 2026-11-23 08:00" in the local time zone
std::string local_time_in_words(time_t time);

// "Too big campaign size"
std::string refusal_in_words(campaign_refusal refusal);
