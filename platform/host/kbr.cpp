// The modem messaging library on Linux: one connection a client, over a socket of packets
// (docs/platform.md).
//
// A client has two threads. The reader takes every packet off the socket: it hands a response to
// the call that waits for it and queues an indication. The dispatcher calls the indication
// callback. So a callback may make calls, which the reader answers meanwhile, and may release the
// client: the dispatcher, which cannot wait for itself, is then left to end alone.
#include "platform/kbr.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include "base/path.h"
#include "base/sync.h"
#include "base/unique_handle.h"
#include "host/kbr_message.h"
#include "platform/clock.h"

namespace {

constexpr char SOCKET_DIR[] = "/dev/socket/kbr";
constexpr int64_t CONNECT_PAUSE_MS = 20;  // between two tries while the service's queue is full

// How many indications wait for the callback before the reader leaves the rest in the socket. A
// call in progress keeps it reading, for the response may lie behind them; what then comes above
// the second limit is thrown away.
constexpr size_t QUEUE_LIMIT = 256;
constexpr size_t QUEUE_LIMIT_IN_CALL = 4096;

// The same in bytes of messages, for a modem whose indications are as long as packets may be.
constexpr size_t QUEUE_BYTES = size_t{1} << 20;
constexpr size_t QUEUE_BYTES_IN_CALL = size_t{4} << 20;

struct indication {
    indication* next = nullptr;
    uint16_t msg_id = 0;
    uint16_t len = 0;

    uint8_t* bytes() { return reinterpret_cast<uint8_t*>(this + 1); }
};

// A call that waits for its response. It lives on its caller's stack.
struct pending_call {
    pending_call* next = nullptr;
    const kbr_message* expected = nullptr;
    void* response = nullptr;
    uint16_t transaction = 0;
    bool over = false;
    int result = KBR_ERR_TIMEOUT;
    unique_fd done{};  // eventfd, readable once it is over
};

struct deadline {
    int64_t end_ms = 0;

    static int64_t now_ms() {
        timespec now = {};
        (void)platform_clock_gettime(CLOCK_MONOTONIC, &now);
        return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    }
    static deadline in_ms(int64_t ms) { return {.end_ms = now_ms() + ms}; }
    int64_t left_ms() const { return std::max<int64_t>(end_ms - now_ms(), 0); }
};

}  // namespace

struct kbr_client {
    kbr_client() = default;
    ~kbr_client() {
        while (first) free(std::exchange(first, first->next));
    }
    kbr_client(const kbr_client&) = delete;
    kbr_client& operator=(const kbr_client&) = delete;

    const kbr_service_object* service = nullptr;
    kbr_indication_cb callback = nullptr;
    void* cb_data = nullptr;
    unique_fd socket{};

    // The handle, the dispatcher and every call in progress; the last to go frees the client.
    std::atomic<int> users{1};

    kbr_client* next_open = nullptr;  // in the list of clients that are not released

    vexa_mutex mutex{};
    vexa_cond changed{};  // the queue, the calls, or the two flags
    pthread_t reader GUARDED_BY(mutex){};
    pthread_t dispatcher GUARDED_BY(mutex){};
    pending_call* calls GUARDED_BY(mutex) = nullptr;
    uint16_t last_transaction GUARDED_BY(mutex) = 0;
    indication* first GUARDED_BY(mutex) = nullptr;
    indication* last GUARDED_BY(mutex) = nullptr;
    size_t queued GUARDED_BY(mutex) = 0;
    size_t queued_bytes GUARDED_BY(mutex) = 0;
    bool gone GUARDED_BY(mutex) = false;  // the modem has; set as well by the release
    bool released GUARDED_BY(mutex) = false;

    uint8_t packet[KBR_PACKET_MAX + 1];  // the reader's; a byte more shows that one is too long
};

namespace {

void drop_user(kbr_client* c) {
    if (c->users.fetch_sub(1) == 1) delete c;
}

// ---- Open clients, so that a call that comes while another thread releases its client finds that
// it is too late

vexa_mutex open_mutex;
kbr_client* open_clients GUARDED_BY(open_mutex) = nullptr;

void add_open(kbr_client* c) {
    const vexa_lock held(open_mutex);
    c->next_open = std::exchange(open_clients, c);
}

// Returns false when it is not there, or no longer.
bool remove_open(const kbr_client* c) {
    const vexa_lock held(open_mutex);
    kbr_client** link = &open_clients;
    while (*link && *link != c) link = &(*link)->next_open;
    if (!*link) return false;
    *link = (*link)->next_open;
    return true;
}

// Keeps an open client alive for a call.
bool add_user(const kbr_client* c) {
    const vexa_lock held(open_mutex);
    kbr_client* open = open_clients;
    while (open && open != c) open = open->next_open;
    if (open) open->users.fetch_add(1);
    return open != nullptr;
}

// ---- Calls and their responses

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

// Finds the call that a response is for. One that came too late, or has another message's id, is
// nobody's.
void take_response(kbr_client* c, const kbr_header& header, const uint8_t* fields) {
    const vexa_lock held(c->mutex);
    pending_call* call = c->calls;
    while (call && call->transaction != header.transaction) call = call->next;
    if (!call || call->over || call->expected->id != header.msg_id) return;
    int result = kbr_decode(*call->expected, fields, header.len, call->response);
    if (result == KBR_OK && reports_failure(*call->expected, call->response))
        result = KBR_ERR_REFUSED;
    end_call(call, result);
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

bool fits(const kbr_message& message, const void* structure, uint32_t len) {
    return len == message.struct_size && (structure || len == 0);
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

int checked_call(kbr_client* c, uint32_t msg_id, const void* request, uint32_t request_len,
                 void* response, uint32_t response_len, uint32_t timeout_ms) {
    const kbr_message* asked = kbr_find_message(*c->service, KBR_REQUEST, msg_id);
    const kbr_message* answered = kbr_find_message(*c->service, KBR_RESPONSE, msg_id);
    if (!asked || !answered) return KBR_ERR_ARGUMENT;
    if (!fits(*asked, request, request_len) || !fits(*answered, response, response_len))
        return KBR_ERR_ARGUMENT;
    if (response) memset(response, 0, response_len);
    return call(c, *asked, request, *answered, response, timeout_ms);
}

// ---- Indications

void take_indication(kbr_client* c, const kbr_header& header, const uint8_t* fields) {
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

// The next indication, to be freed; null once the client is released.
indication* next_indication(kbr_client* c) {
    const vexa_lock held(c->mutex);
    while (!c->first && !c->released) c->changed.wait(c->mutex);
    if (c->released) return nullptr;
    --c->queued;
    c->queued_bytes -= c->first->len;
    c->changed.notify_all();
    return std::exchange(c->first, c->first->next);
}

void* dispatch(void* arg) {
    auto* c = static_cast<kbr_client*>(arg);
    while (indication* next = next_indication(c)) {
        const unique_malloc<indication> owned(next);
        c->callback(c, next->msg_id, next->bytes(), next->len, c->cb_data);
    }
    drop_user(c);
    return nullptr;
}

// ---- The socket

// Returns whether the next packet may be read; false once the client is released.
bool wait_for_room(kbr_client* c) {
    const vexa_lock held(c->mutex);
    const auto is_full = [&]() REQUIRES(c->mutex) {
        return c->queued >= QUEUE_LIMIT || c->queued_bytes >= QUEUE_BYTES;
    };
    while (is_full() && !c->calls && !c->released) c->changed.wait(c->mutex);
    return !c->released;
}

void take_packet(kbr_client* c, size_t size) {
    kbr_header header;
    if (size > KBR_PACKET_MAX || !kbr_get_header(c->packet, size, &header)) return;
    const uint8_t* fields = c->packet + KBR_HEADER_SIZE;
    if (header.kind == KBR_RESPONSE) take_response(c, header, fields);
    if (header.kind == KBR_INDICATION) take_indication(c, header, fields);
}

// Reads one packet. Returns false when the modem has gone.
bool read_packet(kbr_client* c) {
    pollfd readable{.fd = c->socket.get(), .events = POLLIN | POLLRDHUP, .revents = 0};
    if (platform_poll(&readable, 1, -1) < 0) return errno == EINTR;
    const ssize_t size = recv(c->socket.get(), c->packet, sizeof c->packet, MSG_DONTWAIT);
    if (size < 0) return errno == EINTR || errno == EAGAIN;
    // An empty packet reads like the end.
    if (size == 0) return (readable.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0;
    take_packet(c, static_cast<size_t>(size));
    return true;
}

void lose_connection(kbr_client* c) {
    const vexa_lock held(c->mutex);
    c->gone = true;
    for (pending_call* call = c->calls; call; call = call->next) end_call(call, KBR_ERR_GONE);
}

void* read_packets(void* arg) {
    auto* c = static_cast<kbr_client*>(arg);
    while (wait_for_room(c) && read_packet(c)) {
    }
    lose_connection(c);
    return nullptr;
}

// Connects, trying again until the deadline while the service is slow to accept.
int connect_to(const kbr_service_object& service, const deadline& end, unique_fd* connected) {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (!path_join(address.sun_path, SOCKET_DIR, service.name)) return KBR_ERR_GONE;
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return KBR_ERR_INTERNAL;
    while (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return KBR_ERR_GONE;
        const int64_t left_ms = end.left_ms();
        if (left_ms == 0) return KBR_ERR_TIMEOUT;
        (void)platform_poll(nullptr, 0, std::min(left_ms, CONNECT_PAUSE_MS));
    }
    *connected = std::move(fd);
    return KBR_OK;
}

// ---- Threads

// Signals are for the daemon's own threads.
bool start_thread(pthread_t* thread, void* (*body)(void*), kbr_client* c) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(thread, nullptr, body, c);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0;
}

void stop_dispatcher(kbr_client* c) {
    pthread_t dispatcher = {};
    {
        const vexa_lock held(c->mutex);
        c->released = true;
        dispatcher = c->dispatcher;
        c->changed.notify_all();
    }
    if (pthread_equal(dispatcher, pthread_self())) {
        pthread_detach(dispatcher);
    } else {
        pthread_join(dispatcher, nullptr);
    }
}

// Nothing of the client may be touched after the lock: from then on the callback may release it.
int start_threads(kbr_client* c) {
    {
        const vexa_lock held(c->mutex);
        c->users.store(2);
        if (!start_thread(&c->dispatcher, dispatch, c)) {
            c->users.store(1);
            return KBR_ERR_INTERNAL;
        }
        if (start_thread(&c->reader, read_packets, c)) return KBR_OK;
    }
    stop_dispatcher(c);
    return KBR_ERR_INTERNAL;
}

}  // namespace

int kbr_client_init_instance(const kbr_service_object* service, uint32_t instance,
                             kbr_indication_cb indication_cb, void* cb_data, uint32_t timeout_s,
                             kbr_client** client) {
    if (!client) return KBR_ERR_ARGUMENT;
    *client = nullptr;
    if (!service || !service->name) return KBR_ERR_ARGUMENT;
    if (instance != KBR_ANY_INSTANCE) return KBR_ERR_GONE;  // there is one, without a number
    std::unique_ptr<kbr_client> made(new (std::nothrow) kbr_client);
    if (!made) return KBR_ERR_INTERNAL;
    made->service = service;
    made->callback = indication_cb;
    made->cb_data = cb_data;
    int result = connect_to(*service, deadline::in_ms(int64_t{timeout_s} * 1000), &made->socket);
    if (result != KBR_OK) return result;
    *client = made.get();
    add_open(made.get());
    result = start_threads(made.get());
    if (result != KBR_OK) {
        (void)remove_open(made.get());
        *client = nullptr;
        return result;
    }
    (void)made.release();
    return KBR_OK;
}

int kbr_client_send_msg_sync(kbr_client* client, uint32_t msg_id, const void* request,
                             uint32_t request_len, void* response, uint32_t response_len,
                             uint32_t timeout_ms) {
    if (!client) return KBR_ERR_ARGUMENT;
    if (!add_user(client)) return KBR_ERR_GONE;
    const int result =
        checked_call(client, msg_id, request, request_len, response, response_len, timeout_ms);
    drop_user(client);
    return result;
}

int kbr_client_message_decode(kbr_client* client, kbr_message_kind kind, uint32_t msg_id,
                              const void* buf, uint32_t len, void* out, uint32_t out_len) {
    if (!client || (!buf && len > 0)) return KBR_ERR_ARGUMENT;
    const kbr_message* message = kbr_find_message(*client->service, kind, msg_id);
    if (!message || !fits(*message, out, out_len)) return KBR_ERR_ARGUMENT;
    return kbr_decode(*message, static_cast<const uint8_t*>(buf), len, out);
}

int kbr_client_release(kbr_client* client) {
    if (!client || !remove_open(client)) return KBR_ERR_ARGUMENT;
    pthread_t reader = {};
    {
        const vexa_lock held(client->mutex);
        client->released = true;
        client->changed.notify_all();
        reader = client->reader;
    }
    shutdown(client->socket.get(), SHUT_RDWR);
    pthread_join(reader, nullptr);
    stop_dispatcher(client);
    drop_user(client);
    return KBR_OK;
}

int kbr_idl_get_idl_version(const kbr_service_object* service, uint32_t* version) {
    if (!service || !version) return KBR_ERR_ARGUMENT;
    *version = service->idl_version;
    return KBR_OK;
}

int kbr_idl_get_idl_minor_version(const kbr_service_object* service, uint32_t* version) {
    if (!service || !version) return KBR_ERR_ARGUMENT;
    *version = service->idl_minor_version;
    return KBR_OK;
}

int kbr_idl_get_message_c_struct_len(const kbr_service_object* service, kbr_message_kind kind,
                                     uint32_t msg_id, uint32_t* len) {
    if (!service || !len) return KBR_ERR_ARGUMENT;
    const kbr_message* message = kbr_find_message(*service, kind, msg_id);
    if (!message) return KBR_ERR_ARGUMENT;
    *len = message->struct_size;
    return KBR_OK;
}
