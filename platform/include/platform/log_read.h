// Reading the platform's log buffers.
#pragma once

#include <sys/types.h>

#include <cstdint>

extern "C" {

enum log_id_t : uint32_t {
    LOG_ID_MAIN = 0,
    LOG_ID_RADIO = 1,
    LOG_ID_EVENTS = 2,
    LOG_ID_SYSTEM = 3,
    LOG_ID_CRASH = 4,
    LOG_ID_STATS = 5,
    LOG_ID_SECURITY = 6,
    LOG_ID_KERNEL = 7,
    LOG_ID_MAX,  // none of them
};

// What stands in front of an entry's payload. The payload is one priority byte, the tag with its
// zero byte, the message with its zero byte.
struct logger_entry {
    uint16_t len;       // bytes of payload
    uint16_t hdr_size;  // bytes of this header
    int32_t pid;
    uint32_t tid;
    uint32_t sec;  // wall clock
    uint32_t nsec;
    uint32_t lid;  // log_id_t
    uint32_t uid;
};

// Most bytes of an entry that a read hands over, its header included.
enum { LOGGER_ENTRY_MAX_LEN = 5 * 1024 };

struct log_msg {
    union {
        unsigned char buf[LOGGER_ENTRY_MAX_LEN + 1];
        logger_entry entry;
    } __attribute__((aligned(4)));
};

struct logger_list;

// The buffer of that name ("main", "kernel", ...); LOG_ID_MAX when there is none. Any thread.
log_id_t android_name_to_log_id(const char* name);

// Opens one buffer for reading, from its oldest entry on or, with `tail`, from the last so many;
// `pid` other than 0 lets only that process's entries through. mode 0: reads block; O_NONBLOCK:
// they do not. Returns the reader, for android_logger_list_free, or null with errno set.
// Any thread.
logger_list* android_logger_list_open(log_id_t id, int mode, unsigned int tail, pid_t pid);

// Hands over the next entry. Returns the number of bytes; 0 or a negative errno on failure: -EAGAIN
// when there is none yet and reads do not block. A blocked read ends when there is an entry, and
// for nothing else: a signal handler that ran does not end it. One thread at a time.
int android_logger_list_read(logger_list* list, log_msg* msg);

// Closes a reader; null is none. No read may be under way.
void android_logger_list_free(logger_list* list);
}
