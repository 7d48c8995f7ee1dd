// What was logged on the scripted platform, as one text.
#pragma once

#include <string>

#include "platform_test.h"

inline std::string log_text() {
    std::string text;
    for (const platform_test_log_entry& entry : platform_test_log()) text += entry.text;
    return text;
}

// What was logged since `*seen` entries, which is moved on: "E vexastatsd: text". Texts end a line,
// whether they say so or not.
inline std::string log_lines(size_t* seen) {
    const std::vector<platform_test_log_entry> entries = platform_test_log();
    std::string lines;
    for (size_t i = *seen <= entries.size() ? *seen : 0; i < entries.size(); ++i) {
        lines +=
            "??VDIWEF"[entries[i].priority & 7] + (" " + entries[i].tag) + ": " + entries[i].text;
        if (!lines.ends_with('\n')) lines += '\n';
    }
    *seen = entries.size();
    return lines;
}
