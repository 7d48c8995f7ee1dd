// Campaigns for tests, written by libprotobuf.
#pragma once

#include <string>

#include "campaign.pb.h"

inline vexa::CampaignDescriptionEntry campaign_message(uint32_t module, uint64_t id,
                                                       uint64_t expiry_s = 1900000000) {
    vexa::CampaignDescriptionEntry entry;
    entry.set_campaignid(id);
    entry.set_moduleid(module);
    entry.mutable_expiry()->set_exptype(2);
    entry.mutable_expiry()->set_expvalue(expiry_s);
    return entry;
}

inline vexa::CampaignEnablementLogic* enablement_of(vexa::CampaignDescriptionEntry* entry) {
    return entry->mutable_enablementandlogic()->mutable_enablement();
}

inline void add_network(vexa::CampaignDescriptionEntry* entry, uint32_t mcc, int mncs) {
    auto* network = enablement_of(entry)->add_mccmncenablement();
    network->set_mcc(mcc);
    for (int i = 0; i < mncs; i++) network->add_mnc(static_cast<uint32_t>(i));
}

inline void set_logic(vexa::CampaignDescriptionEntry* entry, const std::string& logic) {
    entry->mutable_enablementandlogic()->mutable_logic()->set_logic(logic);
}
