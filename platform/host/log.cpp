#include "platform/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "base/printable.h"
#include "base/unique_handle.h"
#include "host/driven.h"
#include "host/log_file.h"
#include "host/log_silence.h"
#include "platform/clock.h"

namespace {

constexpr char MAIN_BUFFER[] = "main";
constexpr uint32_t MAIN_BUFFER_ID = 0;
constexpr size_t TAG_MAX_LEN = 127;

bool g_silent = false;

char priority_letter(int priority) {
    constexpr char LETTERS[] = "??VDIWEF";
    return priority >= 0 && priority < 8 ? LETTERS[priority] : '?';
}

// Writes priority, tag and message into the payload; what does not fit is cut off. Returns the
// message.
__attribute__((format(printf, 4, 0))) const char* fill_payload(log_entry* entry, int priority,
                                                               const char* tag, const char* format,
                                                               va_list args) {
    char* at = entry->payload;
    *at++ = static_cast<char>(priority);
    const size_t tag_len = strnlen(tag, TAG_MAX_LEN);
    at = std::copy_n(tag, tag_len, at);
    *at++ = '\0';
    const size_t room = sizeof entry->payload - 2 - tag_len;
    const int wanted = vsnprintf(at, room, format, args);
    if (wanted < 0) *at = '\0';
    const size_t text_len = std::min(static_cast<size_t>(std::max(wanted, 0)), room - 1);
    entry->header.payload_len = static_cast<uint16_t>(2 + tag_len + text_len + 1);
    return at;
}

void fill_header(log_entry_header* header) {
    timespec now = {};
    platform_clock_gettime(CLOCK_REALTIME, &now);
    header->pid = getpid();
    header->tid = static_cast<uint32_t>(gettid());
    header->sec = static_cast<uint32_t>(now.tv_sec);
    header->nsec = static_cast<uint32_t>(now.tv_nsec);
    header->buffer_id = MAIN_BUFFER_ID;
    header->uid = getuid();
}

bool wants_stderr() {
    static const bool wanted = [] {
        const char* value = getenv("VEXA_LOG_STDERR");
        return value && strcmp(value, "1") == 0;
    }();
    return wanted;
}

// One line "12-31 23:59:50.123 I tag: text", time in UTC.
void print_line(const log_entry_header& header, int priority, const char* tag, const char* text) {
    const time_t seconds = header.sec;
    tm utc = {};
    gmtime_r(&seconds, &utc);
    int len = static_cast<int>(strlen(text));
    if (len > 0 && text[len - 1] == '\n') --len;
    const size_t room = PRINTABLE_MAX_GROWTH * static_cast<size_t>(len);
    const unique_malloc<char> shown(static_cast<char*>(malloc(room + 1)));
    if (!shown) return;
    const size_t shown_len = printable_copy(shown.get(), room, text, static_cast<size_t>(len));
    dprintf(STDERR_FILENO, "%02d-%02d %02d:%02d:%02d.%03u %c %s: %.*s\n", utc.tm_mon + 1,
            utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, header.nsec / 1000000,
            priority_letter(priority), tag, static_cast<int>(shown_len), shown.get());
}

}  // namespace

void host_log_silence() {
    g_silent = true;
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    if (g_silent) return 0;
    if (driven_is_on()) driven_take_turn();
    const int saved_errno = errno;
    if (!tag) tag = "";
    log_entry entry;
    va_list args;
    va_start(args, format);
    const char* text = fill_payload(&entry, priority, tag, format, args);
    va_end(args);
    fill_header(&entry.header);
    const int error = log_file_append(MAIN_BUFFER, entry);
    if (wants_stderr()) print_line(entry.header, priority, tag, text);
    errno = saved_errno;
    return error != 0 ? error : static_cast<int>(entry.header.payload_len);
}
