#include "daemon_log.h"

#include <cstdarg>
#include <cstdio>

#include "platform/log.h"

namespace {

std::string g_first_error;

}  // namespace

void daemon_log_clear() {
    g_first_error.clear();
}

std::string daemon_log_first_error() {
    return g_first_error;
}

int __android_log_print(int priority, const char*, const char* format, ...) {
    // The length of a campaign's logic is logged as an error but is none.
    const bool is_length = std::string_view(format).ends_with("length %d\n");
    if (priority < ANDROID_LOG_ERROR || is_length || !g_first_error.empty()) return 0;
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    g_first_error = text;
    while (g_first_error.ends_with('\n')) g_first_error.pop_back();
    return 1;
}
