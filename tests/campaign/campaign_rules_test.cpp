// The rules, the switch and the activity timer as dialogues: local hours and days in several zones
// and at both clock changes, networks, and the timer's formulas, the odd ones included.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

#include "campaign/campaign_activity.h"
#include "campaign/campaign_switch.h"
#include "support/dialogue.h"
#include "support/log.h"

namespace {

using words = std::vector<std::string>;

constexpr const char* DAYS[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat"};
constexpr const char* REASONS[] = {"no such module",  "no subscription", "no campaign", "expired",
                                   "roaming",         "wrong clock",     "wrong hour",  "wrong day",
                                   "unknown network", "other network",   "may run"};
constexpr const char* ACTIVITIES[] = {"nothing", "its end", "its start", "its stop"};

struct campaign_world {
    campaign_state state{.phone = {.default_sub = 1}};
    time_t now = 0;

    // "2026-11-22T09:59:59", UTC
    void set_time(const std::string& text) {
        tm utc = {};
        strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
        now = timegm(&utc);
    }
    // "3 runs at 9 sun until +100 on 262/1/7 on 310": hours and days, seconds from now, networks
    void put(const words& what) {
        const auto module = static_cast<uint32_t>(std::stoul(what[1]));
        CampaignEntry& entry = *(state.table[module] = campaign_entry_new());
        entry.campaignId = 70 + module;
        entry.expiryValue = UINT64_MAX;
        entry.mccMncList = campaign_network_list_new();
        for (size_t i = 2; i < what.size(); ++i) take(what[i], &entry, what, i);
    }
    void take(const std::string& word, CampaignEntry* entry, const words& what, size_t i) {
        const auto* day = std::find(std::begin(DAYS), std::end(DAYS), word);
        if (word == "runs") entry->running = 1;
        if (word == "nameless") entry->campaignId = uint64_t{1} << 32;
        if (word == "type") entry->enablementType = static_cast<uint32_t>(std::stoul(what[i + 1]));
        if (word == "at") entry->timeSlices |= 1u << std::stoul(what[i + 1]);
        if (day != std::end(DAYS)) entry->timeSlices |= 1u << (24 + (day - DAYS));
        if (word == "until")
            entry->expiryValue = static_cast<uint64_t>(now + std::stol(what[i + 1]));
        if (word == "on") add_network(what[i + 1], entry);
    }
    static void add_network(std::string text, CampaignEntry* entry) {
        MccMncEnablementRecord& record = entry->mccMncList[entry->mccMncCount++];
        std::replace(text.begin(), text.end(), '/', ' ');
        std::istringstream codes(text);
        for (codes >> record.mcc; codes >> record.mnc[record.mncCount]; ++record.mncCount) continue;
    }
    std::string judge(uint32_t module) const {
        const campaign_reason reason = campaign_judge(state, module, now).reason;
        EXPECT_EQ(canCampaignBeEnabled(state, module, now), reason == campaign_reason::MAY_RUN);
        return REASONS[static_cast<size_t>(reason)];
    }
    // By its hours and by its networks alone.
    std::string judge_halves(uint32_t module) const {
        platform_test_clear_log();
        const bool time = isTimeBasedEnabMetForCampaign(state.table, module, now);
        const bool network = isMccMncBasedEnabMetForCampaign(state, module);
        return std::to_string(time) + std::to_string(network) + " " + log_text();
    }
    // The events of a check, and what it leaves: "512 256; 0 2* 6*", the running ones marked.
    std::string check() {
        platform_test_clear_log();
        campaign_mgr_check_for_camp_management(state, now);
        std::string text;
        for (const auto& entry : platform_test_log())
            if (entry.text.starts_with("mps_set")) text += entry.text.substr(29) + " ";
        text += ";";
        for (uint32_t module = 0; module < CAMPAIGN_MODULES; ++module)
            if (const auto& slot = state.table[module])
                text += " " + std::to_string(module) + (slot->running ? "*" : "");
        return text;
    }
    // What is next, and in how many hours each campaign with hours wants to be looked at.
    std::string activity() const {
        platform_test_clear_log();
        const campaign_activity next = campaign_mgr_calc_activity_timer(state.table, now);
        std::string text = std::to_string(next.timeout_s) + " s, module " +
                           std::to_string(next.module) + ": " + ACTIVITIES[next.type];
        for (const auto& entry : platform_test_log())
            if (entry.text.starts_with("next_activity_hrs ")) text += ", " + entry.text.substr(18);
        if (text.ends_with('\n')) text.replace(text.size() - 1, 1, " h");
        return text;
    }
};

std::string answer(campaign_world* world, const std::string& question) {
    std::string text;
    for (const words& line : words_of(question)) {
        const auto number = [&](size_t i) { return static_cast<uint32_t>(std::stoul(line.at(i))); };
        const std::string& verb = line[0];
        if (verb == "zone") setenv("TZ", line[1].c_str(), 1);
        if (verb == "time") world->set_time(line[1]);
        if (verb == "pass") world->now += number(1);
        if (verb == "campaign") world->put(line);
        if (verb == "none") world->state.table = {};
        if (verb == "phone")
            world->state.phone = {number(1), static_cast<uint8_t>(number(2)),
                                  static_cast<uint16_t>(number(3)),
                                  static_cast<uint16_t>(number(4))};
        if (verb == "may") text += world->judge(number(1)) + "\n";
        if (verb == "halves") text += world->judge_halves(number(1)) + "\n";
        if (verb == "check") text += world->check() + "\n";
        if (verb == "next") text += world->activity() + "\n";
        tzset();
    }
    return text;
}

TEST(CampaignRules, Dialogue) {
    campaign_world world;
    expect_dialogue("campaign/rules",
                    [&](const std::string& text) { return answer(&world, text); });
}

}  // namespace
