// Campaign descriptions: decoding one, and the files in which accepted ones are kept.
// docs/formats.md describes the bytes for those who write them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/owned_bytes.h"

inline constexpr uint32_t CAMPAIGN_MODULES = 7;
inline constexpr uint32_t CAMPAIGN_NETWORKS_MAX = 10;  // records of a network list
inline constexpr uint32_t CAMPAIGN_MNCS_MAX = 100;     // network codes of one record
inline constexpr size_t CAMPAIGN_LOGIC_MAX_BYTES = 32768;
inline constexpr uint32_t CAMPAIGN_EXPIRY_IS_UTC = 2;  // the one kind of expiry that is accepted
inline constexpr char CAMPAIGN_DIR[] = "/data/vendor/vexastats/101";

// Bits of enablementType.
inline constexpr uint32_t CAMPAIGN_TIME_BASED = 1u << 0;
inline constexpr uint32_t CAMPAIGN_MCC_MNC_BASED = 1u << 1;

struct MccMncEnablementRecord {
    uint32_t mcc = 0;
    uint32_t mncCount = 0;  // 0: every network of that country
    uint32_t mnc[CAMPAIGN_MNCS_MAX] = {};
};

struct CampaignEntry {
    uint64_t campaignId = 0;
    uint64_t expiryValue = 0;     // wall clock, seconds since 1970
    uint32_t enablementType = 0;  // CAMPAIGN_TIME_BASED, CAMPAIGN_MCC_MNC_BASED
    uint32_t timeSlices = 0;      // bits 0 to 23: local hours; 24 to 30: Sunday to Saturday
    uint32_t mccMncCount = 0;
    // CAMPAIGN_NETWORKS_MAX of them, or null.
    std::unique_ptr<MccMncEnablementRecord[]> mccMncList{};
    uint8_t running = 0;
};

// Frees an entry with its network list; null is none.
void freeCampaignEntry(CampaignEntry* entry);

struct campaign_closer {
    void operator()(CampaignEntry* entry) const { freeCampaignEntry(entry); }
};
using unique_campaign = std::unique_ptr<CampaignEntry, campaign_closer>;

// The campaign of each module; null where it has none.
using campaign_table = std::array<unique_campaign, CAMPAIGN_MODULES>;

// Whether a slot holds a campaign: of an id only the low 32 bits count, deliberate.
inline bool campaign_is_there(const unique_campaign& slot) {
    return slot && static_cast<uint32_t>(slot->campaignId) != 0;
}

// A zeroed entry or network list (of CAMPAIGN_NETWORKS_MAX records); null without memory, not
// logged.
unique_campaign campaign_entry_new();
std::unique_ptr<MccMncEnablementRecord[]> campaign_network_list_new();

// A buffer that the path of any stored campaign file fits.
using campaign_path = std::array<char, 80>;

// The path of a campaign's stored file. Id and expiry stand in it as signed 32-bit numbers, so that
// different campaigns can have the same file: deliberate.
campaign_path campaign_file_name(uint32_t module, uint64_t campaign_id, uint64_t expiry_value);
inline campaign_path campaign_file_name(uint32_t module, const CampaignEntry& entry) {
    return campaign_file_name(module, entry.campaignId, entry.expiryValue);
}

// What becomes of the bytes of a campaign that was decoded.
struct campaign_keeper {
    // Keeps them as the file `path`. Called once the campaign has its module's slot. Returns false,
    // logged, to refuse the campaign. Null: no file is kept.
    bool (*keep)(void* arg, uint32_t module, const campaign_path& path, const uint8_t* bytes,
                 size_t length) = nullptr;
    void* arg = nullptr;
};

// What is wrong with a campaign that is not accepted.
enum class campaign_refusal : uint8_t {
    NONE,
    DAMAGED,  // no such message
    TOO_MANY_NETWORKS,
    TOO_MANY_MNCS,
    LOGIC_TOO_BIG,
    WRONG_MODULE,
    EXPIRY_NOT_UTC,
    NO_MEMORY,
    NOT_KEPT,  // by the keeper
};

// Decodes one campaign as campaign_desciption_entry_decode_from_buffer does, leaves its file to the
// keeper and says why it is refused. Arguments are not null. Thread: the table's owner.
campaign_refusal campaign_decode_entry(const uint8_t* buffer, size_t length, campaign_table* table,
                                       const campaign_keeper& keeper);

// Writes a campaign's bytes as its file, which appears whole or not at all. Returns false on
// failure. Logged. Thread: the manager's.
bool campaign_store(const campaign_path& path, const uint8_t* bytes, size_t length);

// Decodes one campaign into its module's slot of *table, and with `write` stores its `length` bytes
// as its file in CAMPAIGN_DIR, which appears whole or not at all. A campaign that was in the slot
// goes, with its file unless the new one's has the same name. Returns false, logged, on any
// failure. An expiry that is no UTC time is refused only after the file was written and the slot
// taken by an entry that has nothing but its id: deliberate. Thread: the table's owner.
bool campaign_desciption_entry_decode_from_buffer(const uint8_t* buffer, size_t length,
                                                  campaign_table* table, bool write);

// Decodes one campaign again, for its logic, into *out; what *out held before is released. No
// logic: no bytes, null. Returns false, logged and *out empty, on any failure. Any thread.
bool get_campaign_logic_from_campaign_description(const uint8_t* buffer, size_t length,
                                                  owned_bytes* out);
