#include "framework/kbr_call.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <utility>

#include "framework/unique_handle.h"
#include "framework/wait.h"

namespace {

struct pending_message {
    kbr_client* client = nullptr;
    uint16_t msg_id = 0;
    const void* request = nullptr;
    uint32_t request_len = 0;
    void* response = nullptr;
    uint32_t response_len = 0;
    uint32_t timeout_ms = 0;
    int result = KBR_ERR_INTERNAL;
    unique_fd done{};  // eventfd
};

void* send(void* arg) {
    auto* message = static_cast<pending_message*>(arg);
    message->result = kbr_client_send_msg_sync(message->client, message->msg_id, message->request,
                                               message->request_len, message->response,
                                               message->response_len, message->timeout_ms);
    (void)eventfd_write(message->done.get(), 1);
    return nullptr;
}

// Signals are for the daemon's other threads.
bool start_thread(pthread_t* thread, pending_message* message) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int error = pthread_create(thread, nullptr, send, message);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error == 0;
}

}  // namespace

int vexastats_kbr_call(kbr_client** client, uint16_t msg_id, const void* request,
                       size_t request_len, void* response, size_t response_len, uint32_t timeout_ms,
                       const stop_flag& stop) {
    if (!*client || stop_flag_is_raised(stop)) return KBR_ERR_GONE;
    pending_message message{.client = *client,
                            .msg_id = msg_id,
                            .request = request,
                            .request_len = static_cast<uint32_t>(request_len),
                            .response = response,
                            .response_len = static_cast<uint32_t>(response_len),
                            .timeout_ms = timeout_ms};
    message.done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    pthread_t thread = {};
    if (!message.done || !start_thread(&thread, &message)) return KBR_ERR_INTERNAL;

    pollfd done{.fd = message.done.get(), .events = POLLIN, .revents = 0};
    if (vexastats_poll(&done, 1, -1, stop) < 0)
        (void)kbr_client_release(std::exchange(*client, nullptr));
    pthread_join(thread, nullptr);
    return message.result;
}
