// A service of the modem in a test's hands: packets in and out, byte by byte.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/owned_bytes.h"
#include "base/unique_handle.h"
#include "support/events.h"
#include "support/gzip.h"

// The response of success to a request, or with the fields given.
inline std::string response_to(const std::string& request,
                               const std::string& fields = bytes("02 0400 0000 0000")) {
    return std::string(1, '\1') + request.substr(1, 4) + static_cast<char>(fields.size()) +
           std::string(1, '\0') + fields;
}

// Bytes that tell where in a spec they stand.
inline owned_bytes spec_of(size_t length, uint8_t seed = 0) {
    owned_bytes spec{.length = length,
                     .bytes = unique_malloc<uint8_t>(static_cast<uint8_t*>(malloc(length + 1)))};
    for (size_t i = 0; i < length; ++i)
        spec.bytes.get()[i] = static_cast<uint8_t>(seed + i % 251 + i / 800);
    return spec;
}

class kbr_service {
  public:
    explicit kbr_service(const std::string& name) : path_("/dev/socket/kbr/" + name) {
        std::filesystem::remove(path_);
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        listener_.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_.get(), 1), 0);
    }
    ~kbr_service() {
        hang_up();
        std::filesystem::remove(path_);
    }
    kbr_service(const kbr_service&) = delete;
    kbr_service& operator=(const kbr_service&) = delete;

    void accept() {
        if (is_readable(listener_)) connection_.reset(::accept(listener_.get(), nullptr, nullptr));
    }
    // A connection that stands in the service's queue; none when that is full.
    unique_fd connect_another() const {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            fd.reset();
        return fd;
    }
    // The next packet; empty when the client has gone.
    std::string receive() const {
        std::string packet(70000, '\0');
        const ssize_t size =
            is_readable(connection_) ? recv(connection_.get(), packet.data(), packet.size(), 0) : 0;
        packet.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return packet;
    }
    void send(const std::string& packet) const {
        (void)::send(connection_.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
    }
    void hang_up() {
        if (connection_) shutdown(connection_.get(), SHUT_RDWR);
        if (thread_.joinable()) thread_.join();
        connection_.reset();
    }

    // From now on a thread answers every request with what `respond` makes of it, and keeps it.
    void answer(std::function<std::string(const std::string&)> respond) {
        thread_ = std::thread([this, respond = std::move(respond)] {
            for (std::string packet; !(packet = receive()).empty();) {
                const std::lock_guard held(mutex_);
                packets_.push_back(packet);
                send(respond(packet));
            }
        });
    }
    std::vector<std::string> take_requests() {
        const std::lock_guard held(mutex_);
        return std::exchange(packets_, {});
    }

  private:
    static bool is_readable(const unique_fd& fd) {
        pollfd readable{.fd = fd.get(), .events = POLLIN, .revents = 0};
        return poll(&readable, 1, static_cast<int>(EVENT_LIMIT.count())) == 1;
    }

    std::string path_;
    unique_fd listener_;
    unique_fd connection_;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::string> packets_;
};
