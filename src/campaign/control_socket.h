// The socket through which another process of the phone reports roaming, the default subscription
// and its network: one message a connection, integers big-endian.
//
//   u32 msg_id   u32 msg_size   payload
//   1            1              u8: 0 not roaming
//   2, 3         8              u32 subscription id, u16 MCC, u16 MNC
#pragma once

#include "base/unique_handle.h"
#include "framework/time/stop.h"

inline constexpr char CONTROL_SOCKET[] = "/dev/socket/vexa/vexa-campmgr-s";

// Binds and listens, in the place of an older socket, and gives the caller the descriptor in *out.
// Returns 0, or a positive errno, logged. Thread: the manager's.
int control_socket_open(unique_fd* out);

// Takes the one message that a client has for us and acts on it: stores what it says, then checks
// which campaigns may run. A client has ten seconds for the header and must have sent the payload
// by then; `stop` ends the wait. Anything else, no connection (-1) included, is logged and changes
// nothing. The caller closes the connection. Thread: the manager's; takes the campaign lock.
void handleIncomingSocketMsg(int client, const stop_flag& stop);
