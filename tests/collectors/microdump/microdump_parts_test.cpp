// The pieces of the microdump collector: crash records and configuration, as a dialogue.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <sstream>

#include "base/unique_handle.h"
#include "collectors/microdump/crash_record.h"
#include "collectors/microdump/microdump_config.h"
#include "support/collector_phone.h"
#include "support/dialogue.h"

namespace {

// What a record says of a dump, behind the line with its time. "|" stands between its chunks, "/"
// for a newline and "%" for a zero byte. The room behind a chunk holds no zero byte.
std::string dumped(std::string chunks) {
    crash_record record;
    memset(record.text, 'x', sizeof record.text);
    crash_record_begin(&record, "now");
    const size_t begin = record.len;
    std::replace(chunks.begin(), chunks.end(), '/', '\n');
    std::replace(chunks.begin(), chunks.end(), '%', '\0');
    std::istringstream parts(chunks);
    for (std::string chunk; std::getline(parts, chunk, '|');) {
        memcpy(record.room(), chunk.data(), chunk.size());
        crash_record_add_chunk(&record, chunk.size());
    }
    std::string text(record.text + begin, record.len - begin);
    std::replace(text.begin(), text.end(), '\n', '/');
    return text;
}

std::string configured(const std::string& text) {
    collector_info row{.size = 7, .max_upload_wait_time = 8, .hdr = {.client_id = 5}};
    put_files({{"/data/cfg", text}});
    microdump_cfg_read_handler(unique_file(fopen("/data/cfg", "re")).get(), &row);
    microdump_cfg_read_handler(nullptr, &row);
    return std::to_string(row.size) + " " + std::to_string(row.max_upload_wait_time);
}

std::string crash_time(const std::string& zone) {
    setenv("TZ", zone.c_str(), 1);
    tzset();
    char time[CRASH_TIME_SIZE];
    get_crashtime(time);
    platform_test_set_real_ms(INT64_MAX / 2);  // a year of nine digits does not fit
    return time;
}

TEST(Microdump, Parts) {
    expect_dialogue("microdump/parts", [](const std::string& question) {
        const size_t word = question.find(' ');
        const std::string rest = question.substr(word + 1, question.size() - word - 2);
        if (question.starts_with("dump")) return dumped(rest) + "\n";
        if (question.starts_with("time")) return crash_time(rest) + "\n";
        return configured(rest) + "\n";
    });
    unsetenv("TZ");
}

}  // namespace
