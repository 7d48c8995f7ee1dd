// The modem's performance statistics service: takes the specs of a collection, checks and
// keeps them, and hands its "data" over as files.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "modem/kbr_port.h"
#include "modem/modem.h"

class statistics_service : public modem_service {
  public:
    explicit statistics_service(modem& loop);
    ~statistics_service() override;

  private:
    enum spec_kind : uint32_t { STATIC = 0, COLLECTION = 1, CONTEXT = 2, LLL = 3 };

    // What the daemon has handed over for a collection.
    struct logic {
        uint8_t parts_announced = 0;
        uint64_t parts = 0;
        uint32_t kind = COLLECTION;          // of the last part
        bool kind_ended = false;             // by a part of less than 800 bytes
        std::array<std::string, 4> specs{};  // by spec_kind
    };

    void add_commands();
    std::vector<wire_field> answer(const wire_message& request);
    void prepare(const wire_message& request);
    void take_part(const wire_message& request);
    void start_collection();
    void stop_and_flush(const wire_message& request);
    void hand_over_data(const wire_message& request);
    void stop_lll();

    void write_data(const std::string& kind, size_t size);
    void send_complete();
    void buffer_full(uint32_t type);
    void schedule_buffer_full();
    void complete_soon();
    void save(const std::string& dir);

    modem& loop_;
    kbr_port port_;
    logic logic_;
    bool collecting_ = false;
    bool lll_running_ = false;
    std::chrono::milliseconds buffer_full_every_{60000};  // by itself, while it collects; 0: never
    bool by_itself_ = true;
    std::optional<modem::timer_id> buffer_full_timer_;
    uint32_t files_ = 0;  // written so far, for their names
};

std::unique_ptr<modem_service> make_statistics_service(modem& loop);
