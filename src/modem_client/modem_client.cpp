#include "modem_client/modem_client.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/eventfd.h>

#include <memory>
#include <new>
#include <utility>

#include "base/quiet_thread.h"
#include "base/unique_handle.h"
#include "framework/time/test_window.h"
#include "framework/time/wait.h"

struct modem_connection {
    enum class state { CONNECTING, OPEN, ABANDONED };

    const kbr_service_object* service = nullptr;
    kbr_indication_cb callback = nullptr;

    // Of the thread that connects; the others look at them once it is through.
    kbr_client* handle = nullptr;
    int result = KBR_ERR_INTERNAL;
    unique_fd done{};  // eventfd

    vexa_mutex mutex{};
    vexa_cond changed{};
    state now GUARDED_BY(mutex) = state::CONNECTING;
    bool is_through GUARDED_BY(mutex) = false;  // the thread that connects
};

namespace {

constexpr uint32_t CONNECT_TIMEOUT_S = 4;

using state = modem_connection::state;

// ---- Connecting

void set_state(modem_connection* connection, state now) {
    const vexa_lock held(connection->mutex);
    connection->now = now;
    connection->changed.notify_all();
}

void end_connection(modem_connection* connection) {
    set_state(connection, state::ABANDONED);  // a callback that waits returns
    if (connection->handle) (void)kbr_client_release(connection->handle);
    delete connection;
}

// Hands an indication on once the client knows its connection, and never when it gave it up.
void deliver(kbr_client* handle, uint32_t msg_id, void* buf, uint32_t len, void* data) {
    auto* connection = static_cast<modem_connection*>(data);
    {
        const vexa_lock held(connection->mutex);
        while (connection->now == state::CONNECTING) connection->changed.wait(connection->mutex);
        if (connection->now == state::ABANDONED) return;
    }
    connection->callback(handle, msg_id, buf, len, nullptr);
}

// Returns whether somebody still waits for the connection.
bool report_through(modem_connection* connection) {
    const vexa_lock held(connection->mutex);
    connection->is_through = true;
    if (connection->now == state::ABANDONED) return false;
    (void)eventfd_write(connection->done.get(), 1);
    return true;
}

void* connect_to_service(void* arg) {
    auto* connection = static_cast<modem_connection*>(arg);
    connection->result =
        kbr_client_init_instance(connection->service, KBR_ANY_INSTANCE, deliver, connection,
                                 CONNECT_TIMEOUT_S, &connection->handle);
    if (!report_through(connection)) end_connection(connection);
    return nullptr;
}

// Leaves the connection to its thread. Returns false when that is through already.
bool abandon(modem_connection* connection) {
    const vexa_lock held(connection->mutex);
    if (connection->is_through) return false;
    connection->now = state::ABANDONED;
    connection->changed.notify_all();
    return true;
}

// ---- Requests

struct pending_message {
    kbr_client* handle = nullptr;
    uint16_t msg_id = 0;
    const void* request = nullptr;
    uint32_t request_len = 0;
    void* response = nullptr;
    uint32_t response_len = 0;
    uint32_t timeout_ms = 0;
    int result = KBR_ERR_INTERNAL;
    unique_fd done{};  // eventfd
};

void* send_message(void* arg) {
    auto* message = static_cast<pending_message*>(arg);
    message->result = kbr_client_send_msg_sync(message->handle, message->msg_id, message->request,
                                               message->request_len, message->response,
                                               message->response_len, message->timeout_ms);
    (void)eventfd_write(message->done.get(), 1);
    return nullptr;
}

// Waits until the thread behind `done` is through. Returns false when `stop` comes first.
bool wait_through(const unique_fd& done, const stop_flag& stop) {
    pollfd fd{.fd = done.get(), .events = POLLIN, .revents = 0};
    return vexastats_poll(&fd, 1, -1, stop) > 0;
}

// The client gets the connection unless it has to stop. From then on another thread may release it.
bool hand_over(modem_client* client, modem_connection* connection, const stop_flag& stop) {
    const vexa_lock held(client->mutex);
    if (client->connection || stop_flag_is_raised(stop)) return false;
    set_state(connection, state::OPEN);
    client->connection = connection;
    return true;
}

}  // namespace

int modem_result_number(modem_result result) {
    switch (result) {
        case modem_result::STOPPED:
            return -EINTR;
        case modem_result::NO_SERVICE:
            return -2;
        case modem_result::TOO_LARGE:
            return -EINVAL;
        case modem_result::UNKNOWN_MESSAGE:
            return KBR_ERR_ARGUMENT;
        case modem_result::NO_MEMORY:
            return KBR_ERR_INTERNAL;
        default:
            return static_cast<int>(result);
    }
}

modem_result modem_client_connect(modem_client* client, const kbr_service_object* service,
                                  kbr_indication_cb indication_cb, const stop_flag& stop) {
    if (stop_flag_is_raised(stop)) return modem_result::GONE;
    std::unique_ptr<modem_connection> made(new (std::nothrow) modem_connection);
    if (!made) return modem_result::FAILED;
    made->service = service;
    made->callback = indication_cb;
    made->done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    pthread_t thread = {};
    if (!made->done || !quiet_thread_start(&thread, connect_to_service, made.get()))
        return modem_result::FAILED;

    modem_connection* connection = made.release();
    if (!wait_through(connection->done, stop) && abandon(connection)) {
        pthread_detach(thread);
        return modem_result::GONE;
    }
    pthread_join(thread, nullptr);
    const modem_result result{connection->result};
    VEXA_TEST_WINDOW();
    if (result == modem_result::OK && hand_over(client, connection, stop)) return result;
    end_connection(connection);
    return result == modem_result::OK ? modem_result::GONE : result;
}

modem_result modem_client_connect_patiently(modem_client* client, const kbr_service_object* service,
                                            kbr_indication_cb indication_cb,
                                            const modem_patience& patience, const stop_flag& stop) {
    modem_result result = modem_result::GONE;
    for (int attempt = 0; attempt < patience.attempts; ++attempt) {
        if (stop_flag_is_raised(stop)) return result;
        if (attempt > 0 && patience.note_retry) patience.note_retry(attempt);
        result = modem_client_connect(client, service, indication_cb, stop);
        if (result == modem_result::OK) return result;
        if (patience.note_failure) patience.note_failure(result, attempt);
        const bool is_last = attempt == patience.attempts - 1;
        if (!is_last || patience.pauses_after_last) vexastats_sleep_ms(patience.pause_ms, stop);
    }
    return result;
}

bool modem_client_is_connected(modem_client* client) {
    const vexa_lock held(client->mutex);
    return client->connection != nullptr;
}

modem_result modem_client_send(modem_client* client, uint16_t msg_id, const void* request,
                               size_t request_len, void* response, size_t response_len,
                               uint32_t timeout_ms, const stop_flag& stop) {
    pending_message message{.msg_id = msg_id,
                            .request = request,
                            .request_len = static_cast<uint32_t>(request_len),
                            .response = response,
                            .response_len = static_cast<uint32_t>(response_len),
                            .timeout_ms = timeout_ms};
    {
        const vexa_lock held(client->mutex);
        if (!client->connection || stop_flag_is_raised(stop)) return modem_result::GONE;
        message.handle = client->connection->handle;
    }
    message.done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    pthread_t thread = {};
    if (!message.done || !quiet_thread_start(&thread, send_message, &message))
        return modem_result::FAILED;
    if (!wait_through(message.done, stop)) modem_client_release(client);
    pthread_join(thread, nullptr);
    return modem_result{message.result};
}

modem_result modem_callback_send(kbr_client* client, uint16_t msg_id, const void* request,
                                 size_t request_len, void* response, size_t response_len,
                                 uint32_t timeout_ms) {
    return modem_result{kbr_client_send_msg_sync(client, msg_id, request,
                                                 static_cast<uint32_t>(request_len), response,
                                                 static_cast<uint32_t>(response_len), timeout_ms)};
}

modem_result modem_client_decode(kbr_client* client, const kbr_service_object* service,
                                 uint32_t msg_id, const void* buf, uint32_t len,
                                 unique_malloc<void>* structure) {
    uint32_t size = 0;
    if (kbr_idl_get_message_c_struct_len(service, KBR_INDICATION, msg_id, &size) != KBR_OK)
        return modem_result::UNKNOWN_MESSAGE;
    structure->reset(calloc(1, size));
    if (!*structure) return modem_result::NO_MEMORY;
    return modem_result{kbr_client_message_decode(client, KBR_INDICATION, msg_id, buf, len,
                                                  structure->get(), size)};
}

void modem_client_release(modem_client* client) {
    modem_connection* connection = nullptr;
    {
        const vexa_lock held(client->mutex);
        connection = std::exchange(client->connection, nullptr);
    }
    // With no lock held: the callback of an indication under way may need the caller's.
    if (connection) end_connection(connection);
}
