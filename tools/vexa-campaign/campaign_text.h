// Campaign files as text and back. The text is protobuf's text format of a CampaignDescriptionMap
// (proto/campaign.proto) with one field more: where `logic` stands, a campaign of module 6 can have
// `mps { ... }`, an MpsCampaignDescription whose bytes are the logic.
// All functions throw std::runtime_error with what is wrong and where.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "campaign.pb.h"

// The campaigns of a file, each as its own bytes: cdf.dat has a head and a map of them, a .camp
// file (by its name) is one. Throws when they cannot be found in it.
std::vector<std::string> campaign_file_split(const std::string& path);

vexa::CampaignDescriptionMap campaign_parse(const std::vector<std::string>& entries);

vexa::CampaignDescriptionMap campaign_from_text(const std::string& text);
std::string campaign_to_text(const vexa::CampaignDescriptionMap& map);

// The bytes of a cdf.dat.
std::string campaign_file_bytes(const vexa::CampaignDescriptionMap& map);

// Throws when it cannot be read or is larger than 1 MiB.
std::string campaign_read_file(const std::string& path);
