// The thread that takes a client's packets off its socket.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <new>

#include "host/kbr_client.h"

namespace {

// How many indications wait for the callback before the reader leaves the rest in the socket. A
// call in progress keeps it reading, for the response may lie behind them; what then comes above
// the second limit is thrown away.
constexpr size_t QUEUE_LIMIT = 256;
constexpr size_t QUEUE_LIMIT_IN_CALL = 4096;

// The same in bytes of messages, for a modem whose indications are as long as packets may be.
constexpr size_t QUEUE_BYTES = size_t{1} << 20;
constexpr size_t QUEUE_BYTES_IN_CALL = size_t{4} << 20;

void queue_indication(kbr_client* c, const kbr_header& header, const uint8_t* fields) {
    if (!c->callback) return;
    void* memory = malloc(sizeof(indication) + header.len);
    if (!memory) return;
    auto* added = new (memory) indication{.msg_id = header.msg_id, .len = header.len};
    memcpy(added->bytes(), fields, header.len);

    const vexa_lock held(c->mutex);
    if (c->queued >= QUEUE_LIMIT_IN_CALL || c->queued_bytes + header.len > QUEUE_BYTES_IN_CALL) {
        free(added);
        return;
    }
    (c->first ? c->last->next : c->first) = added;
    c->last = added;
    ++c->queued;
    c->queued_bytes += header.len;
    c->changed.notify_all();
}

// Returns whether the next packet may be read; false once the client is released.
bool wait_for_room(kbr_client* c) {
    const vexa_lock held(c->mutex);
    const auto is_full = [&]() REQUIRES(c->mutex) {
        return c->queued >= QUEUE_LIMIT || c->queued_bytes >= QUEUE_BYTES;
    };
    while (is_full() && !c->calls && !c->released) c->changed.wait(c->mutex);
    return !c->released;
}

void handle_packet(kbr_client* c, size_t size) {
    kbr_header header;
    if (size > KBR_PACKET_MAX || !kbr_get_header(c->packet, size, &header)) return;
    const uint8_t* fields = c->packet + KBR_HEADER_SIZE;
    if (header.kind == KBR_RESPONSE) kbr_deliver_response(c, header, fields);
    if (header.kind == KBR_INDICATION) queue_indication(c, header, fields);
}

// Reads one packet. Returns false when the modem has gone.
bool read_packet(kbr_client* c) {
    pollfd readable{.fd = c->socket.get(), .events = POLLIN | POLLRDHUP, .revents = 0};
    if (platform_poll(&readable, 1, -1) < 0) return errno == EINTR;
    const ssize_t size = recv(c->socket.get(), c->packet, sizeof c->packet, MSG_DONTWAIT);
    if (size < 0) return errno == EINTR || errno == EAGAIN;
    // An empty packet reads like the end.
    if (size == 0) return (readable.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0;
    handle_packet(c, static_cast<size_t>(size));
    return true;
}

}  // namespace

void* kbr_read_packets(void* arg) {
    auto* c = static_cast<kbr_client*>(arg);
    while (wait_for_room(c) && read_packet(c)) {
    }
    kbr_lose_connection(c);
    return nullptr;
}
