#define LOG_TAG "vexastatsd"

#include "campaign/control_message.h"

#include <errno.h>
#include <sys/socket.h>

#include "campaign/campaign_switch.h"
#include "campaign/campaign_table.h"
#include "platform/log.h"

namespace {

enum msg_id : uint32_t { MSG_NONE = 0, MSG_ROAMING = 1, MSG_DEFAULT_SUB = 2, MSG_MCC_MNC = 3 };

uint32_t get_be32(const uint8_t* at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

uint16_t get_be16(const uint8_t* at) {
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

void set_roaming(const uint8_t* payload, phone_state& phone) {
    phone.roaming = payload[0] != 0;
    ALOGI("Roaming Status Changed to %d\n", phone.roaming);
}

// Both messages about a subscription make it the default one.
void set_subscription(const uint8_t* payload, phone_state& phone) {
    phone.default_sub = get_be32(payload);
    phone.mcc = get_be16(payload + 4);
    phone.mnc = get_be16(payload + 6);
}

void set_default_sub(const uint8_t* payload, phone_state& phone) {
    set_subscription(payload, phone);
    ALOGI("Default Sub changed to %d MCC %d MNC %d\n", static_cast<int>(phone.default_sub),
          phone.mcc, phone.mnc);
}

void set_mcc_mnc(const uint8_t* payload, phone_state& phone) {
    set_subscription(payload, phone);
    ALOGI("Mcc Mnc on sub %d changed to MCC %d MNC %d\n", static_cast<int>(phone.default_sub),
          phone.mcc, phone.mnc);
}

struct message_kind {
    uint32_t id;
    uint32_t size;  // of the payload, bytes
    // Takes a reference, so that the compiler sees whether the lock is held.
    void (*apply)(const uint8_t* payload, phone_state& phone);
};

constexpr message_kind KINDS[] = {
    {MSG_ROAMING, 1, set_roaming},
    {MSG_DEFAULT_SUB, 8, set_default_sub},
    {MSG_MCC_MNC, 8, set_mcc_mnc},
};

uint32_t id_of(const control_message& message) {
    return get_be32(message.header);
}

uint32_t size_of(const control_message& message) {
    return get_be32(message.header + 4);
}

const message_kind* find_kind(uint32_t id) {
    for (const message_kind& kind : KINDS) {
        if (kind.id == id) return &kind;
    }
    return nullptr;
}

// Returns whether the whole header is there, or sets the verdict when no more of it will come.
bool receive_header(int client, control_message* message) {
    while (message->have < control_message::HEADER_SIZE) {
        const ssize_t count = recv(client, message->header + message->have,
                                   control_message::HEADER_SIZE - message->have, MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) return false;
        if (count <= 0) {
            message->verdict = control_verdict::NO_HEADER;
            return false;
        }
        message->have += static_cast<size_t>(count);
    }
    return true;
}

// Judges what the header announces and takes the payload. One that has not come by now is not
// waited for: deliberate.
control_verdict receive_payload(int client, control_message* message) {
    if (id_of(*message) == MSG_NONE) return control_verdict::NOTHING_SAID;
    const message_kind* kind = find_kind(id_of(*message));
    if (!kind) return control_verdict::UNKNOWN_ID;
    if (size_of(*message) != kind->size) return control_verdict::WRONG_SIZE;
    const ssize_t count = recv(client, message->payload, kind->size, MSG_DONTWAIT);
    if (count != static_cast<ssize_t>(kind->size)) return control_verdict::NO_PAYLOAD;
    return control_verdict::GOOD;
}

void apply(const control_message& message) {
    const message_kind* kind = find_kind(id_of(message));
    if (!kind) return;
    {
        const vexa_lock lock(g_campaign.lock);
        kind->apply(message.payload, g_campaign.state.phone);
    }
    campaign_check();
}

}  // namespace

void control_message_receive(int client, bool is_last_look, control_message* message) {
    if (receive_header(client, message)) {
        message->verdict = receive_payload(client, message);
    } else if (is_last_look) {
        message->verdict = control_verdict::NO_HEADER;
    }
}

void handleIncomingSocketMsg(int client, const control_message& message) {
    if (client < 0) {
        ALOGE("%s: Null client fd is passed\n", __func__);
        return;
    }
    if (message.verdict == control_verdict::NO_HEADER) {
        ALOGE("%s:Count not read MsgID from incoming msg\n", __func__);
        return;
    }
    const int id = static_cast<int>(id_of(message));
    const int size = static_cast<int>(size_of(message));
    ALOGI("%s: MSG id %d Size %d\n", __func__, id, size);
    switch (message.verdict) {
        case control_verdict::GOOD:
            apply(message);
            return;
        case control_verdict::UNKNOWN_ID:
            ALOGE("%s:Unrecongnizable Msg Id %d\n", __func__, id);
            return;
        case control_verdict::WRONG_SIZE:
            ALOGE("%s:Wrong msg_size %d received for msg_id %d\n", __func__, size, id);
            return;
        case control_verdict::NO_PAYLOAD:
            ALOGE("%s:Count not read Roaming Status from incoming msg\n", __func__);
            return;
        case control_verdict::NOTHING_SAID:
        case control_verdict::NO_HEADER:
        case control_verdict::OPEN:
            return;
    }
}
