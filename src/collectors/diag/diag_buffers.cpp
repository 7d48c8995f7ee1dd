#define LOG_TAG "vexastatsd"

#include "collectors/diag/diag_buffers.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>

#include <algorithm>

#include "base/sync.h"
#include "base/unique_handle.h"
#include "collectors/diag/diag_notify.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "platform/log.h"
#include "timed_campaign/campaign_record.h"

namespace {

constexpr unsigned BUFFERS = 2;
constexpr char CONSUMER[] = "process_incoming_pkt";

// How often the owner's consent is looked for while a full buffer is held for want of it.
constexpr int64_t CONSENT_LOOK_MS = 1000;

struct log_buffer {
    bool empty = true;  // the producer may fill it
    bool full = false;  // the consumer may write it
    size_t count = 0;   // bytes in it
    uint8_t* data = nullptr;
};

// Alive as long as the process, so that a late packet finds a lock and the news that it is late.
struct buffer_pair {
    vexa_mutex lock{};
    vexa_cond emptied{};
    unique_fd filled GUARDED_BY(lock){};  // eventfd: readable once a buffer was filled
    unique_malloc<uint8_t> memory GUARDED_BY(lock){};
    log_buffer buffers[BUFFERS] GUARDED_BY(lock){};
    unsigned write_index GUARDED_BY(lock) = 0;
    unsigned read_index GUARDED_BY(lock) = 0;
    bool open GUARDED_BY(lock) = false;
};
constinit buffer_pair g_pair;

// ---- Producer

void hand_over(log_buffer* buffer) REQUIRES(g_pair.lock) {
    buffer->full = true;
    buffer->empty = false;
    (void)eventfd_write(g_pair.filled.get(), 1);
    g_pair.write_index ^= 1;
}

void append(log_buffer* buffer, bool prefixed, const uint8_t* data, size_t length)
    REQUIRES(g_pair.lock) {
    uint8_t* to = buffer->data + buffer->count;
    size_t room = DIAG_BUFFER_SIZE - buffer->count;
    if (prefixed) {
        *to++ = DIAG_PREFIX;
        --room;
        ++buffer->count;
    }
    buffer->count += memscpy(to, room, data, length);
}

// ---- Consumer

int64_t deadline_after_s(uint64_t seconds) {
    constexpr uint64_t LONGEST_S = INT32_MAX;
    return static_cast<int64_t>(vexastats_real_time_ms() + std::min(seconds, LONGEST_S) * 1000);
}

bool is_over(int64_t deadline_ms, const stop_flag& stop) {
    return stop_flag_is_raised(stop) ||
           static_cast<int64_t>(vexastats_real_time_ms()) >= deadline_ms;
}

// Whether the consumer's buffer is full, and the descriptor that tells when one was filled.
bool next_is_full(int* filled_fd) {
    const vexa_lock lock(g_pair.lock);
    *filled_fd = g_pair.filled.get();
    return g_pair.buffers[g_pair.read_index].full;
}

// What the next wait ends with at the latest.
int64_t next_look(bool is_held, int64_t deadline_ms) {
    if (!is_held) return deadline_ms;
    return std::min(deadline_ms, static_cast<int64_t>(vexastats_real_time_ms()) + CONSENT_LOOK_MS);
}

enum class full_wait {
    FULL,    // the consumer's buffer is full and may be written
    ENDED,   // it is not, or may not, and the time has come or the row has to stop
    FAILED,  // logged
};

// What the consumer waits for.
enum poll_place { FILLED, NOTIFICATION, POLL_FDS };

full_wait wait_until_full(int64_t deadline_ms, const timed_campaign& campaign) {
    const stop_flag& stop = campaign.row->stop;
    pollfd fds[POLL_FDS] = {};
    fds[FILLED] = {.fd = -1, .events = POLLIN, .revents = 0};
    fds[NOTIFICATION] = {.fd = diag_notify_fd(), .events = POLLIN, .revents = 0};
    // The end is looked for before the buffer: what is full by then is still written.
    for (bool ended = false;;) {
        ended = ended || is_over(deadline_ms, stop);
        const bool is_full = next_is_full(&fds[FILLED].fd);
        if (is_full && campaign_has_consent(campaign)) return full_wait::FULL;
        if (ended) return full_wait::ENDED;
        const int ready =
            vexastats_poll_until(fds, POLL_FDS, next_look(is_full, deadline_ms), stop);
        ended = ready == -EINTR || (ready == 0 && !is_full);
        if (ready < 0 && !ended) {
            ALOGE("%s: failed to wait. err:%d\n", CONSUMER, -ready);
            return full_wait::FAILED;
        }
        if (ready <= 0) continue;
        if (fds[NOTIFICATION].revents) diag_notify_log();
        eventfd_t ignored = 0;
        if (fds[FILLED].revents) (void)eventfd_read(fds[FILLED].fd, &ignored);
    }
}

// Only the consumer changes a full buffer, so its bytes can be read without the lock.
log_buffer full_buffer() {
    const vexa_lock lock(g_pair.lock);
    return g_pair.buffers[g_pair.read_index];
}

void give_back() {
    const vexa_lock lock(g_pair.lock);
    log_buffer& buffer = g_pair.buffers[g_pair.read_index];
    buffer.empty = true;
    buffer.full = false;
    buffer.count = 0;
    g_pair.emptied.notify_all();
    g_pair.read_index ^= 1;
}

// Writes the full buffer and gives it back. One that could not be written for want of consent stays
// full. Returns 0 or -EINVAL, logged.
int write_full_buffer(timed_campaign* campaign) {
    const log_buffer buffer = full_buffer();
    if (!buffer.data) {
        ALOGE(" Invalid Write Buffer in %s\n", CONSUMER);
        give_back();
        return -EINVAL;
    }
    const size_t written = campaign_append(campaign, buffer.data, buffer.count);
    if (written < buffer.count) {
        ALOGE("%s: failed to write file. cnt:%zu\n", CONSUMER, written);
        // The dropbox may have gone in this very moment, and a full record with nowhere to go to.
        if (!campaign_has_consent(*campaign)) return campaign_resume_record(campaign) ? 0 : -EINVAL;
        campaign_recover_record(campaign);
    }
    give_back();
    return written == buffer.count ? 0 : -EINVAL;
}

}  // namespace

int diag_dci_init_buffers() {
    unique_malloc<uint8_t> memory(static_cast<uint8_t*>(calloc(BUFFERS, DIAG_BUFFER_SIZE)));
    unique_fd filled(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!memory || !filled) return -ENOMEM;

    const vexa_lock lock(g_pair.lock);
    for (unsigned i = 0; i < BUFFERS; ++i) {
        g_pair.buffers[i] = {.data = memory.get() + i * DIAG_BUFFER_SIZE};
    }
    g_pair.memory = std::move(memory);
    g_pair.filled = std::move(filled);
    g_pair.write_index = 0;
    g_pair.read_index = 0;
    g_pair.open = true;
    return 0;
}

void diag_dci_shut_buffers() {
    const vexa_lock lock(g_pair.lock);
    g_pair.open = false;
    g_pair.emptied.notify_all();
}

void diag_dci_release_buffers() {
    diag_dci_shut_buffers();
    const vexa_lock lock(g_pair.lock);
    for (log_buffer& buffer : g_pair.buffers) buffer = {};
    g_pair.memory.reset();
    g_pair.filled.reset();
}

void diag_dci_copy_to_buffer(int type, const uint8_t* data, int length) {
    const vexa_lock lock(g_pair.lock);
    while (g_pair.open && !g_pair.buffers[g_pair.write_index].empty) {
        g_pair.emptied.wait(g_pair.lock);
    }
    if (!g_pair.open || !data || length < 1) return;

    log_buffer* buffer = &g_pair.buffers[g_pair.write_index];
    const bool prefixed = type == DIAG_TYPE_PREFIXED;
    const size_t needed = static_cast<size_t>(length) + (prefixed ? 1 : 0);
    if (buffer->count + needed >= DIAG_BUFFER_SIZE) {
        hand_over(buffer);  // and the packet that did not fit is dropped: deliberate
        return;
    }
    append(buffer, prefixed, data, static_cast<size_t>(length));
}

int process_incoming_pkt(timed_campaign* campaign, uint64_t seconds) {
    const stop_flag& stop = campaign->row->stop;
    const int64_t deadline_ms = deadline_after_s(seconds);
    // A producer that has always filled the next buffer by now must not keep this going for ever.
    for (unsigned late_buffers = 0; late_buffers < BUFFERS;) {
        const full_wait result = wait_until_full(deadline_ms, *campaign);
        if (result != full_wait::FULL) return result == full_wait::FAILED ? -EINVAL : 0;
        if (is_over(deadline_ms, stop)) ++late_buffers;
        if (write_full_buffer(campaign) != 0) return -EINVAL;
    }
    return 0;
}

size_t memscpy(void* dst, size_t dst_size, const void* src, size_t src_size) {
    const size_t count = std::min(dst_size, src_size);
    memcpy(dst, src, count);
    return count;
}
