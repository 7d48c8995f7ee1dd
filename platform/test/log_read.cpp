// Log readers that hand over what a test has scripted.
#include "platform/log_read.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <utility>

#include "base/unique_handle.h"
#include "platform_test.h"

struct logger_list {
    bool blocking = true;
};

namespace {

struct step {
    std::string entry;  // empty: a failure
    int result = 0;
};

struct script {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<step> steps;
    unique_fd more{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)};  // counts the steps
    int open_error = 0;
    size_t readers = 0;
    size_t blocked = 0;
};

// Never destroyed: a thread may read while the process ends.
script& the_script() {
    static script* const only = new script;
    return *only;
}

using guard = std::unique_lock<std::mutex>;

void add(step next) {
    script& s = the_script();
    const guard held(s.mutex);
    s.steps.push_back(std::move(next));
    eventfd_write(s.more.get(), 1);
}

int take(script& s, log_msg* msg) {
    const step next = std::move(s.steps.front());
    s.steps.pop_front();
    eventfd_t one = 0;
    (void)eventfd_read(s.more.get(), &one);
    if (next.entry.empty()) {
        errno = ENODATA;
        return next.result;
    }
    const size_t size = std::min<size_t>(next.entry.size(), LOGGER_ENTRY_MAX_LEN);
    memcpy(msg->buf, next.entry.data(), size);
    return static_cast<int>(size);
}

// Waits for a step. A signal handler that ran does not end it: the platform's library calls again.
void block(script& s, guard& held) {
    ++s.blocked;
    s.changed.notify_all();
    held.unlock();
    pollfd more{.fd = s.more.get(), .events = POLLIN, .revents = 0};
    (void)ppoll(&more, 1, nullptr, nullptr);
    held.lock();
    --s.blocked;
}

}  // namespace

void platform_test_script_log_entry(std::string entry) {
    add({.entry = std::move(entry), .result = 0});
}

void platform_test_wake_log_readers(int priority, const char* tag, const char* text) {
    {
        const guard held(the_script().mutex);
        if (the_script().blocked == 0) return;
    }
    std::string payload(1, static_cast<char>(priority));
    payload.append(tag).append(1, '\0').append(text).append(1, '\0');
    logger_entry header = {};
    header.len = static_cast<uint16_t>(payload.size());
    header.hdr_size = sizeof header;
    header.pid = getpid();
    add({.entry = std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload,
         .result = 0});
}

void platform_test_script_log_failure(int result) {
    add({.entry = "", .result = result});
}

void platform_test_fail_log_open(int error) {
    script& s = the_script();
    const guard held(s.mutex);
    s.open_error = error;
}

size_t platform_test_log_readers() {
    script& s = the_script();
    const guard held(s.mutex);
    return s.readers;
}

bool platform_test_wait_log_reader(int64_t limit_ms) {
    script& s = the_script();
    guard held(s.mutex);
    return s.changed.wait_for(held, std::chrono::milliseconds(limit_ms),
                              [&] { return s.blocked > 0 && s.steps.empty(); });
}

void platform_test_reset_log_script() {
    script& s = the_script();
    const guard held(s.mutex);
    eventfd_t one = 0;
    for (; !s.steps.empty(); s.steps.pop_front()) (void)eventfd_read(s.more.get(), &one);
    s.open_error = 0;
}

logger_list* android_logger_list_open(log_id_t, int mode, unsigned int, pid_t) {
    script& s = the_script();
    const guard held(s.mutex);
    if (const int error = std::exchange(s.open_error, 0)) {
        errno = error;
        return nullptr;
    }
    ++s.readers;
    return new logger_list{.blocking = (mode & O_NONBLOCK) == 0};
}

int android_logger_list_read(logger_list* list, log_msg* msg) {
    script& s = the_script();
    guard held(s.mutex);
    for (;;) {
        if (!s.steps.empty()) return take(s, msg);
        if (!list->blocking) return -EAGAIN;
        block(s, held);
    }
}

void android_logger_list_free(logger_list* list) {
    if (!list) return;
    script& s = the_script();
    const guard held(s.mutex);
    --s.readers;
    delete list;
}
