#include "collectors/mccbandlist/pdc_send.h"

#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/eventfd.h>

#include <atomic>
#include <memory>
#include <new>

#include "framework/unique_handle.h"
#include "framework/wait.h"

namespace {

// Freed by its caller, or by the thread when the caller has left it.
struct exchange {
    kbr_client* client = nullptr;
    uint16_t msg_id = 0;
    uint32_t request_len = 0;
    alignas(8) uint8_t request[sizeof(pdc_load_config_request)] = {};
    uint32_t timeout_ms = 0;
    pdc_response response{};
    int result = KBR_ERR_INTERNAL;
    unique_fd over{};               // eventfd, readable once there is a result
    std::atomic<bool> left{false};  // by whoever of the two came first
};

// Returns true for the first of the two, the caller and the thread, who is through.
bool leave_first(exchange* e) {
    return !e->left.exchange(true);
}

void* carry_out(void* arg) {
    auto* e = static_cast<exchange*>(arg);
    e->result = kbr_client_send_msg_sync(e->client, e->msg_id, e->request, e->request_len,
                                         &e->response, sizeof e->response, e->timeout_ms);
    if (leave_first(e)) {
        (void)eventfd_write(e->over.get(), 1);
    } else {
        (void)kbr_client_release(e->client);
        delete e;
    }
    return nullptr;
}

}  // namespace

int pdc_send(kbr_client** client, uint16_t msg_id, const void* request, size_t request_len,
             pdc_response* response, uint32_t timeout_ms, const stop_flag& stop) {
    if (stop_flag_is_raised(stop)) return KBR_ERR_GONE;
    std::unique_ptr<exchange> e(new (std::nothrow) exchange);
    if (!e || request_len > sizeof e->request) return KBR_ERR_INTERNAL;
    e->client = *client;
    e->msg_id = msg_id;
    e->request_len = static_cast<uint32_t>(request_len);
    memcpy(e->request, request, request_len);
    e->timeout_ms = timeout_ms;
    e->over.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    pthread_t thread;
    if (!e->over || pthread_create(&thread, nullptr, carry_out, e.get()) != 0)
        return KBR_ERR_INTERNAL;

    pollfd over{.fd = e->over.get(), .events = POLLIN, .revents = 0};
    if (vexastats_poll(&over, 1, -1, stop) < 0 && leave_first(e.get())) {
        pthread_detach(thread);
        (void)e.release();
        *client = nullptr;
        return KBR_ERR_GONE;
    }
    pthread_join(thread, nullptr);
    *response = e->response;
    return e->result;
}
