#define LOG_TAG "vexastatsd"

#include "collectors/static/static_items.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zlib.h>

#include <algorithm>
#include <memory>

#include "base/open_file.h"
#include "base/text_file.h"
#include "base/unique_handle.h"
#include "collectors/static/aost_imsa.h"
#include "platform/log.h"
#include "platform/log_reader.h"
#include "platform/properties.h"

namespace {

constexpr char KERNEL_CONFIG[] = "/proc/config.gz";
constexpr long KERNEL_CONFIG_MAX = 16L << 20;  // bytes of text
constexpr char VERSION_FILE[] = "/vendor/firmware_mnt/verinfo/ver_info.txt";
constexpr char POWER_TAG[] = "kzor,bvrx-power-on";

struct gzip_closer {
    void operator()(gzFile_s* file) const { (void)gzclose(file); }
};
using unique_gzip = std::unique_ptr<gzFile_s, gzip_closer>;

bool is_usable(const write_req* req) {
    return req && req->row && req->handle && req->handle->file && req->data && req->len > 0;
}

// The caller's text buffer, which its header allows to be written to.
char* text_of(const write_req* req) {
    return const_cast<char*>(static_cast<const char*>(req->data));
}

// Length of what snprintf left in a buffer.
size_t printed_len(int printed, size_t capacity) {
    return std::min(static_cast<size_t>(std::max(printed, 0)), capacity - 1);
}

// Returns whether all of it was written.
bool append(write_req* req, const char* text, size_t len, size_t* count) {
    write_req part = *req;
    part.data = text;
    part.len = len;
    *count = vexastats_write_file(&part);
    return *count == len;
}

// The same, logged. Returns 0 or -EINVAL.
int write_text(write_req* req, const char* text, size_t len, const char* caller) {
    size_t count = 0;
    if (append(req, text, len, &count)) return 0;
    ALOGE("%s: failed to write file. cnt:%zu\n", caller, count);
    return -EINVAL;
}

int write_text(write_req* req, const char* text, const char* caller) {
    return write_text(req, text, strlen(text), caller);
}

// ---- Power events

struct power_event {
    char pmic_name[STATIC_TEXT_SIZE] = "";
    char reason[STATIC_TEXT_SIZE] = "";
    const char* kind = nullptr;
};

// Splits an entry into its tag and its message, which are left in *entry.
bool split_entry(log_msg* entry, int read, const char** tag, const char** message) {
    const size_t begin = entry->entry.hdr_size;
    const size_t end =
        std::min({static_cast<size_t>(read), begin + entry->entry.len, sizeof entry->buf - 1});
    if (begin < sizeof(logger_entry) || begin + 1 >= end) return false;
    entry->buf[end] = '\0';
    const auto* text = reinterpret_cast<const char*>(entry->buf);
    *tag = text + begin + 1;  // behind the priority
    const size_t message_at = begin + 1 + strlen(*tag) + 1;
    if (message_at >= end) return false;
    *message = text + message_at;
    return true;
}

// Whether an entry of the kernel log tells of a power event.
bool parse_power_event(log_msg* entry, int read, power_event* event) {
    const char* tag = nullptr;
    const char* message = nullptr;
    if (!split_entry(entry, read, &tag, &message) || !strstr(tag, POWER_TAG)) return false;
    if (strstr(message, "Power-on reason:")) {
        event->kind = "power-on";
    } else if (strstr(message, "Power-off reason:")) {
        event->kind = "power-off";
    } else {
        return false;
    }
    // "NAME@... Power-on reason:REASON"
    static_assert(STATIC_TEXT_SIZE == 512);
    if (sscanf(message, "%511[^@]%*s%*s%*[^:]:%511[^\n]", event->pmic_name, event->reason) == 2)
        return true;
    ALOGE("%s: invalid string: %s\n", "prepare_pwr_onoff_reason", message);
    return false;
}

// Reads the next entry. Returns its size, or 0 at the end of the log or after a failure, logged.
int read_entry(logger_list* reader, log_msg* entry) {
    int result = 0;
    do {
        result = android_logger_list_read(reader, entry);
    } while (result == -EINTR);
    if (result > 0) return result;
    if (result != -EAGAIN)
        ALOGE("failed to read kernel buffer: %s\n", strerror(result < 0 ? -result : errno));
    return 0;
}

// Gathers the power events of the whole log; the ones that do not fit are cut off. Returns the
// length of the text.
size_t gather_power_events(write_req* req, logger_list* reader) {
    char* text = text_of(req);
    size_t len = 0;
    text[0] = '\0';
    log_msg entry;
    while (!stop_flag_is_raised(req->row->stop)) {
        const int read = read_entry(reader, &entry);
        if (read == 0) break;
        power_event event;
        if (!parse_power_event(&entry, read, &event)) continue;
        len += printed_len(
            snprintf(text + len, req->len - len, " - pmic_name: %s\n   event: %s\n   reason:%s\n",
                     event.pmic_name, event.kind, event.reason),
            req->len - len);
    }
    return len;
}

// ---- Versions

void remove_punctuation(char* line) {
    char* end = line + strlen(line);
    *std::remove_if(line, end, [](char c) { return c == ',' || c == '{' || c == '}'; }) = '\0';
}

}  // namespace

int prepare_kernel_config(write_req* req) {
    if (!is_usable(req)) return -EINVAL;
    unique_fd fd = open_regular(KERNEL_CONFIG, SMALL_FILE_MAX);
    const unique_gzip config(fd ? gzdopen(fd.get(), "rbe") : nullptr);
    if (config) (void)fd.release();
    if (!config) {
        ALOGE("failed to gzopen %s\n", KERNEL_CONFIG);
        return -EINVAL;
    }
    const unique_malloc<char> line(static_cast<char*>(malloc(req->len)));
    if (!line) {
        ALOGE("%s: failed to alloc\n", __func__);
        return -ENOMEM;
    }
    if (write_text(req, "kernel_config:\n", __func__) != 0) return -EINVAL;

    // A damaged file ends where it cannot be read any further, and a small one may hold a lot.
    while (gztell(config.get()) < KERNEL_CONFIG_MAX &&
           gzgets(config.get(), line.get(), static_cast<int>(req->len))) {
        if (line.get()[0] == '#' || line.get()[0] == '\n') continue;
        char* text = text_of(req);
        const int printed = snprintf(text, req->len, " - %s", line.get());
        if (write_text(req, text, printed_len(printed, req->len), __func__) != 0) return -EINVAL;
    }
    return 0;
}

int prepare_pwr_onoff_reason(write_req* req) {
    if (!is_usable(req)) return -EINVAL;
    const unique_logger_list reader(android_logger_list_open(LOG_ID_KERNEL, O_NONBLOCK, 0, 0));
    if (!reader) {
        ALOGE("failed to open kernel buffer, err:%d\n", errno);
        return -EINVAL;
    }
    if (write_text(req, "\npower_cycles:\n", __func__) != 0) return -EINVAL;

    const size_t len = gather_power_events(req, reader.get());
    if (len == 0) {
        ALOGI("%s: not found pwr on/off reason in kmsg\n", __func__);
        return 0;
    }
    return write_text(req, text_of(req), len, __func__);
}

int prepare_sec_patch_level(write_req* req) {
    if (!is_usable(req)) return -EINVAL;
    char level[PROPERTY_VALUE_MAX];
    property_get("ro.build.version.security_patch", level, "undefined");
    char* text = text_of(req);
    const int printed =
        snprintf(text, req->len, "\nsecurity:\n android_security_patch_level: %s\n", level);
    return write_text(req, text, printed_len(printed, req->len), __func__);
}

int prepare_ver_info(write_req* req) {
    if (!is_usable(req)) return -EINVAL;
    const unique_file versions = fopen_regular(VERSION_FILE, SMALL_FILE_MAX);
    if (!versions) {
        ALOGE("%s: %s file not exist\n", __func__, VERSION_FILE);
        return -EINVAL;
    }
    const unique_malloc<char> line(static_cast<char*>(malloc(req->len)));
    if (!line) {
        ALOGE("%s: failed to malloc\n", __func__);
        return -ENOMEM;
    }
    size_t count = 0;
    if (!append(req, "\nver_info.txt:\n", strlen("\nver_info.txt:\n"), &count)) return -EINVAL;

    // It can grow as fast as it is read.
    while (ftello(versions.get()) < SMALL_FILE_MAX &&
           fgets(line.get(), static_cast<int>(req->len), versions.get())) {
        remove_punctuation(line.get());
        ALOGE("%s:%s", __func__, line.get());  // no error, but logged as one: deliberate
        if (!append(req, line.get(), strlen(line.get()), &count)) return -EINVAL;
    }
    return 0;
}

int prepare_aost_imsa_register(write_req* req) {
    if (!req || !req->row || !req->handle || !req->data) {
        ALOGE("[ERROR] wrong function parameter");
        return -EINVAL;
    }
    if (aost_imsa_init(req) != modem_result::OK) ALOGE("[ERROR] Failed to initiate IMS Client");
    return 0;
}
