// What another process of a phone tells the campaign manager over its control socket.
#pragma once

#include <cstdint>
#include <string>

#include "base/unique_handle.h"

// Each sends one message to the daemon in the phone at `dir` ("/": the phone that the caller is in)
// and returns when it was acted on. Throws std::system_error when nobody listens.
void phone_tell_roaming(const std::string& dir, bool roaming);
void phone_tell_subscription(const std::string& dir, uint32_t id, uint16_t mcc, uint16_t mnc);

// The same without waiting. Returns the connection, which the daemon closes once it has acted.
unique_fd phone_send_roaming(const std::string& dir, bool roaming);
unique_fd phone_send_subscription(const std::string& dir, uint32_t id, uint16_t mcc, uint16_t mnc);

// The same for any bytes, which need not be a message.
unique_fd phone_send_bytes(const std::string& dir, const std::string& bytes);
