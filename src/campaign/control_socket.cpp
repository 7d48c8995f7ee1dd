#define LOG_TAG "vexastatsd"

#include "campaign/control_socket.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "framework/time/clock.h"
#include "platform/log.h"

namespace {

constexpr int BACKLOG = 4;
constexpr mode_t SOCKET_MODE = 0666;
constexpr int64_t RECEIVE_LIMIT_MS = 10000;
constexpr int64_t ACCEPT_FAILURE_PAUSE_MS = 1000;
constexpr int64_t BURST_MS = 60000;
constexpr int64_t BURST_PAUSE_MS = 10;

int64_t now_ms() {
    return static_cast<int64_t>(vexastats_mono_time_ms());
}

bool is_decided(const control_client& client) {
    return client.message.verdict != control_verdict::OPEN;
}

bool is_to_be_logged(const control_client& client) {
    return !client.is_logged && (!client.is_quiet || is_decided(client));
}

void say_counted(control_server* server) {
    if (server->counted == 0) return;
    ALOGE("%s: %u more messages were of no use\n", "campaign_mgr_main", server->counted);
    server->counted = 0;
}

// A burst goes on for as long as each of its minutes has a bad message.
void turn_burst(control_server* server, int64_t now) {
    if (server->counted == 0 || now < server->burst_until_ms) return;
    say_counted(server);
    server->burst_until_ms = now + BURST_MS;
}

void accept_client(control_server* server, int64_t now) {
    unique_fd fd(accept4(server->listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!fd) {
        server->accept_error = errno;
        // Out of descriptors or memory, the connection stays and would be reported again at once.
        if (errno != EAGAIN) server->listen_from_ms = now + ACCEPT_FAILURE_PAUSE_MS;
        return;
    }
    control_client* client = &server->clients[server->client_count++];
    client->fd = std::move(fd);
    client->deadline_ms = now + RECEIVE_LIMIT_MS;
    client->is_quiet = now < server->burst_until_ms;
}

void receive_from(control_server* server, control_client* client, int64_t now) {
    control_message_receive(client->fd.get(), now >= client->deadline_ms, &client->message);
    if (!is_decided(*client) || client->message.verdict == control_verdict::GOOD) return;
    if (now >= server->burst_until_ms) {
        server->burst_until_ms = now + BURST_MS;
        return;
    }
    ++server->counted;
    server->listen_from_ms = std::max(server->listen_from_ms, now + BURST_PAUSE_MS);
    client->fd.reset();
}

// Those that stay keep their order, in which messages that wait together are acted on.
void drop_closed(control_server* server) {
    const auto begin = server->clients.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(server->client_count);
    const auto kept = std::remove_if(begin, end, [](const auto& client) { return !client.fd; });
    std::for_each(kept, end, [](control_client& client) { client = {}; });
    server->client_count = static_cast<size_t>(kept - begin);
}

}  // namespace

int control_socket_open(unique_fd* out) {
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    static_assert(sizeof CONTROL_SOCKET <= sizeof address.sun_path);
    strcpy(address.sun_path, CONTROL_SOCKET);

    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        const int error = errno;
        ALOGE("Dailed to get socket: %s.sockfd:%d err:%s\n", CONTROL_SOCKET, fd.get(),
              strerror(error));
        return error;
    }
    (void)unlink(CONTROL_SOCKET);  // what an earlier run left
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        chmod(CONTROL_SOCKET, SOCKET_MODE) != 0) {
        const int error = errno;
        ALOGE("%s: failed to bind %s. err:%s\n", __func__, CONTROL_SOCKET, strerror(error));
        return error;
    }
    if (listen(fd.get(), BACKLOG) != 0) {
        const int error = errno;
        ALOGE("failed to listen vexa socket. err:%s\n", strerror(error));
        return error;
    }
    *out = std::move(fd);
    return 0;
}

int64_t control_socket_watch(const control_server& server, pollfd* fds) {
    const int64_t now = now_ms();
    const bool rests = now < server.listen_from_ms;
    const bool may_accept = !rests && server.client_count < CONTROL_CLIENTS_MAX;
    const int listener = may_accept ? server.listener.get() : -1;
    fds[CONTROL_LISTENER] = {.fd = listener, .events = POLLIN, .revents = 0};
    for (size_t i = 0; i < CONTROL_CLIENTS_MAX; ++i) {
        const int client = server.clients[i].fd.get();
        fds[CONTROL_FIRST_CLIENT + i] = {.fd = client, .events = POLLIN, .revents = 0};
    }

    int64_t due_ms = INT64_MAX;
    for (size_t i = 0; i < server.client_count; ++i) {
        due_ms = std::min(due_ms, server.clients[i].deadline_ms);
    }
    if (rests) due_ms = std::min(due_ms, server.listen_from_ms);
    if (server.counted > 0) due_ms = std::min(due_ms, server.burst_until_ms);
    return due_ms;
}

bool control_socket_receive(control_server* server, bool listener_ready) {
    const int64_t now = now_ms();
    turn_burst(server, now);
    if (listener_ready) accept_client(server, now);
    for (size_t i = 0; i < server->client_count; ++i) {
        receive_from(server, &server->clients[i], now);
    }
    drop_closed(server);
    return server->accept_error != 0 ||
           std::any_of(server->clients.begin(), server->clients.end(),
                       [](const auto& client) { return client.fd && is_to_be_logged(client); });
}

bool control_socket_act(control_server* server) {
    bool was_good = false;
    for (size_t i = 0; i < server->client_count; ++i) {
        control_client* client = &server->clients[i];
        if (is_to_be_logged(*client)) {
            ALOGI("%s:Socket file pollin\n", "campaign_mgr_main");
            client->is_logged = true;
        }
        if (!is_decided(*client)) continue;
        was_good = was_good || client->message.verdict == control_verdict::GOOD;
        handleIncomingSocketMsg(client->fd.get(), client->message);
        client->fd.reset();
    }
    if (server->accept_error != 0) {
        ALOGI("%s:Socket file pollin\n", "campaign_mgr_main");
        ALOGE("Error while accepting connection err: %s\n", strerror(server->accept_error));
        handleIncomingSocketMsg(-1, {});
        server->accept_error = 0;
    }
    drop_closed(server);
    return was_good;
}

void control_socket_end(control_server* server) {
    for (control_client& client : server->clients) client = {};
    server->client_count = 0;
    say_counted(server);
}
