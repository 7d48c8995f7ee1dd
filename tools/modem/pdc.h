// The modem's persistent device configuration service: holds configurations, tells their headers
// and takes new ones in segments.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "modem/kbr_port.h"
#include "modem/modem.h"

// A band list of `size` bytes, at least its header's 40, with little-endian numbers.
std::string pdc_band_list(uint32_t db_id, uint32_t version, const std::string& owner, size_t size);

class pdc_service : public modem_service {
  public:
    explicit pdc_service(modem& loop);

  private:
    // What is being loaded, until it is whole.
    struct transfer {
        std::string id;
        std::string bytes;
    };

    void add_commands();
    void hold(const std::string& bytes);
    void save(const std::string& db_id, const std::string& path);
    std::vector<wire_field> answer(const wire_message& request);
    void tell_header(const wire_message& request);
    void take_segment(const wire_message& request);
    std::vector<wire_field> segment_outcome(uint64_t total, const std::string& id,
                                            const std::string& frame);
    void indicate_later(uint16_t id, uint64_t token, std::vector<wire_field> outcome);

    modem& loop_;
    kbr_port port_;
    std::map<std::string, std::string> held_;  // by configuration id
    transfer transfer_;

    // How its indications misbehave.
    bool stalled_ = false;
    std::chrono::milliseconds delay_{0};
    uint16_t next_error_ = 0;  // of the next load indication
    bool next_reset_ = false;  // it says that the frames so far are forgotten
    uint64_t early_at_ = 0;    // so many bytes count as complete; 0: only the whole
};

std::unique_ptr<modem_service> make_pdc_service(modem& loop);
