// The rules as rows of tables: time zones, both clock changes, networks, and the formulas of the
// timer, the odd ones included.
#include "campaign/campaign_rules.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <tuple>

#include "campaign/campaign_activity.h"
#include "campaign/campaign_switch.h"
#include "mps_events/mps_events.h"
#include "support/log.h"

namespace {

constexpr char UTC[] = "UTC0";
constexpr char EAST[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr char WEST[] = "EST5EDT,M3.2.0,M11.1.0";
constexpr char HALF_EAST[] = "IST-5:30";

enum : uint32_t { SUN = 1u << 24, MON = 1u << 25, TUE = 1u << 26, SAT = 1u << 30 };

constexpr uint32_t hour(int h) {
    return 1u << h;
}

// Midnight UTC of three Sundays: an ordinary one, and the two on which clocks change in Europe.
constexpr time_t SUNDAY = 1795305600, MARCH = 1774742400, OCTOBER = 1792886400;

constexpr time_t at(int hours, int minutes = 0, int seconds = 0) {
    return hours * 3600 + minutes * 60 + seconds;
}

class CampaignRules : public testing::Test {
  protected:
    CampaignEntry& put(uint32_t module, uint32_t type, uint32_t slices = 0,
                       uint64_t expiry_s = UINT64_MAX, const char* zone = UTC) {
        setenv("TZ", zone, 1);
        tzset();
        platform_test_clear_log();
        state.table[module] = campaign_entry_new();
        *state.table[module] = {70 + module, expiry_s, type, slices, 0, nullptr, 0};
        return *state.table[module];
    }

    campaign_state state{.phone = {.default_sub = 1}};
};

// No day bit, never. In spring the third hour is left out, in autumn it comes twice. The last two
// rows are the first correct second and the one before.
TEST_F(CampaignRules, TimeSlicesAreLocalHoursAndDays) {
    const std::tuple<const char*, time_t, uint32_t, bool> rows[] = {
        {UTC, SUNDAY + at(9, 59, 59), hour(9) | SUN, true},
        {UTC, SUNDAY + at(10), hour(9) | SUN, false},
        {UTC, SUNDAY + at(9), hour(9), false},
        {UTC, SUNDAY + at(167), hour(23) | SAT | 1u << 31, true},
        {EAST, SUNDAY + at(23), hour(0) | MON, true},
        {WEST, SUNDAY + at(3), hour(22) | SAT, true},
        {HALF_EAST, SUNDAY + at(18, 29, 59), hour(23) | SUN, true},
        {HALF_EAST, SUNDAY + at(18, 30), hour(0) | MON, true},
        {EAST, MARCH + at(1), hour(2) | SUN, false},
        {EAST, MARCH + at(1), hour(3) | SUN, true},
        {EAST, OCTOBER + at(1, 30), hour(2) | SUN, true},
        {EAST, OCTOBER + at(2), hour(2) | SUN, false},
        {UTC, 1514764799, 0xFFFFFFFF, false},
        {UTC, 1514764800, 0xFFFFFFFF, true}};
    for (const auto& [zone, now, slices, met] : rows) {
        put(1, CAMPAIGN_TIME_BASED, slices, UINT64_MAX, zone);
        EXPECT_EQ(isTimeBasedEnabMetForCampaign(state.table, 1, now), met)
            << zone << " " << now << "\n"
            << log_text();
    }
}

TEST_F(CampaignRules, NetworksAreTriedToTheLast) {
    CampaignEntry& entry = put(6, CAMPAIGN_MCC_MNC_BASED);
    entry.mccMncList = campaign_network_list_new();
    entry.mccMncList[0] = {.mcc = 262, .mncCount = 2, .mnc = {1, 2}};
    entry.mccMncList[1] = {.mcc = 310, .mncCount = 0, .mnc = {}};
    entry.mccMncList[2] = {.mcc = 262, .mncCount = 1, .mnc = {7}};
    entry.mccMncList[3] = {.mcc = 99};
    const std::tuple<uint32_t, phone_state, bool> rows[] = {
        {3, {1, 0, 262, 2}, true}, {3, {1, 0, 262, 3}, false},
        {3, {1, 0, 262, 7}, true}, {2, {1, 0, 262, 7}, false},
        {3, {1, 0, 310, 5}, true}, {3, {1, 0, 99, 0}, false},
        {0, {1, 0, 99, 0}, true},  {3, {CAMPAIGN_INVALID_SUB, 0, 310, 5}, false},
    };
    for (const auto& [count, phone, met] : rows) {
        entry.mccMncCount = count;
        state.phone = phone;
        EXPECT_EQ(isMccMncBasedEnabMetForCampaign(state, 6), met) << phone.mcc << "/" << phone.mnc;
    }
}

// Expiry, roaming, subscription (module 6, and what is bound to networks), hours and networks.
TEST_F(CampaignRules, EveryConditionHasToHold) {
    const time_t now = SUNDAY + at(9);
    const auto later_s = static_cast<uint64_t>(now) + 1;
    const phone_state home{.default_sub = 1};
    using enum campaign_reason;
    const std::tuple<uint32_t, uint32_t, uint32_t, uint64_t, phone_state, campaign_reason> rows[] =
        {{6, 0, 0, later_s, home, MAY_RUN},
         {6, 0, 0, later_s - 1, home, EXPIRED},
         {6, 0, 0, later_s, {.default_sub = 1, .roaming = 2}, ROAMING},
         {6, 0, 0, later_s, {}, NO_SUBSCRIPTION},
         {1, 0, 0, later_s, {}, MAY_RUN},
         {1, 2, 0, later_s, home, MAY_RUN},
         {1, 2, 0, later_s, {}, UNKNOWN_NETWORK},
         {1, 3, SUN | hour(9), later_s, home, MAY_RUN},
         {1, 3, SUN | hour(8), later_s, {}, WRONG_HOUR},
         {1, 3, MON | hour(9), later_s, {}, WRONG_DAY}};
    for (const auto& [module, type, slices, expiry_s, phone, reason] : rows) {
        put(module, type, slices, expiry_s);
        state.phone = phone;
        EXPECT_EQ(canCampaignBeEnabled(state, module, now), reason == MAY_RUN) << log_text();
        EXPECT_EQ(campaign_judge(state, module, now).reason, reason) << log_text();
    }
    EXPECT_FALSE(canCampaignBeEnabled(state, 2, now));
    EXPECT_FALSE(canCampaignBeEnabled(state, 7, now));
}

TEST_F(CampaignRules, SwitchStartsStopsAndFrees) {
    const time_t now = SUNDAY + at(9);
    const auto events_of_check = [&](time_t at) {
        platform_test_clear_log();
        campaign_mgr_check_for_camp_management(&state, at);
        std::string values;
        for (const auto& entry : platform_test_log()) {
            if (entry.text.starts_with("mps_set")) values += entry.text.substr(28);
        }
        return values;
    };
    put(0, 0, 0, 1);
    put(1, 0, 0, 1).running = 1;
    put(2, 0);
    put(3, 0, 0, 1).campaignId = 1ull << 32;  // counts as none
    put(6, CAMPAIGN_TIME_BASED, SUN | hour(9), static_cast<uint64_t>(now) + 7200);
    EXPECT_EQ(events_of_check(now), " 512 256");
    EXPECT_TRUE(state.table[0] && !state.table[1] && state.table[3]);
    EXPECT_TRUE(!state.table[0]->running && state.table[2]->running && state.table[6]->running);
    EXPECT_EQ(events_of_check(now + 3599), "");
    EXPECT_EQ(events_of_check(now + 3600), " 512");
    state.table[6]->running = 1;
    EXPECT_EQ(events_of_check(now + 7200), " 512");
    EXPECT_EQ(state.table[6], nullptr);
    state.phone.roaming = 1;
    EXPECT_EQ(events_of_check(now + 7200), "");
    EXPECT_FALSE(state.table[2]->running);
}

TEST_F(CampaignRules, NextEnabledHour) {
    const std::tuple<uint32_t, int, int, uint32_t> rows[] = {{hour(9), 9, 0, 0},
                                                             {hour(9) | hour(23), 10, 0, 13},
                                                             {hour(9) | TUE, 10, 0, 14 + 9 + 24},
                                                             {hour(0) | SUN, 23, 0, 1 + 144},
                                                             {MON, 5, 0, 19 + 24},
                                                             {hour(9), 10, 0, 14 + 9 + 312}};
    for (const auto& [slices, at_hour, week_day, hours] : rows) {
        const tm local = {0, 0, at_hour, 0, 0, 0, week_day, 0, 0, 0, nullptr};
        EXPECT_EQ(getHrsForNextDisablement(slices, local), hours) << slices << " " << at_hour;
    }
}

TEST_F(CampaignRules, NearestActivity) {
    constexpr auto NONE = CAMPAIGN_ACTIVITY_NONE, ENDS = CAMPAIGN_ACTIVITY_EXPIRY;
    constexpr auto STARTS = CAMPAIGN_ACTIVITY_ENABLEMENT, STOPS = CAMPAIGN_ACTIVITY_DISABLEMENT;
    constexpr bool RUNS = true;
    constexpr int HOUR_S = 3600, DAY_S = 86400, NEVER = INT32_MAX;
    using activity = campaign_activity_type;
    const std::tuple<const char*, time_t, uint32_t, uint32_t, bool, int, int, activity> rows[] = {
        {UTC, SUNDAY + at(9), 0, 0, false, 100, 100, ENDS},
        {UTC, SUNDAY + at(9), 3, hour(10), false, NEVER, DAY_S, NONE},
        {UTC, SUNDAY + at(9), 0, 0, false, -1, 10, ENDS},
        {UTC, 1514764799, 0, 0, false, 100, -1, ENDS},
        // Runs: to the next hour that is enabled.
        {UTC, SUNDAY + at(9, 10, 5), 1, hour(9) | SUN, RUNS, NEVER, DAY_S, NONE},
        {UTC, SUNDAY + at(9, 10, 5), 1, hour(12), RUNS, NEVER, 3 * HOUR_S - 605, STOPS},
        // Does not run: the top of the next hour while an hour of today is to come.
        {UTC, SUNDAY + at(9, 10, 5), 1, hour(23), false, NEVER, HOUR_S - 605, STARTS},
        {HALF_EAST, SUNDAY + at(9), 1, hour(23), false, NEVER, HOUR_S / 2, STARTS},
        // Else 24 + 24 - 23 or 24 + 23 - 23 hours on an enabled day and before one this week ...
        {UTC, SUNDAY + at(23, 30), 1, hour(9) | SAT, false, NEVER, DAY_S, NONE},
        {UTC, SUNDAY + at(23, 30), 1, SAT, false, NEVER, DAY_S - HOUR_S / 2, STARTS},
        {UTC, SUNDAY + at(23), 1, SAT, false, NEVER, DAY_S, NONE},  // a tie
        // ... and the days that are left of the week, as hours, behind the last enabled day.
        {UTC, SUNDAY + at(58), 1, hour(9), false, NEVER, 4 * HOUR_S, STARTS},
        {UTC, SUNDAY + at(58), 1, hour(9) | SUN, false, NEVER, DAY_S, NONE},
    };
    for (const auto& [zone, now, type, slices, running, expires_in_s, timeout_s, what] : rows) {
        const auto expiry_s = static_cast<uint64_t>(now + expires_in_s);
        put(3, type, slices, expiry_s, zone).running = running;
        put(4, type, slices, expiry_s, zone).running = running;  // on a tie the earlier one counts
        const campaign_activity found = campaign_mgr_calc_activity_timer(state.table, now);
        EXPECT_EQ(found.timeout_s, timeout_s) << log_text();
        EXPECT_EQ(found.type, what) << log_text();
        EXPECT_EQ(found.module, what == NONE ? 1u : 3u);
    }
}

}  // namespace
