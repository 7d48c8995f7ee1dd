// The socket through which another process of the phone reports roaming, the default subscription
// and its network: one message a connection (campaign/control_message.h).
//
// Anybody may connect, so nobody may hold up the manager or fill the log. Up to eight clients are
// entries of the manager's poll; the ones after them wait in the backlog. A bad message is logged
// and begins a burst. Those that follow within a minute are only counted; then their number is said
// in one line, and the next minute begins. A minute without any ends the burst. A client that comes
// in a burst is logged when its message is a good one. After each message that was only counted the
// socket rests for ten milliseconds, which bounds the work, too.
//
// All functions: the manager's thread. Times are milliseconds of the monotonic clock.
#pragma once

#include <poll.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/unique_handle.h"
#include "campaign/control_message.h"

inline constexpr char CONTROL_SOCKET[] = "/dev/socket/vexa/vexa-campmgr-s";
inline constexpr size_t CONTROL_CLIENTS_MAX = 8;

struct control_client {
    unique_fd fd{};
    int64_t deadline_ms = 0;  // for the header
    control_message message{};
    bool is_quiet = false;  // not logged before its message is
    bool is_logged = false;
};

struct control_server {
    unique_fd listener{};
    std::array<control_client, CONTROL_CLIENTS_MAX> clients{};  // in the order in which they came
    size_t client_count = 0;
    int accept_error = 0;        // of the last look, not logged yet
    int64_t listen_from_ms = 0;  // nobody is accepted before
    int64_t burst_until_ms = 0;  // bad messages are only counted before
    uint32_t counted = 0;        // bad messages that were not logged
};

// The places of a server in a poll: its listener and its clients.
inline constexpr size_t CONTROL_LISTENER = 0;
inline constexpr size_t CONTROL_FIRST_CLIENT = 1;
inline constexpr size_t CONTROL_POLL_FDS = CONTROL_FIRST_CLIENT + CONTROL_CLIENTS_MAX;

// Binds and listens, in the place of an older socket, and gives the caller the descriptor in *out.
// Returns 0, or a positive errno, logged.
int control_socket_open(unique_fd* out);

// Fills the server's CONTROL_POLL_FDS places in the poll; unused ones have the descriptor -1.
// Returns when the server wants to be looked at without anything to read, INT64_MAX for never.
int64_t control_socket_watch(const control_server& server, pollfd* fds);

// Takes what has come from the clients and accepts one more when the listener is ready. Bad
// messages of a burst end here. Returns whether a client came that is worth the log of a wake-up.
bool control_socket_receive(control_server* server, bool listener_ready);

// Logs the clients that came, acts on the messages that are there and closes their connections. A
// client has ten seconds for its header. Returns whether a message was a good one.
bool control_socket_act(control_server* server);

// Closes all connections and says what was only counted so far. The listener stays.
void control_socket_end(control_server* server);
