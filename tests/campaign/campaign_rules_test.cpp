// The rules as rows of tables: time zones, both clock changes, networks, and every formula of the
// timer, the odd ones included.
#include "campaign/campaign_rules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "mps_events/mps_events.h"
#include "support/log.h"

namespace {

constexpr char UTC[] = "UTC0";
constexpr char EAST[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr char WEST[] = "EST5EDT,M3.2.0,M11.1.0";
constexpr char HALF_HOUR_EAST[] = "IST-5:30";
constexpr char HALF_HOUR_WEST[] = "NST3:30";

enum : uint32_t {
    SUN = 1u << 24,
    MON = 1u << 25,
    TUE = 1u << 26,
    SAT = 1u << 30,
    DAYS = 127u << 24
};

constexpr uint32_t hour(int h) {
    return 1u << h;
}

// 2026-11-22 is a Sunday.
time_t utc(int month, int day, int hours, int minutes = 0, int seconds = 0) {
    tm parts = {};
    parts.tm_year = 2026 - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hours;
    parts.tm_min = minutes;
    parts.tm_sec = seconds;
    return timegm(&parts);
}

void set_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

class CampaignRules : public testing::Test {
  protected:
    void SetUp() override {
        set_zone(UTC);
        state.phone.default_sub = 1;
        mps_clear_event(UINT32_MAX);
        platform_test_clear_log();
    }

    CampaignEntry& put(uint32_t module, uint32_t type, uint32_t slices = 0,
                       uint64_t expiry_s = UINT64_MAX) {
        state.table[module] = campaign_entry_new();
        CampaignEntry& entry = *state.table[module];
        entry.campaignId = 70 + module;
        entry.expiryValue = expiry_s;
        entry.enablementType = type;
        entry.timeSlices = slices;
        return entry;
    }

    campaign_state state;
};

TEST_F(CampaignRules, TimeSlicesAreLocalHoursAndDays) {
    const struct {
        const char* zone;
        time_t now;
        uint32_t slices;
        bool met;
    } rows[] = {
        {UTC, utc(11, 22, 9, 59, 59), hour(9) | SUN, true},
        {UTC, utc(11, 22, 10), hour(9) | SUN, false},
        {UTC, utc(11, 22, 9), hour(9) | MON, false},
        {UTC, utc(11, 22, 9), hour(9), false},  // no day, never
        {UTC, utc(11, 22, 9), SUN, false},
        {UTC, utc(11, 28, 23), hour(23) | SAT | 1u << 31, true},
        {EAST, utc(11, 22, 23), hour(0) | MON, true},  // already Monday there
        {WEST, utc(11, 22, 3), hour(22) | SAT, true},  // still Saturday there
        {HALF_HOUR_EAST, utc(11, 22, 18, 29, 59), hour(23) | SUN, true},
        {HALF_HOUR_EAST, utc(11, 22, 18, 30), hour(0) | MON, true},
        {HALF_HOUR_WEST, utc(11, 22, 3, 29), hour(23) | SAT, true},
        {HALF_HOUR_WEST, utc(11, 22, 3, 30), hour(0) | SUN, true},
        // In spring the third hour is left out, in autumn it comes twice.
        {EAST, utc(3, 29, 0, 59, 59), hour(1) | SUN, true},
        {EAST, utc(3, 29, 1), hour(2) | SUN, false},
        {EAST, utc(3, 29, 1), hour(3) | SUN, true},
        {EAST, utc(10, 25, 0, 30), hour(2) | SUN, true},
        {EAST, utc(10, 25, 1, 30), hour(2) | SUN, true},
        {EAST, utc(10, 25, 2), hour(2) | SUN, false},
    };
    for (const auto& row : rows) {
        set_zone(row.zone);
        put(1, CAMPAIGN_TIME_BASED, row.slices);
        EXPECT_EQ(isTimeBasedEnabMetForCampaign(state.table, 1, row.now), row.met)
            << row.zone << " " << row.now << "\n"
            << log_text();
    }
}

TEST_F(CampaignRules, WrongClockAndMissingEntryAreSaid) {
    put(1, 0);
    EXPECT_FALSE(isTimeBasedEnabMetForCampaign(state.table, 1, 1514764799));
    EXPECT_EQ(log_text(), "UTC time is not correct isTimeBasedEnabMetForCampaign");
    EXPECT_TRUE(isTimeBasedEnabMetForCampaign(state.table, 1, 1514764800));
    EXPECT_THAT(log_text(), testing::HasSubstr("date: Mon Jan  1 00:00:00 2018\nisTime"));
    platform_test_clear_log();
    EXPECT_FALSE(isTimeBasedEnabMetForCampaign(state.table, 2, utc(11, 22, 9)));
    EXPECT_FALSE(isMccMncBasedEnabMetForCampaign(state, 2));
    EXPECT_FALSE(canCampaignBeEnabled(state, 2, utc(11, 22, 9)));
    EXPECT_EQ(platform_test_log_count("No campaign for module index 2"), 3u);
    EXPECT_FALSE(canCampaignBeEnabled(state, 7, utc(11, 22, 9)));
    EXPECT_EQ(platform_test_log_count("Wrong module index 7 passed to canCampaignBeEnabled"), 1u);
}

TEST_F(CampaignRules, NetworksAreTriedToTheLast) {
    auto list = campaign_network_list_new();
    list[0] = {.mcc = 262, .mncCount = 2, .mnc = {1, 2}};
    list[1] = {.mcc = 310, .mncCount = 0, .mnc = {}};
    list[2] = {.mcc = 262, .mncCount = 1, .mnc = {7}};
    list[3] = {.mcc = 99};
    CampaignEntry& entry = put(6, CAMPAIGN_MCC_MNC_BASED);
    entry.mccMncList = std::move(list);
    const struct {
        uint32_t count;
        uint32_t sub;
        uint16_t mcc, mnc;
        bool met;
    } rows[] = {
        {3, 1, 262, 2, true}, {3, 1, 262, 3, false},
        {3, 1, 262, 7, true}, {2, 1, 262, 7, false},
        {3, 1, 310, 5, true}, {3, 1, 99, 0, false},
        {0, 1, 99, 0, true},  {3, CAMPAIGN_INVALID_SUB, 310, 5, false},
    };
    for (const auto& row : rows) {
        entry.mccMncCount = row.count;
        state.phone = {.default_sub = row.sub, .mcc = row.mcc, .mnc = row.mnc};
        EXPECT_EQ(isMccMncBasedEnabMetForCampaign(state, 6), row.met) << row.mcc << "/" << row.mnc;
    }
}

TEST_F(CampaignRules, EveryConditionHasToHold) {
    const time_t now = utc(11, 22, 9);
    const auto now_s = static_cast<uint64_t>(now);
    const phone_state home{.default_sub = 1};
    const phone_state roaming{.default_sub = 1, .roaming = 2};
    const phone_state no_sub{};
    const struct {
        uint32_t module, type, slices;
        uint64_t expiry_s;
        phone_state phone;
        bool may_run;
    } rows[] = {
        {6, 0, 0, now_s + 1, home, true},     {6, 0, 0, now_s, home, false},
        {6, 0, 0, now_s + 1, roaming, false}, {6, 0, 0, now_s + 1, no_sub, false},
        {1, 0, 0, now_s + 1, no_sub, true},   {1, 2, 0, now_s + 1, no_sub, false},
        {1, 2, 0, now_s + 1, home, true},  // no list: every network
        {1, 3, 0, now_s + 1, home, false},    {1, 3, SUN | hour(9), now_s + 1, home, true},
        {1, 4, 0, now_s + 1, home, true},  // bits that mean nothing
    };
    for (const auto& row : rows) {
        put(row.module, row.type, row.slices, row.expiry_s);
        state.phone = row.phone;
        EXPECT_EQ(canCampaignBeEnabled(state, row.module, now), row.may_run) << log_text();
        platform_test_clear_log();
    }
}

TEST_F(CampaignRules, SwitchStartsStopsAndFrees) {
    const time_t now = utc(11, 22, 9);
    const auto events = [] {
        std::string values;
        for (const auto& entry : platform_test_log()) {
            if (entry.text.starts_with("mps_set")) values += entry.text.substr(29) + " ";
        }
        platform_test_clear_log();
        return values;
    };
    const auto check = [&](time_t at) { campaign_mgr_check_for_camp_management(&state, at); };
    put(0, 0, 0, 1);
    put(1, 0, 0, 1).running = 1;
    put(2, 0);
    put(3, 0, 0, 1).campaignId = 1ull << 32;  // counts as none
    put(6, CAMPAIGN_TIME_BASED, SUN | hour(9), static_cast<uint64_t>(now) + 7200);
    check(now);
    EXPECT_EQ(events(), "512 256 ");
    EXPECT_TRUE(state.table[0] && !state.table[1] && state.table[3]);
    EXPECT_EQ(state.table[0]->running, 0);
    EXPECT_EQ(state.table[2]->running, 1);
    EXPECT_EQ(state.table[6]->running, 1);
    check(now + 3599);
    EXPECT_EQ(events(), "");
    check(now + 3600);
    EXPECT_EQ(events(), "512 ");
    EXPECT_EQ(state.table[6]->running, 0);
    state.table[6]->running = 1;
    check(now + 7200);
    EXPECT_EQ(events(), "512 ");
    EXPECT_EQ(state.table[6], nullptr);
    EXPECT_EQ(mps_events(), 768u);
    state.phone.roaming = 1;
    check(now + 7200);
    EXPECT_EQ(state.table[2]->running, 0);
}

TEST_F(CampaignRules, NextEnabledHour) {
    const struct {
        uint32_t slices;
        int hour, week_day;
        uint32_t hours;
    } rows[] = {
        {hour(9), 9, 0, 0},
        {hour(9) | hour(23), 10, 0, 13},
        {hour(9) | MON, 10, 0, 14 + 9},
        {hour(9) | TUE, 10, 0, 14 + 9 + 24},
        {hour(0) | SUN, 23, 0, 1 + 144},  // the same week day next week
        {hour(9) | SUN, 10, 6, 14 + 9},
        {MON, 5, 0, 19 + 24},  // no hour at all
        {hour(9), 10, 6, 14 + 9 + 168},
        {hour(9), 10, 0, 14 + 9 + 312},
        {0, 0, 3, 24 + 24 + 240},
    };
    for (const auto& row : rows) {
        tm local = {};
        local.tm_hour = row.hour;
        local.tm_wday = row.week_day;
        EXPECT_EQ(getHrsForNextDisablement(row.slices, local), row.hours)
            << row.slices << " " << row.hour << " " << row.week_day;
    }
}

TEST_F(CampaignRules, NearestActivity) {
    constexpr int HOUR_S = 3600;
    constexpr int DAY_S = 24 * HOUR_S;
    constexpr bool RUNS = true;
    const struct {
        const char* zone;
        time_t now;
        uint32_t type, slices;
        bool running;
        int expires_in_s;  // 0: never
        int timeout_s;
        campaign_activity_type what;
    } rows[] = {
        {UTC, utc(11, 22, 9), 0, 0, false, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},
        {UTC, utc(11, 22, 9), 0, 0, false, 100, 100, CAMPAIGN_ACTIVITY_EXPIRY},
        {UTC, utc(11, 22, 9), 3, hour(10), false, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},
        {UTC, utc(11, 22, 9), 0, 0, false, -1, 10, CAMPAIGN_ACTIVITY_EXPIRY},
        {UTC, 1514764799, 0, 0, false, 100, -1, CAMPAIGN_ACTIVITY_EXPIRY},
        // Runs: to the next hour that is enabled.
        {UTC, utc(11, 22, 9, 10, 5), 1, hour(9) | SUN, RUNS, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},
        {UTC, utc(11, 22, 9, 10, 5), 1, hour(12) | SUN, RUNS, 0, 3 * HOUR_S - 605,
         CAMPAIGN_ACTIVITY_DISABLEMENT},
        // Does not run: the top of the next hour while an hour of today is to come.
        {UTC, utc(11, 22, 9, 10, 5), 1, hour(23) | SUN, false, 0, HOUR_S - 605,
         CAMPAIGN_ACTIVITY_ENABLEMENT},
        {HALF_HOUR_EAST, utc(11, 22, 9), 1, hour(23) | SUN, false, 0, HOUR_S / 2,
         CAMPAIGN_ACTIVITY_ENABLEMENT},
        // Else 24 + 24 - 23 or 24 + 23 - 23 hours on an enabled day and before one this week ...
        {UTC, utc(11, 22, 23, 30), 1, hour(9) | SAT, false, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},
        {UTC, utc(11, 22, 23, 30), 1, SAT, false, 0, DAY_S - HOUR_S / 2,
         CAMPAIGN_ACTIVITY_ENABLEMENT},
        {UTC, utc(11, 22, 23), 1, SAT, false, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},  // a tie
        // ... and the days that are left of the week, as hours, behind the last enabled day.
        {UTC, utc(11, 24, 10), 1, hour(9), false, 0, 4 * HOUR_S, CAMPAIGN_ACTIVITY_ENABLEMENT},
        {UTC, utc(11, 24, 10), 1, hour(9) | SUN, false, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},
        {UTC, utc(11, 28, 10), 1, hour(9), false, 0, DAY_S, CAMPAIGN_ACTIVITY_NONE},  // 0 hours
    };
    for (const auto& row : rows) {
        set_zone(row.zone);
        put(2, row.type, row.slices,
            row.expires_in_s ? static_cast<uint64_t>(row.now + row.expires_in_s) : UINT64_MAX)
            .running = row.running;
        platform_test_clear_log();
        const campaign_activity found = campaign_mgr_calc_activity_timer(state.table, row.now);
        EXPECT_EQ(found.timeout_s, row.timeout_s) << log_text();
        EXPECT_EQ(found.type, row.what) << log_text();
        EXPECT_EQ(found.module, row.what == CAMPAIGN_ACTIVITY_NONE ? 1u : 2u);
    }
}

TEST_F(CampaignRules, NearestActivityOfSeveralModulesIsTheEarlierOnesOnATie) {
    const time_t now = utc(11, 22, 9, 30);
    put(0, 0, 0, static_cast<uint64_t>(now) + 1);  // never scheduled
    put(3, CAMPAIGN_TIME_BASED, hour(10) | SUN);
    put(4, CAMPAIGN_TIME_BASED, hour(10) | SUN);
    put(6, 0, 0, static_cast<uint64_t>(now) + 1800);
    const campaign_activity found = campaign_mgr_calc_activity_timer(state.table, now);
    EXPECT_EQ(found.timeout_s, 1800);
    EXPECT_EQ(found.module, 3u);
    EXPECT_EQ(platform_test_log().back().text,
              "Nearest Activity secs 1800 Module 3 Activity type 2");
}

}  // namespace
