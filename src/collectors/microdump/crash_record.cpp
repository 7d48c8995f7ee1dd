#define LOG_TAG "vexastatsd"

#include "collectors/microdump/crash_record.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include "framework/time/local_time.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace {

constexpr char SEPARATOR[] = "--1522738393043\n";
constexpr char NO_CRASH_TIME[] = "Error in getting crashtime";
static_assert(sizeof NO_CRASH_TIME <= CRASH_TIME_SIZE);
static_assert(sizeof SEPARATOR + sizeof "Crash Time: \n" + CRASH_TIME_SIZE < CRASH_RECORD_SIZE);

}  // namespace

void get_crashtime(char (&out)[CRASH_TIME_SIZE]) {
    timespec now = {};
    tm local = {};
    if (platform_clock_gettime(CLOCK_REALTIME, &now) != 0) {
        ALOGE("failed to get time\n");
    } else if (vexastats_local_time(now.tv_sec, &local) &&
               strftime(out, sizeof out, "%F %T %z", &local) > 0) {
        return;
    } else {
        ALOGE("failed to get crash time\n");
    }
    memcpy(out, NO_CRASH_TIME, sizeof NO_CRASH_TIME);
}

void crash_record_begin(crash_record* record, const char* crash_time) {
    const int len = snprintf(record->text, sizeof record->text, "%s%s%s\n", SEPARATOR,
                             "Crash Time: ", crash_time);
    record->len = static_cast<size_t>(len);
}

void crash_record_add_chunk(crash_record* record, size_t len) {
    if (len == 0) return;
    char* chunk = record->room();
    chunk[len - 1] = '\0';
    const size_t text_len = strnlen(chunk, len);
    chunk[text_len] = '\n';
    record->len += text_len + 1;
}
