#define LOG_TAG "vexastatsd"

#include "campaign/control_socket.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <utility>

#include "campaign/campaign_state.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "platform/log.h"

namespace {

constexpr int BACKLOG = 4;
constexpr mode_t SOCKET_MODE = 0666;
constexpr int64_t RECEIVE_LIMIT_MS = 10000;
constexpr size_t HEADER_SIZE = 8;
constexpr size_t MAX_PAYLOAD = 8;

enum msg_id : uint32_t { MSG_NONE = 0, MSG_ROAMING = 1, MSG_DEFAULT_SUB = 2, MSG_MCC_MNC = 3 };

uint32_t get_be32(const uint8_t* at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

uint16_t get_be16(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

void set_roaming(const uint8_t* payload) REQUIRES(g_campaign.lock) {
    phone_state* phone = &g_campaign.state.phone;
    phone->roaming = payload[0] != 0;
    ALOGI("Roaming Status Changed to %d\n", phone->roaming);
}

// Both messages about a subscription make it the default one.
void set_subscription(const uint8_t* payload, bool is_new_default) REQUIRES(g_campaign.lock) {
    phone_state* phone = &g_campaign.state.phone;
    phone->default_sub = get_be32(payload);
    phone->mcc = get_be16(payload + 4);
    phone->mnc = get_be16(payload + 6);
    if (is_new_default) {
        ALOGI("Default Sub changed to %d MCC %d MNC %d\n", static_cast<int>(phone->default_sub),
              phone->mcc, phone->mnc);
    } else {
        ALOGI("Mcc Mnc on sub %d changed to MCC %d MNC %d\n", static_cast<int>(phone->default_sub),
              phone->mcc, phone->mnc);
    }
}

void set_default_sub(const uint8_t* payload) REQUIRES(g_campaign.lock) {
    set_subscription(payload, true);
}

void set_mcc_mnc(const uint8_t* payload) REQUIRES(g_campaign.lock) {
    set_subscription(payload, false);
}

struct control_message {
    uint32_t id;
    uint32_t size;  // of the payload, bytes
    void (*apply)(const uint8_t* payload);
};

constexpr control_message MESSAGES[] = {
    {MSG_ROAMING, 1, set_roaming},
    {MSG_DEFAULT_SUB, 8, set_default_sub},
    {MSG_MCC_MNC, 8, set_mcc_mnc},
};

const control_message* find_message(uint32_t id) {
    for (const control_message& message : MESSAGES) {
        if (message.id == id) return &message;
    }
    return nullptr;
}

// Fills `header` from a client that may take its time, or stay silent.
bool receive_header(int client, uint8_t (&header)[HEADER_SIZE], const stop_flag& stop) {
    const uint64_t begin_ms = vexastats_mono_time_ms();
    size_t have = 0;
    while (have < HEADER_SIZE) {
        const auto waited_ms = static_cast<int64_t>(vexastats_mono_time_ms() - begin_ms);
        if (waited_ms >= RECEIVE_LIMIT_MS) return false;
        pollfd readable{.fd = client, .events = POLLIN, .revents = 0};
        if (vexastats_poll(&readable, 1, RECEIVE_LIMIT_MS - waited_ms, stop) <= 0) return false;
        const ssize_t count = recv(client, header + have, HEADER_SIZE - have, MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (count <= 0) return false;
        have += static_cast<size_t>(count);
    }
    return true;
}

// The message that a header announces; null, logged, when there is nothing to act on.
const control_message* accept_header(uint32_t id, uint32_t size) {
    ALOGI("%s: MSG id %d Size %d\n", "handleIncomingSocketMsg", static_cast<int>(id),
          static_cast<int>(size));
    if (id == MSG_NONE) return nullptr;
    const control_message* message = find_message(id);
    if (!message) {
        ALOGE("%s:Unrecongnizable Msg Id %d\n", "handleIncomingSocketMsg", static_cast<int>(id));
        return nullptr;
    }
    if (size != message->size) {
        ALOGE("%s:Wrong msg_size %d received for msg_id %d\n", "handleIncomingSocketMsg",
              static_cast<int>(size), static_cast<int>(id));
        return nullptr;
    }
    return message;
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

void handleIncomingSocketMsg(int client, const stop_flag& stop) {
    if (client < 0) {
        ALOGE("%s: Null client fd is passed\n", __func__);
        return;
    }
    uint8_t header[HEADER_SIZE] = {};
    if (!receive_header(client, header, stop)) {
        ALOGE("%s:Count not read MsgID from incoming msg\n", __func__);
        return;
    }
    const control_message* message = accept_header(get_be32(header), get_be32(header + 4));
    if (!message) return;

    // A payload that has not come by now is not waited for: deliberate.
    uint8_t payload[MAX_PAYLOAD] = {};
    if (recv(client, payload, message->size, MSG_DONTWAIT) != static_cast<ssize_t>(message->size)) {
        ALOGE("%s:Count not read Roaming Status from incoming msg\n", __func__);
        return;
    }
    {
        const vexa_lock lock(g_campaign.lock);
        message->apply(payload);
    }
    campaign_check();
}
