// The modem's stream of diagnostic packets: for one client, of the log codes that it asks for, in
// turn. docs/platform.md has the form of the packets and the commands.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modem/modem.h"

// What the packet with that number looks like, but for its time stamp: so long, from `min` to
// `max` bytes, and behind the header bytes that count up from the number.
size_t diag_stream_size(uint32_t sequence, size_t min, size_t max);
std::string diag_stream_packet(uint32_t sequence, uint16_t code, size_t size, uint64_t time_stamp);

class diag_stream : public modem_service {
  public:
    explicit diag_stream(modem& loop);
    ~diag_stream() override;

  private:
    using clock = std::chrono::steady_clock;

    void add_commands();
    void set_size(const std::vector<std::string>& words);
    void accept(unique_fd client);
    void drop_client(const std::string& why);
    void ready(short revents);
    void take_packet(std::span<const uint8_t> packet);
    void set_codes(std::span<const uint8_t> packet);

    void log_sent();
    bool is_streaming() const;
    void restart();   // after any change of what is to be sent
    void send_due();  // sends what is due, and has the loop come back for the next
    bool send_one();  // false: the socket is full, or the client was dropped
    void send_status(uint32_t status);

    modem& loop_;
    unique_fd client_;
    std::vector<uint16_t> codes_;
    std::string packet_;
    std::optional<modem::timer_id> timer_;
    clock::time_point next_due_{};

    uint64_t rate_ = 10;  // packets a second; 0: as many as the client takes
    size_t min_size_ = 200;
    size_t max_size_ = 200;
    uint64_t left_ = UINT64_MAX;  // packets still to be sent
    uint16_t support_list_ = 0x2;
    uint32_t sequence_ = 0;  // of the last packet
    uint64_t sent_ = 0;
    uint64_t sent_bytes_ = 0;
};

std::unique_ptr<modem_service> make_diag_stream(modem& loop);
