// A modem service that is reached by messages: its socket, its connections, and the commands by
// which it is made to misbehave. What it answers is its owner's.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/unique_handle.h"
#include "modem/modem.h"
#include "modem/wire.h"

// The error codes with which the stand-ins refuse.
inline constexpr uint16_t WIRE_ERROR_MALFORMED = 1;
inline constexpr uint16_t WIRE_ERROR_INTERNAL = 3;
inline constexpr uint16_t WIRE_ERROR_NO_EFFECT = 26;

// Thrown by an owner that refuses a request, with what is shown.
class wire_refusal : public std::runtime_error {
  public:
    wire_refusal(uint16_t error, const std::string& text)
        : std::runtime_error(text), error_(error) {}
    uint16_t error() const { return error_; }

  private:
    uint16_t error_;
};

class kbr_port {
  public:
    // Gives the fields that follow the result in a request's response. Throws wire_refusal, or
    // std::runtime_error for a request that is malformed.
    using answer = std::function<std::vector<wire_field>(const wire_message& request)>;

    // `name` is the service's word for commands and its socket's name.
    kbr_port(modem& loop, std::string name, answer answer_request);
    ~kbr_port();
    kbr_port(const kbr_port&) = delete;
    kbr_port& operator=(const kbr_port&) = delete;

    // Sends an indication to everybody connected.
    void indicate(uint16_t id, std::vector<wire_field> fields);

    void log(const std::string& text) { loop_.log(name_, text); }

  private:
    struct connection {
        unique_fd fd;
        std::deque<std::string> outgoing;  // what the other side has not taken yet
    };
    struct refusal {
        uint64_t times = 0;
        uint16_t error = 0;
    };

    void add_commands();
    void add_command(const char* word, const char* arguments, const char* help, size_t least,
                     std::function<void(const std::vector<std::string>&)> run);
    void accept(unique_fd fd);
    void ready(uint64_t id, short revents);
    void receive(uint64_t id, std::string_view packet);
    void respond(uint64_t id, const wire_message& request);
    wire_message response_to(const wire_message& request);
    void send(uint64_t id, std::string packet);
    void flush(uint64_t id);
    void close(uint64_t id);
    void send_garbage();

    modem& loop_;
    std::string name_;
    answer answer_;
    std::map<uint64_t, connection> connections_;
    uint64_t last_connection_ = 0;

    // How it misbehaves, by message id.
    bool silent_ = false;
    std::map<uint16_t, refusal> refusals_;
    std::map<uint16_t, std::chrono::milliseconds> delays_;
    std::set<uint16_t> mistaken_;  // answered with another message's id, once
};
