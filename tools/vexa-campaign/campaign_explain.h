// When campaigns will run, by the daemon's own decoder and rules.
#pragma once

#include <ctime>
#include <string>
#include <vector>

struct explain_options {
    time_t from = 0;
    int days = 7;
};

// What a phone makes of these campaigns (campaign_file_split) in the days from `from` on, in the
// local time zone.
std::string campaign_explain(const std::vector<std::string>& entries,
                             const explain_options& options);
