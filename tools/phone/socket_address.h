// Addresses of a phone's Unix sockets, from outside the phone.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <filesystem>

#include "base/unique_handle.h"

// Leads through the descriptor of the socket's directory, for the directory's path may be longer
// than an address has room for. Holds while the object lives.
class socket_address {
  public:
    // Throws std::system_error when there is no such directory or the socket's name is too long.
    explicit socket_address(const std::filesystem::path& path);

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&native_); }
    socklen_t size() const { return sizeof native_; }

  private:
    unique_fd dir_;
    sockaddr_un native_{};
};
