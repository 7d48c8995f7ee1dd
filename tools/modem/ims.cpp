#include "modem/ims.h"

#include <functional>
#include <stdexcept>

namespace {

enum message_id : uint16_t {
    GET_STATUS = 0x21,
    REGISTER = 0x22,
    REGISTRATION_IND = 0x23,
    STATUS_IND = 0x24,
    BIND = 0x33,
    BIND_IND = 0x35,
    GET_ACTIVE_SUBSCRIPTIONS = 0x36,
};

constexpr uint8_t FIRST_OPTIONAL = 0x10;

uint8_t optional_type(size_t index) {
    return static_cast<uint8_t>(FIRST_OPTIONAL + index);
}

}  // namespace

ims_service::ims_service(modem& loop)
    : loop_(loop),
      port_(loop, "imsa", [this](const wire_message& request) { return answer(request); }) {
    add_commands();
}

ims_service::~ims_service() = default;

// ---- Commands

void ims_service::add_commands() {
    using words = std::vector<std::string>;
    const auto add = [this](const char* word, const char* arguments, const char* help,
                            std::function<void(const words&)> run) {
        loop_.add_command({.service = "imsa",
                           .word = word,
                           .arguments = arguments,
                           .help = help,
                           .run = std::move(run)});
    };
    add("active", "[0] [1] [2]", "the active subscriptions", [this](const words& w) {
        std::array<bool, 3> active{};
        for (const std::string& word : w) active.at(modem_number(word, 2)) = true;
        active_ = active;
    });
    add("status", "V V V V V V", "the six values of the service status; -: not valid",
        [this](const words& w) { set_status(w); });
    add("indicate", "[TIMES]", "send service status indications", [this](const words& w) {
        const uint64_t times = w.empty() ? 1 : modem_number(w[0], 1000000);
        for (uint64_t i = 0; i < times; ++i) port_.indicate(STATUS_IND, status_fields());
        port_.log("sent service status");
    });
    add("registered", "0|1", "send a registration indication", [this](const words& w) {
        if (w.size() != 1) throw std::invalid_argument("needs 0 or 1");
        port_.indicate(REGISTRATION_IND, {{0x01, wire_integer(modem_number(w[0], 1), 1)}});
        port_.log("sent registration");
    });
    add("bind", "N", "send a bind subscription indication", [this](const words& w) {
        if (w.size() != 1) throw std::invalid_argument("needs a subscription");
        port_.indicate(BIND_IND,
                       {{FIRST_OPTIONAL, wire_integer(modem_number(w[0], UINT32_MAX), 4)}});
        port_.log("sent bind subscription");
    });
}

void ims_service::set_status(const std::vector<std::string>& words) {
    if (words.size() != status_.size()) throw std::invalid_argument("needs six values");
    std::array<std::optional<uint32_t>, 6> status;
    for (size_t i = 0; i < status.size(); ++i) {
        if (words[i] != "-") status[i] = static_cast<uint32_t>(modem_number(words[i], UINT32_MAX));
    }
    status_ = status;
}

// ---- Requests

std::vector<wire_field> ims_service::status_fields() const {
    std::vector<wire_field> fields;
    for (size_t i = 0; i < status_.size(); ++i) {
        if (status_[i]) fields.push_back({optional_type(i), wire_integer(*status_[i], 4)});
    }
    return fields;
}

std::vector<wire_field> ims_service::answer(const wire_message& request) {
    switch (request.id) {
        case GET_STATUS:
            port_.log("get service status");
            return status_fields();
        case REGISTER: {
            std::string text = "indications wanted:";
            for (const wire_field& field : request.fields) {
                if (request.integer(field.type, 1) != 0)
                    text += " " + std::to_string(field.type - FIRST_OPTIONAL);
            }
            port_.log(text);
            return {};
        }
        case BIND:
            port_.log("bind subscription " + std::to_string(request.integer(FIRST_OPTIONAL, 4)));
            return {};
        case GET_ACTIVE_SUBSCRIPTIONS: {
            port_.log("get active subscriptions");
            std::vector<wire_field> fields;
            for (size_t i = 0; i < active_.size(); ++i)
                fields.push_back({optional_type(i), wire_integer(active_.at(i), 1)});
            return fields;
        }
        default:
            throw wire_refusal(WIRE_ERROR_MALFORMED, "no such message");
    }
}

std::unique_ptr<modem_service> make_ims_service(modem& loop) {
    return std::make_unique<ims_service>(loop);
}
