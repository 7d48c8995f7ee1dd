#include "campaign_words.h"

#include <fmt/format.h>

#include <iterator>
#include <vector>

namespace {

constexpr int HOURS = 24;
constexpr int DAYS = 7;
constexpr const char* DAY_NAMES[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};

// As the phone's log says it; in the order of campaign_refusal.
constexpr const char* REFUSALS[] = {
    "accepted",
    "Submessage decode Failed",
    "Exceeded Max number of MCC MNC Enablements",
    "Exceeded Max number of MNC PER MCC Enablements",
    "Too big campaign size",
    "Wrong Module Id passed",
    "Only UTC is supported for Expiry Time format",
    "Malloc failed",
    "Campaign Descriptor file create Failed",
};
static_assert(std::size(REFUSALS) == static_cast<size_t>(campaign_refusal::NOT_KEPT) + 1);

struct run {
    int first = 0;
    int last = 0;
};

// The runs of set bits among `count` bits from `from` on.
std::vector<run> runs_of(uint32_t mask, int from, int count) {
    std::vector<run> runs;
    for (int i = 0; i < count; i++) {
        if ((mask >> (from + i) & 1) == 0) continue;
        if (!runs.empty() && runs.back().last == i - 1) {
            runs.back().last = i;
        } else {
            runs.push_back({i, i});
        }
    }
    return runs;
}

std::string day_range(const run& days) {
    if (days.first == days.last) return DAY_NAMES[days.first];
    return fmt::format("{} to {}", DAY_NAMES[days.first], DAY_NAMES[days.last]);
}

std::string hour_range(const run& hours) {
    return fmt::format("{:02}:00 to {:02}:00", hours.first, hours.last + 1);
}

template <class Range, class Word>
std::string list(const Range& range, Word word) {
    std::string text;
    for (const auto& item : range) text += (text.empty() ? "" : ", ") + word(item);
    return text;
}

std::string record_in_words(const MccMncEnablementRecord& record) {
    if (record.mncCount == 0) return fmt::format("all of {}", record.mcc);
    const std::vector<uint32_t> codes(record.mnc, record.mnc + record.mncCount);
    return list(codes, [&](uint32_t mnc) { return fmt::format("{}-{}", record.mcc, mnc); });
}

}  // namespace

std::string time_slices_in_words(const CampaignEntry& entry) {
    if ((entry.enablementType & CAMPAIGN_TIME_BASED) == 0) return "at any time";
    const auto days = runs_of(entry.timeSlices, HOURS, DAYS);
    const auto hours = runs_of(entry.timeSlices, 0, HOURS);
    if (days.empty() || hours.empty()) return "never";
    const bool every_day = days[0].last - days[0].first + 1 == DAYS;
    return fmt::format("{}, {}", every_day ? "every day" : list(days, day_range),
                       list(hours, hour_range));
}

std::string networks_in_words(const CampaignEntry& entry) {
    if ((entry.enablementType & CAMPAIGN_MCC_MNC_BASED) == 0 || entry.mccMncCount == 0) {
        return "every network";
    }
    const std::vector<MccMncEnablementRecord> records(entry.mccMncList.get(),
                                                      entry.mccMncList.get() + entry.mccMncCount);
    return list(records, record_in_words);
}

std::string local_time_in_words(time_t time) {
    tm local = {};
    if (!localtime_r(&time, &local)) return "a time that no calendar has";
    char text[64] = "";
    strftime(text, sizeof text, "%a %Y-%m-%d %H:%M", &local);
    return text;
}

std::string refusal_in_words(campaign_refusal refusal) {
    return REFUSALS[static_cast<size_t>(refusal)];
}
