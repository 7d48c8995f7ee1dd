// Calls and their responses.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <utility>

#include "host/kbr_client.h"

namespace {

void end_call(pending_call* call, int result) {
    if (call->over) return;
    call->over = true;
    call->result = result;
    (void)eventfd_write(call->done.get(), 1);
}

bool reports_failure(const kbr_message& response, const void* structure) {
    for (const kbr_field& field : response.fields) {
        uint32_t result = 0;
        if (field.kind != KBR_RESULT) continue;
        memcpy(&result, static_cast<const uint8_t*>(structure) + field.offset, sizeof result);
        if (result != 0) return true;
    }
    return false;
}

// Numbers the call and puts it where the reader finds it.
int begin_call(kbr_client* c, pending_call* call) {
    const vexa_lock held(c->mutex);
    if (c->gone) return KBR_ERR_GONE;
    const auto in_use = [&](uint16_t transaction) REQUIRES(c->mutex) {
        const pending_call* other = c->calls;
        while (other && other->transaction != transaction) other = other->next;
        return other != nullptr;
    };
    do {
        ++c->last_transaction;
    } while (c->last_transaction == 0 || in_use(c->last_transaction));
    call->transaction = c->last_transaction;
    call->next = std::exchange(c->calls, call);
    c->changed.notify_all();
    return KBR_OK;
}

// Takes the call out of the reader's reach. Returns its result.
int finish_call(kbr_client* c, pending_call* call) {
    const vexa_lock held(c->mutex);
    pending_call** link = &c->calls;
    while (*link != call) link = &(*link)->next;
    *link = call->next;
    return call->result;
}

// Waits for an event on one descriptor. Returns false when the time has passed.
bool wait_for(int fd, short event, const deadline& end) {
    for (;;) {
        pollfd ready{.fd = fd, .events = event, .revents = 0};
        const int count = platform_poll(&ready, 1, end.left_ms());
        if (count >= 0 || errno != EINTR) return count > 0;
    }
}

int send_packet(const kbr_client& c, const uint8_t* packet, size_t size, const deadline& end) {
    for (;;) {
        const ssize_t sent = send(c.socket.get(), packet, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) return KBR_OK;
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return KBR_ERR_GONE;
        if (!wait_for(c.socket.get(), POLLOUT, end)) return KBR_ERR_TIMEOUT;
    }
}

int call(kbr_client* c, const kbr_message& asked, const void* request, const kbr_message& answered,
         void* response, uint32_t timeout_ms) {
    const deadline end = deadline::in_ms(timeout_ms);
    const unique_malloc<uint8_t> packet(
        static_cast<uint8_t*>(malloc(KBR_HEADER_SIZE + kbr_message_max_len(asked))));
    pending_call pending{.expected = &answered, .response = response};
    pending.done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!packet || !pending.done) return KBR_ERR_INTERNAL;
    size_t len = 0;
    if (kbr_encode(asked, request, packet.get() + KBR_HEADER_SIZE, &len) != KBR_OK ||
        len > UINT16_MAX) {
        return KBR_ERR_FORMAT;
    }
    int result = begin_call(c, &pending);
    if (result != KBR_OK) return result;
    kbr_put_header({.kind = KBR_REQUEST,
                    .transaction = pending.transaction,
                    .msg_id = asked.id,
                    .len = static_cast<uint16_t>(len)},
                   packet.get());
    result = send_packet(*c, packet.get(), KBR_HEADER_SIZE + len, end);
    if (result == KBR_OK) (void)wait_for(pending.done.get(), POLLIN, end);
    const int answer = finish_call(c, &pending);
    return result == KBR_OK ? answer : result;
}

}  // namespace

bool kbr_fits(const kbr_message& message, const void* structure, uint32_t len) {
    return len == message.struct_size && (structure || len == 0);
}

int kbr_call(kbr_client* c, uint32_t msg_id, const void* request, uint32_t request_len,
             void* response, uint32_t response_len, uint32_t timeout_ms) {
    const kbr_message* asked = kbr_find_message(*c->service, KBR_REQUEST, msg_id);
    const kbr_message* answered = kbr_find_message(*c->service, KBR_RESPONSE, msg_id);
    if (!asked || !answered) return KBR_ERR_ARGUMENT;
    if (!kbr_fits(*asked, request, request_len) || !kbr_fits(*answered, response, response_len))
        return KBR_ERR_ARGUMENT;
    if (response) memset(response, 0, response_len);
    return call(c, *asked, request, *answered, response, timeout_ms);
}

// Finds the call that a response is for. One that came too late, or has another message's id, is
// nobody's.
void kbr_deliver_response(kbr_client* c, const kbr_header& header, const uint8_t* fields) {
    const vexa_lock held(c->mutex);
    pending_call* call = c->calls;
    while (call && call->transaction != header.transaction) call = call->next;
    if (!call || call->over || call->expected->id != header.msg_id) return;
    int result = kbr_decode(*call->expected, fields, header.len, call->response);
    if (result == KBR_OK && reports_failure(*call->expected, call->response))
        result = KBR_ERR_REFUSED;
    end_call(call, result);
}

void kbr_lose_connection(kbr_client* c) {
    const vexa_lock held(c->mutex);
    c->gone = true;
    for (pending_call* call = c->calls; call; call = call->next) end_call(call, KBR_ERR_GONE);
}
