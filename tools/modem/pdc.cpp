#include "modem/pdc.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace {

constexpr uint16_t LOAD_CONFIG = 0x26;
constexpr uint16_t GET_CONFIG_INFO = 0x28;
constexpr uint64_t BAND_LIST_TYPE = 16;
constexpr size_t ID_MAX = 124;
constexpr size_t FRAME_MAX = 900;
constexpr size_t CONFIG_MAX = size_t{4} << 20;

constexpr size_t HEADER_SIZE = 40;
constexpr size_t OWNER_AT = 2;
constexpr size_t OWNER_SIZE = 30;
constexpr size_t DB_ID_AT = 32;
constexpr uint32_t FIRST_DB_ID = 0x4d424c31;

std::string hex(const std::string& bytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        text += DIGITS[static_cast<uint8_t>(c) >> 4];
        text += DIGITS[static_cast<uint8_t>(c) & 15];
    }
    return text;
}

// The id by which a band list is known: its database id, highest byte first.
std::string band_list_id(const std::string& list) {
    if (list.size() < HEADER_SIZE) throw std::invalid_argument("shorter than a header");
    std::string id = list.substr(DB_ID_AT, 4);
    if (list[0] == 1) std::reverse(id.begin(), id.end());
    return id;
}

std::string id_of(uint32_t db_id) {
    std::string id = wire_integer(db_id, 4);
    std::reverse(id.begin(), id.end());
    return id;
}

std::string read_whole(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string count(size_t bytes) {
    return std::to_string(bytes) + " bytes";
}

}  // namespace

std::string pdc_band_list(uint32_t db_id, uint32_t version, const std::string& owner, size_t size) {
    std::string list{'\1', '\1'};
    list += owner.substr(0, OWNER_SIZE - 1);
    list.resize(OWNER_AT + OWNER_SIZE);
    list += wire_integer(db_id, 4) + wire_integer(version, 4);
    while (list.size() < size) list += static_cast<char>(list.size() % 251);
    return list;
}

pdc_service::pdc_service(modem& loop)
    : loop_(loop),
      port_(loop, "pdc", [this](const wire_message& request) { return answer(request); }) {
    hold(pdc_band_list(FIRST_DB_ID, 1, "vexa", HEADER_SIZE));
    add_commands();
}

// ---- Commands

void pdc_service::add_commands() {
    using words = std::vector<std::string>;
    const auto add = [this](const char* word, const char* arguments, const char* help, size_t least,
                            std::function<void(const words&)> run) {
        loop_.add_command({.service = "pdc",
                           .word = word,
                           .arguments = arguments,
                           .help = help,
                           .run = [least, run = std::move(run)](const words& w) {
                               if (w.size() < least) throw std::invalid_argument("too few words");
                               run(w);
                           }});
    };
    add("hold", "FILE", "hold that band list, under the database id in it", 1,
        [this](const words& w) { hold(read_whole(w[0])); });
    add("list", "DB VERSION [OWNER]", "hold a band list of that database id and version", 2,
        [this](const words& w) {
            hold(pdc_band_list(static_cast<uint32_t>(modem_number(w[0], UINT32_MAX)),
                               static_cast<uint32_t>(modem_number(w[1], UINT32_MAX)),
                               w.size() > 2 ? w[2] : "vexa", HEADER_SIZE));
        });
    add("save", "DB FILE", "write the list that is held under that database id into a file", 2,
        [this](const words& w) { save(w[0], w[1]); });
    add("stall", "on|off", "send no indications", 1,
        [this](const words& w) { stalled_ = w[0] == "on"; });
    add("late", "MS", "send indications so much later; 0: at once", 1, [this](const words& w) {
        delay_ = std::chrono::milliseconds(modem_number(w[0], 1000L * 86400));
    });
    add("error", "CODE", "report that error for the next segment (2: full, 41: bad id)", 1,
        [this](const words& w) {
            next_error_ = static_cast<uint16_t>(modem_number(w[0], UINT16_MAX));
        });
    add("reset", "", "forget the segments so far at the next one, and say so", 0,
        [this](const words&) { next_reset_ = true; });
    add("early", "SIZE", "be content with so many bytes of a list; 0: only with all", 1,
        [this](const words& w) { early_at_ = modem_number(w[0]); });
}

void pdc_service::hold(const std::string& bytes) {
    const std::string id = band_list_id(bytes);
    held_[id] = bytes;
    port_.log("holds " + hex(id) + ", " + count(bytes.size()));
}

void pdc_service::save(const std::string& db_id, const std::string& path) {
    const auto found = held_.find(id_of(static_cast<uint32_t>(modem_number(db_id, UINT32_MAX))));
    if (found == held_.end()) throw std::invalid_argument("no such list: " + db_id);
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream << found->second;
    stream.close();
    if (!stream) throw std::runtime_error("cannot write " + path);
    port_.log("saved " + path);
}

// ---- Requests

std::vector<wire_field> pdc_service::answer(const wire_message& request) {
    if (request.integer(0x02, 4) != BAND_LIST_TYPE)
        throw wire_refusal(WIRE_ERROR_MALFORMED, "not of type 16");
    switch (request.id) {
        case LOAD_CONFIG:
            take_segment(request);
            return {};
        case GET_CONFIG_INFO:
            tell_header(request);
            return {};
        default:
            throw std::runtime_error("no such message");
    }
}

void pdc_service::tell_header(const wire_message& request) {
    const std::string id = request.bytes(0x03, ID_MAX);
    const auto found = held_.find(id);
    port_.log("header of " + hex(id) + (found == held_.end() ? ": none" : ""));
    std::vector<wire_field> outcome;
    if (found != held_.end())
        outcome.push_back({0x10, wire_bytes(found->second.substr(0, HEADER_SIZE))});
    indicate_later(GET_CONFIG_INFO, request.integer(0x01, 4), std::move(outcome));
}

void pdc_service::take_segment(const wire_message& request) {
    const std::string id = request.bytes(0x03, ID_MAX);
    const uint64_t total = request.integer(0x04, 4);
    const std::string frame = request.bytes(0x05, FRAME_MAX);
    if (total > CONFIG_MAX) throw std::runtime_error("too long");
    indicate_later(LOAD_CONFIG, request.integer(0x01, 4), segment_outcome(total, id, frame));
}

std::vector<wire_field> pdc_service::segment_outcome(uint64_t total, const std::string& id,
                                                     const std::string& frame) {
    if (const uint16_t error = std::exchange(next_error_, 0)) {
        transfer_ = {};
        port_.log("error " + std::to_string(error) + " for a segment");
        return {{0x10, wire_integer(error, 2)}};
    }
    if (std::exchange(next_reset_, false)) {
        transfer_ = {};
        port_.log("forgot the segments so far");
        return {{0x13, wire_integer(1, 1)}};
    }
    if (transfer_.id != id) transfer_ = {.id = id, .bytes = {}};
    transfer_.bytes += frame;
    const size_t received = transfer_.bytes.size();
    port_.log("segment of " + count(frame.size()) + ", " + std::to_string(received) + " of " +
              std::to_string(total));
    const bool complete = received >= total || (early_at_ > 0 && received >= early_at_);
    if (complete) {
        held_[id] = transfer_.bytes;
        port_.log("holds " + hex(id) + ", " + count(received));
        transfer_ = {};
    }
    return {{0x11, wire_integer(received, 4)},
            {0x12, wire_integer(complete ? 0 : total - received, 4)}};
}

// The response goes out first.
void pdc_service::indicate_later(uint16_t id, uint64_t token, std::vector<wire_field> outcome) {
    if (stalled_) {
        port_.log("message " + std::to_string(id) + " left without an indication");
        return;
    }
    outcome.insert(outcome.begin(), {0x01, wire_integer(token, 4)});
    loop_.after(delay_, [this, id, outcome] { port_.indicate(id, outcome); });
}

std::unique_ptr<modem_service> make_pdc_service(modem& loop) {
    return std::make_unique<pdc_service>(loop);
}
