// One message of the control socket, integers big-endian:
//
//   u32 msg_id   u32 msg_size   payload
//   0            any            nothing is said
//   1            1              u8: 0 not roaming
//   2, 3         8              u32 subscription id, u16 MCC, u16 MNC
#pragma once

#include <cstddef>
#include <cstdint>

// What came of a message. All but OPEN end it; only GOOD changes anything.
enum class control_verdict : uint8_t {
    OPEN,  // the rest of its header may still come
    GOOD,
    NO_HEADER,
    NOTHING_SAID,  // id 0
    UNKNOWN_ID,
    WRONG_SIZE,
    NO_PAYLOAD,
};

struct control_message {
    static constexpr size_t HEADER_SIZE = 8;
    static constexpr size_t PAYLOAD_MAX = 8;
    uint8_t header[HEADER_SIZE]{};
    uint8_t payload[PAYLOAD_MAX]{};
    size_t have = 0;  // bytes of the header that have come
    control_verdict verdict = control_verdict::OPEN;
};

// Takes what has come on the connection `client`, without waiting, and sets message->verdict. The
// payload must be there when the header is. With `is_last_look` a message that is still open has no
// header. Not logged. Thread: the manager's.
void control_message_receive(int client, bool is_last_look, control_message* message);

// Logs a message whose verdict is given. Acts on a good one: stores what it says, then checks which
// campaigns may run. No connection (-1) is logged and changes nothing. The caller closes the
// connection. Thread: the manager's; takes the campaign lock.
void handleIncomingSocketMsg(int client, const control_message& message);
