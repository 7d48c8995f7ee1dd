#include "campaign_explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "campaign/campaign_rules.h"
#include "campaign_words.h"

namespace {

constexpr time_t DAY_S = 86400;
constexpr time_t STEP_S = 900;  // in every time zone hours begin at a quarter of an hour
constexpr time_t LAST_SHOWN_S = 253402300799;  // the end of the year 9999

// One campaign of the file, alone in a phone.
struct candidate {
    uint32_t module = 0;
    campaign_state phone;  // in one of the campaign's networks, if there is such a phone
    campaign_refusal refusal = campaign_refusal::NONE;

    const CampaignEntry& entry() const { return *phone.table[module]; }
};

struct period {
    time_t begin = 0;
    time_t end = 0;
};

candidate decode(const std::string& bytes) {
    candidate found;
    found.refusal = campaign_decode_entry(reinterpret_cast<const uint8_t*>(bytes.data()),
                                          bytes.size(), &found.phone.table, {});
    for (uint32_t module = 0; module < CAMPAIGN_MODULES; module++) {
        if (found.phone.table[module]) found.module = module;
    }
    return found;
}

bool is_in_network(const candidate& c) {
    return campaign_judge_networks(c.entry(), c.phone.phone) == campaign_reason::MAY_RUN;
}

// Puts the phone into the first of the campaign's networks that the rules accept.
bool enter_a_network(candidate* c) {
    c->phone.phone.default_sub = 1;
    const CampaignEntry& entry = c->entry();
    for (uint32_t i = 0; i < entry.mccMncCount; i++) {
        const MccMncEnablementRecord& record = entry.mccMncList[i];
        for (uint32_t j = 0; j < std::max(record.mncCount, 1u); j++) {
            c->phone.phone.mcc = static_cast<uint16_t>(record.mcc);
            c->phone.phone.mnc = static_cast<uint16_t>(record.mnc[j]);
            if (is_in_network(*c)) return true;
        }
    }
    return is_in_network(*c);
}

std::vector<period> periods_of(const candidate& c, const explain_options& options) {
    std::vector<period> periods;
    const time_t end = options.from + options.days * DAY_S;
    for (time_t at = options.from; at < end;) {
        time_t next = std::min(end, (at / STEP_S + 1) * STEP_S);
        if (campaign_judge(c.phone, c.module, at).may_run()) {
            const uint64_t expiry_s = c.entry().expiryValue;
            if (static_cast<uint64_t>(next) > expiry_s) next = static_cast<time_t>(expiry_s);
            if (periods.empty() || periods.back().end != at) periods.push_back({at, at});
            periods.back().end = next;
        }
        at = next;
    }
    return periods;
}

std::string expiry_in_words(uint64_t expiry_s) {
    if (expiry_s > LAST_SHOWN_S) return "never";
    return local_time_in_words(static_cast<time_t>(expiry_s));
}

std::vector<std::string> warnings_of(const candidate& c, bool in_a_network,
                                     const explain_options& options) {
    const CampaignEntry& entry = c.entry();
    std::vector<std::string> warnings;
    if (!campaign_is_there(c.phone.table[c.module])) {
        warnings.emplace_back("never runs: the low 32 bits of its id are 0");
    }
    if (c.module == 0) warnings.emplace_back("never runs: module 0 is not switched on");
    if (campaign_is_expired(entry, options.from))
        warnings.emplace_back("never runs: it has expired");
    if (time_slices_in_words(entry) == "never") {
        warnings.emplace_back("never runs: it needs an hour and a week day, and one is missing");
    }
    if (!in_a_network) warnings.emplace_back("never runs: no phone is in one of its networks");
    return warnings;
}

std::string explain_accepted(candidate* c, const explain_options& options) {
    const bool in_a_network = enter_a_network(c);
    const CampaignEntry& entry = c->entry();
    std::string text;
    const auto out = std::back_inserter(text);
    fmt::format_to(out, "  when    {}\n", time_slices_in_words(entry));
    fmt::format_to(out, "  where   {}\n", networks_in_words(entry));
    if ((entry.enablementType & CAMPAIGN_MCC_MNC_BASED) != 0 && entry.mccMncCount > 1) {
        fmt::format_to(out, "  note    the phone keeps only the first of these networks\n");
    }
    fmt::format_to(out, "  expires {}\n", expiry_in_words(entry.expiryValue));
    const auto warnings = warnings_of(*c, in_a_network, options);
    for (const auto& warning : warnings) fmt::format_to(out, "  warning: {}\n", warning);
    if (!warnings.empty()) return text;
    const auto periods = periods_of(*c, options);
    if (periods.empty()) fmt::format_to(out, "  not in these {} days\n", options.days);
    for (const auto& [begin, end] : periods) {
        fmt::format_to(out, "    {} - {}\n", local_time_in_words(begin), local_time_in_words(end));
    }
    return text;
}

}  // namespace

std::string campaign_explain(const std::vector<std::string>& entries,
                             const explain_options& options) {
    std::string text = fmt::format("{} days from {} (local time {})\n", options.days,
                                   local_time_in_words(options.from), tzname[0]);
    const auto out = std::back_inserter(text);
    std::vector<candidate> candidates;
    std::map<uint32_t, size_t> last_of_module;
    for (const auto& bytes : entries) {
        candidates.push_back(decode(bytes));
        const candidate& c = candidates.back();
        // One that is refused can have taken its module's place before.
        if (c.phone.table[c.module]) last_of_module[c.module] = candidates.size();
        if (c.refusal != campaign_refusal::NONE) break;
    }
    for (size_t i = 0; i < candidates.size(); i++) {
        candidate& c = candidates[i];
        if (c.refusal != campaign_refusal::NONE) {
            fmt::format_to(out, "\nCampaign {} of the file\n  warning: never runs, refused: {}\n",
                           i + 1, refusal_in_words(c.refusal));
            const size_t lost = entries.size() - candidates.size();
            if (lost > 0) fmt::format_to(out, "  warning: and with it the {} behind it\n", lost);
            continue;
        }
        fmt::format_to(out, "\nCampaign {} of the file: id {} for module {}\n", i + 1,
                       c.entry().campaignId, c.module);
        if (const size_t last = last_of_module[c.module]; last != i + 1) {
            fmt::format_to(out, "  warning: never runs: campaign {} is for the same module\n",
                           last);
            continue;
        }
        text += explain_accepted(&c, options);
    }
    return text +
           "\nNever while roaming; module 6, and what depends on networks, not without a "
           "subscription.\nThe phone does not look at its rules all the time: starts and ends can "
           "come late.\n";
}
