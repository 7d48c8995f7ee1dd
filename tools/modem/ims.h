// The modem's IMS application service: says which subscriptions are active, takes the one to bind
// to, and reports the state of its services.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "modem/kbr_port.h"
#include "modem/modem.h"

class ims_service : public modem_service {
  public:
    explicit ims_service(modem& loop);
    ~ims_service() override;

  private:
    void add_commands();
    std::vector<wire_field> answer(const wire_message& request);
    std::vector<wire_field> status_fields() const;
    void set_status(const std::vector<std::string>& words);

    modem& loop_;
    kbr_port port_;
    std::array<bool, 3> active_{true, false, false};  // subscriptions
    // Without a value: not valid.
    std::array<std::optional<uint32_t>, 6> status_{2, 2, 2, 2, 2, 2};
};

std::unique_ptr<modem_service> make_ims_service(modem& loop);
