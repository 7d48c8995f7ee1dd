#define LOG_TAG "vexastatsd"

#include "framework/files/test_override.h"

#include <stdio.h>

#include "base/open_file.h"
#include "base/text_file.h"
#include "platform/log.h"

namespace {

constexpr char TEST_CONFIG_FILE[] = "/data/vendor/vexastats/.property";

}  // namespace

bool vexastats_get_test_config_file(char* buf, size_t size) {
    const unique_file file = fopen_regular(TEST_CONFIG_FILE, SMALL_FILE_MAX);
    if (!file) return false;
    ALOGD("Found %s\n", TEST_CONFIG_FILE);
    // One byte less than there is room for: the line is at most size - 2 characters.
    if (size < 2 || !fgets(buf, static_cast<int>(size - 1), file.get())) {
        ALOGE("[ERROR] failed to get property");
        return false;
    }
    return true;
}
