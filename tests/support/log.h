// What was logged on the scripted platform, as one text.
#pragma once

#include <string>

#include "platform_test.h"

inline std::string log_text() {
    std::string text;
    for (const platform_test_log_entry& entry : platform_test_log()) text += entry.text;
    return text;
}
