// Delivered campaign files: a head and a map of campaigns.
#pragma once

#include <cstddef>
#include <cstdint>

#include "campaign/campaign_desc.h"
#include "campaign/campaign_map.h"
#include "framework/stop.h"

// The first two bytes of a delivered campaign file; the third is ignored.
inline constexpr uint8_t CAMPAIGN_FILE_HEAD[3] = {0xCD, 0xF1};

// Finds the map of campaigns in the `length` bytes of a delivered campaign file: what follows the
// head. Returns false, logged under the name `caller`, when the head is not the right one. Any
// thread.
bool campaign_file_map(const char* caller, const uint8_t* file, size_t length, const uint8_t** map,
                       size_t* map_length);

// Decodes a map of campaigns into *table, and with `write` stores them. Of the campaigns of one
// module the last one goes into the table, and it alone is written: what is on the disk afterwards
// is the same as if each had been stored, and deleted as the next one came. Returns whether all of
// it could be decoded; failures are logged. Entries up to the failed one stay in the table. Null
// arguments are refused.
//
// `stop`, where there is one, is looked at before each campaign. It ends the decoding with false
// and no message; what is in the table by then need not be on the disk. Thread: the table's owner.
bool campaignDecode(const uint8_t* buffer, size_t length, campaign_table* table, bool write = true,
                    const stop_flag* stop = nullptr);
