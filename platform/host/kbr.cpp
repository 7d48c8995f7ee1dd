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
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "base/path.h"
#include "base/quiet_thread.h"
#include "host/kbr_client.h"

namespace {

constexpr char SOCKET_DIR[] = "/dev/socket/kbr";
constexpr int64_t CONNECT_PAUSE_MS = 20;  // between two tries while the service's queue is full

void drop_user(kbr_client* c) {
    if (c->users.fetch_sub(1) == 1) delete c;
}

// ---- Open clients, so that a call that comes while another thread releases its client finds that
// it is too late

vexa_mutex g_open_mutex;
kbr_client* g_open_clients GUARDED_BY(g_open_mutex) = nullptr;

void add_open(kbr_client* c) {
    const vexa_lock held(g_open_mutex);
    c->next_open = std::exchange(g_open_clients, c);
}

// Returns false when it is not there, or no longer.
bool remove_open(const kbr_client* c) {
    const vexa_lock held(g_open_mutex);
    kbr_client** link = &g_open_clients;
    while (*link && *link != c) link = &(*link)->next_open;
    if (!*link) return false;
    *link = (*link)->next_open;
    return true;
}

// Keeps an open client alive for a call.
bool add_user(const kbr_client* c) {
    const vexa_lock held(g_open_mutex);
    kbr_client* open = g_open_clients;
    while (open && open != c) open = open->next_open;
    if (open) open->users.fetch_add(1);
    return open != nullptr;
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

// ---- Indications

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

// ---- Threads

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
        if (!quiet_thread_start(&c->dispatcher, dispatch, c)) {
            c->users.store(1);
            return KBR_ERR_INTERNAL;
        }
        if (quiet_thread_start(&c->reader, kbr_read_packets, c)) return KBR_OK;
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
        kbr_call(client, msg_id, request, request_len, response, response_len, timeout_ms);
    drop_user(client);
    return result;
}

int kbr_client_message_decode(kbr_client* client, kbr_message_kind kind, uint32_t msg_id,
                              const void* buf, uint32_t len, void* out, uint32_t out_len) {
    if (!client || (!buf && len > 0)) return KBR_ERR_ARGUMENT;
    const kbr_message* message = kbr_find_message(*client->service, kind, msg_id);
    if (!message || !kbr_fits(*message, out, out_len)) return KBR_ERR_ARGUMENT;
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
