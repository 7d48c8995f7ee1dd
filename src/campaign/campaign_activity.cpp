#define LOG_TAG "vexastatsd"

#include "campaign/campaign_activity.h"

#include <algorithm>

#include "campaign/campaign_table.h"
#include "campaign/campaign_time.h"
#include "platform/log.h"

namespace {

constexpr uint32_t HOURS_A_DAY = 24;
constexpr uint32_t DAYS_A_WEEK = 7;
constexpr uint32_t SECONDS_AN_HOUR = 3600;
constexpr uint32_t SECONDS_A_DAY = 86400;
constexpr uint32_t FIRST_DAY_BIT = 24;
constexpr uint32_t LAST_DAY_BIT = 30;
constexpr uint32_t FIRST_SCHEDULED_MODULE = 1;  // module 0 is never scheduled
constexpr int32_t PAST_TIMEOUT_S = 10;
constexpr int64_t MS_PER_S = 1000;

bool has_any(uint32_t mask, uint32_t first_bit, uint32_t last_bit) {
    return (mask & ((2u << last_bit) - (1u << first_bit))) != 0;
}

// The lowest bit that is set among the hours; 24 when none is.
uint32_t first_hour(uint32_t slices) {
    uint32_t hour = 0;
    while (hour < HOURS_A_DAY && (slices >> hour & 1) == 0) ++hour;
    return hour;
}

// Hours of the days from tomorrow on that are passed over until one is enabled.
uint32_t hours_of_disabled_days(uint32_t slices, uint32_t week_day) {
    for (uint32_t passed = 0; passed < DAYS_A_WEEK; ++passed) {
        const uint32_t day = (week_day + 1 + passed) % DAYS_A_WEEK;
        if ((slices >> (FIRST_DAY_BIT + day) & 1) != 0) return passed * HOURS_A_DAY;
    }
    return HOURS_A_DAY * (13 - week_day);
}

// Hours until a campaign that does not run is worth a look. As coarse as it is: deliberate.
uint32_t hours_until_enablement(uint32_t slices, const tm& local) {
    const auto hour = static_cast<uint32_t>(local.tm_hour);
    const auto week_day = static_cast<uint32_t>(local.tm_wday);
    if (hour <= 22 && has_any(slices, hour + 1, 23)) return 1;
    const uint32_t base = has_any(slices, 0, 23) ? 24 : 23;
    if (has_any(slices, FIRST_DAY_BIT + week_day, LAST_DAY_BIT)) return 24 + base - hour;
    return 6 - week_day + (has_any(slices, FIRST_DAY_BIT, LAST_DAY_BIT) ? 24 : 0);
}

// The nearest activity so far, in the unsigned 32-bit seconds that are meant to be used here.
struct nearest_activity {
    uint32_t now_s = 0;
    uint32_t at_s = 0;
    campaign_activity what{};

    void take(uint32_t time_s, uint32_t module, campaign_activity_type type) {
        at_s = time_s;
        what.module = module;
        what.type = type;
    }
};

void consider_time_slices(const CampaignEntry& entry, uint32_t module, const tm& local,
                          nearest_activity* nearest) {
    ALOGI("Running %d\n", entry.running);
    const uint32_t hours = entry.running ? getHrsForNextDisablement(entry.timeSlices, local)
                                         : hours_until_enablement(entry.timeSlices, local);
    ALOGI("next_activity_hrs %d\n", static_cast<int>(hours));
    const auto into_hour_s = static_cast<uint32_t>(local.tm_min * 60 + local.tm_sec);
    if (hours * SECONDS_AN_HOUR <= into_hour_s) return;
    const uint32_t at_s = nearest->now_s + hours * SECONDS_AN_HOUR - into_hour_s;
    if (nearest->at_s <= at_s) return;
    nearest->take(at_s, module,
                  entry.running ? CAMPAIGN_ACTIVITY_DISABLEMENT : CAMPAIGN_ACTIVITY_ENABLEMENT);
}

void consider(const CampaignEntry& entry, uint32_t module, const tm& local,
              nearest_activity* nearest) {
    ALOGI("Module index %d campaign id %d\n", static_cast<int>(module),
          static_cast<int>(entry.campaignId));
    ALOGI("min_nearest_activity_secs_utc %d expiration_secs_utc %d\n",
          static_cast<int>(nearest->at_s), static_cast<int>(entry.expiryValue));
    if (entry.expiryValue < nearest->at_s) {
        nearest->take(static_cast<uint32_t>(entry.expiryValue), module, CAMPAIGN_ACTIVITY_EXPIRY);
    }
    ALOGI("enablement_type %d\n", static_cast<int>(entry.enablementType));
    // Those that depend on the network as well are looked at with the others only: deliberate.
    if (entry.enablementType == CAMPAIGN_TIME_BASED) {
        consider_time_slices(entry, module, local, nearest);
    }
}

int32_t timeout_s(const nearest_activity& nearest) {
    const auto now = static_cast<int>(nearest.now_s);
    if (nearest.now_s < CAMPAIGN_EPOCH_S) {
        ALOGE("UTC time is not correct %d\n", now);
        return -1;
    }
    if (nearest.at_s < nearest.now_s) {
        ALOGI("Expiration time already met current utc %d nearest activity utc %d\n", now,
              static_cast<int>(nearest.at_s));
        return PAST_TIMEOUT_S;
    }
    return static_cast<int32_t>(nearest.at_s - nearest.now_s);
}

// Seconds until a check can come to another result than one at `now` by the clock alone: the
// nearest expiry (0: it was met) or, where a campaign goes by the hour, the next full hour. -1
// without a campaign.
int64_t campaign_next_change_s(const campaign_table& table, time_t now) {
    const tm local = local_time(now);
    const int64_t into_hour_s = local.tm_min * 60 + local.tm_sec;
    int64_t nearest_s = -1;
    const auto consider_s = [&](int64_t in_s) {
        nearest_s = nearest_s < 0 ? in_s : std::min(nearest_s, in_s);
    };
    for (uint32_t module = FIRST_SCHEDULED_MODULE; module < CAMPAIGN_MODULES; ++module) {
        if (!campaign_is_there(table[module])) continue;
        const CampaignEntry& entry = *table[module];
        const auto now_s = static_cast<uint64_t>(now);
        constexpr uint64_t FAR_S = uint64_t{1} << 32;
        const uint64_t left_s = entry.expiryValue > now_s ? entry.expiryValue - now_s : 0;
        consider_s(static_cast<int64_t>(std::min(left_s, FAR_S)));
        if (entry.enablementType & CAMPAIGN_TIME_BASED) consider_s(SECONDS_AN_HOUR - into_hour_s);
    }
    return nearest_s;
}

}  // namespace

uint32_t getHrsForNextDisablement(uint32_t time_slices, const tm& local) {
    const auto hour = static_cast<uint32_t>(local.tm_hour);
    for (uint32_t h = hour; h < HOURS_A_DAY; ++h) {
        if ((time_slices >> h & 1) != 0) return h - hour;
    }
    return HOURS_A_DAY - hour + first_hour(time_slices) +
           hours_of_disabled_days(time_slices, static_cast<uint32_t>(local.tm_wday));
}

campaign_activity campaign_mgr_calc_activity_timer(const campaign_table& table, time_t now) {
    const tm local = local_time(now);
    ALOGI("Current local time and date: %s", time_text(local).text);
    const auto now_s = static_cast<uint32_t>(now);
    nearest_activity nearest{.now_s = now_s, .at_s = now_s + SECONDS_A_DAY};
    for (uint32_t module = FIRST_SCHEDULED_MODULE; module < CAMPAIGN_MODULES; ++module) {
        if (campaign_is_there(table[module])) consider(*table[module], module, local, &nearest);
    }
    nearest.what.timeout_s = timeout_s(nearest);
    ALOGI("Nearest Activity secs %d Module %d Activity type %d", nearest.what.timeout_s,
          static_cast<int>(nearest.what.module), static_cast<int>(nearest.what.type));
    return nearest.what;
}

int64_t campaign_take_timeout_ms() {
    const time_t now = wall_clock_s();
    const vexa_lock lock(g_campaign.lock);
    int32_t* next_s = &g_campaign.state.next_activity_s;
    const int32_t timeout_s = *next_s;
    // A campaign that expires in the very second in which it came makes it 0. The check that
    // follows does not compute it anew: from then on it is as for an expiry in the past.
    if (timeout_s == 0) *next_s = PAST_TIMEOUT_S;
    if (timeout_s != PAST_TIMEOUT_S) return int64_t{timeout_s} * MS_PER_S;
    const int64_t change_s = campaign_next_change_s(g_campaign.state.table, now);
    if (change_s < 0) return -1;
    const int64_t rounds = (change_s + PAST_TIMEOUT_S - 1) / PAST_TIMEOUT_S;
    return std::max<int64_t>(rounds, 1) * PAST_TIMEOUT_S * MS_PER_S;
}
