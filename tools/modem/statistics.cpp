#include "modem/statistics.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

namespace fs = std::filesystem;

constexpr char DATA_DIR[] = "/mnt/vendor/persist/hlos_rfs/shared/vexa";
constexpr size_t PART_MAX = 800;
constexpr size_t FILE_MAX = size_t{64} << 20;

// Sizes of what it writes by itself.
constexpr size_t DATA_SIZE = 4096;
constexpr size_t STATIC_DATA_SIZE = 512;
constexpr size_t LLL_DATA_SIZE = 1024;
constexpr std::chrono::milliseconds WRITING_TAKES{20};

constexpr uint16_t BUFFER_FULL = 6;
constexpr uint16_t SEND_COMPLETE = 8;

const std::map<std::string, std::string> FILE_STEMS = {
    {"data", "hda_data_"}, {"static", "hda_static_data_"}, {"lll", "hda_lll_"}};

constexpr const char* SPEC_NAMES[] = {"static", "collection", "context", "lll"};

// Bytes that say where they come from and do not compress.
std::string data_bytes(const std::string& name, size_t size) {
    std::string bytes = name + "\n";
    uint64_t state = std::hash<std::string>()(name);
    while (bytes.size() < size) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        bytes += wire_integer(state >> 24, 4);
    }
    bytes.resize(size);
    return bytes;
}

void write_whole(const fs::path& path, const std::string& bytes) {
    const fs::path beside = path.parent_path() / ".writing";
    std::ofstream stream(beside, std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) throw std::runtime_error("cannot write " + path.string());
    fs::rename(beside, path);
}

std::string number(uint64_t value) {
    return std::to_string(value);
}

std::string optional_number(const wire_message& message, uint8_t type, size_t size) {
    return message.has(type) ? number(message.integer(type, size)) : "none";
}

}  // namespace

statistics_service::statistics_service(modem& loop)
    : loop_(loop),
      port_(loop, "vexa", [this](const wire_message& request) { return answer(request); }) {
    add_commands();
}

statistics_service::~statistics_service() = default;

// ---- Commands

void statistics_service::add_commands() {
    using words = std::vector<std::string>;
    const auto add = [this](const char* word, const char* arguments, const char* help,
                            std::function<void(const words&)> run) {
        loop_.add_command({"vexa", word, arguments, help, std::move(run)});
    };
    add("buffer-full", "[TYPE [TIMES]]", "send buffer-full indications", [this](const words& w) {
        const auto type = static_cast<uint32_t>(w.empty() ? 0 : modem_number(w[0], UINT32_MAX));
        const uint64_t times = w.size() > 1 ? modem_number(w[1], 1000000) : 1;
        for (uint64_t i = 0; i < times; ++i) buffer_full(type);
    });
    add("send-complete", "", "send a send-complete indication",
        [this](const words&) { send_complete(); });
    add("write", "data|static|lll SIZE", "write a data file", [this](const words& w) {
        if (w.size() != 2) throw std::invalid_argument("needs a kind and a size");
        write_data(w[0], modem_number(w[1], FILE_MAX));
    });
    add("auto", "on|off|SECONDS",
        "by itself: write data when asked, buffer-full every so many seconds (60)",
        [this](const words& w) {
            if (w.size() != 1) throw std::invalid_argument("needs on, off or seconds");
            by_itself_ = w[0] != "off";
            if (by_itself_ && w[0] != "on")
                buffer_full_every_ = std::chrono::seconds(modem_number(w[0], 86400));
            schedule_buffer_full();
        });
    add("save", "DIR", "write the specs it was given to files", [this](const words& w) {
        if (w.size() != 1) throw std::invalid_argument("needs a directory");
        save(w[0]);
    });
}

void statistics_service::save(const std::string& dir) {
    fs::create_directories(dir);
    for (size_t kind = 0; kind < logic_.specs.size(); ++kind)
        write_whole(fs::path(dir) / SPEC_NAMES[kind], logic_.specs[kind]);
}

// ---- Requests

std::vector<wire_field> statistics_service::answer(const wire_message& request) {
    switch (request.id) {
        case 1:
            port_.log("get service revision");
            return {{0x10, wire_integer(1, 2)}, {0x11, wire_integer(1, 2)}};
        case 2:
            prepare(request);
            return {};
        case 3:
            take_part(request);
            return {};
        case 4:
            start_collection();
            return {};
        case 5:
            stop_and_flush(request);
            return {};
        case 7:
            hand_over_data(request);
            return {};
        case 9:
            stop_lll();
            return {};
        case 10:
            port_.log("LLL start");
            lll_running_ = true;
            return {};
        default:
            throw wire_refusal(WIRE_ERROR_MALFORMED, "no such message");
    }
}

void statistics_service::prepare(const wire_message& request) {
    logic_ = {};
    logic_.parts_announced = static_cast<uint8_t>(request.integer(0x01, 1));
    if (request.has(0x14)) logic_.specs[STATIC] = request.bytes(0x14, PART_MAX);
    if (request.has(0x13)) throw std::runtime_error("field 19 is never sent");
    port_.log("prepare: parts " + number(logic_.parts_announced) + ", power " +
              optional_number(request, 0x10, 1) + " " + optional_number(request, 0x11, 1) + " " +
              optional_number(request, 0x12, 1) + ", static " +
              number(logic_.specs[STATIC].size()) + " bytes, subscription " +
              optional_number(request, 0x15, 4) + ", field 22 " +
              optional_number(request, 0x16, 4));
}

// Parts come in the order of their kinds, numbered on across them; only the last of a kind is
// short.
void statistics_service::take_part(const wire_message& request) {
    const uint64_t part = request.integer(0x01, 1);
    const std::string bytes = request.bytes(0x02, PART_MAX);
    const auto kind = static_cast<uint32_t>(request.integer(0x10, 4));
    port_.log("part " + number(part) + ": kind " + number(kind) + ", " + number(bytes.size()) +
              " bytes");
    if (kind < COLLECTION || kind > LLL) throw std::runtime_error("no such kind");
    if (part != logic_.parts % 256)
        throw std::runtime_error("part " + number(logic_.parts % 256) + " comes next");
    if (kind < logic_.kind) throw std::runtime_error("a part of an earlier kind");
    if (bytes.empty()) throw std::runtime_error("an empty part");
    if (kind != logic_.kind) logic_.kind_ended = false;
    if (logic_.kind_ended) throw std::runtime_error("a part behind the kind's last one");
    logic_.kind = kind;
    logic_.kind_ended = bytes.size() < PART_MAX;
    logic_.specs[kind] += bytes;
    ++logic_.parts;
}

void statistics_service::start_collection() {
    if (logic_.parts % 256 != logic_.parts_announced)
        throw std::runtime_error(number(logic_.parts_announced) + " parts were announced, " +
                                 number(logic_.parts) + " came");
    collecting_ = true;
    lll_running_ = !logic_.specs[LLL].empty();
    std::string text = "collection started:";
    for (size_t kind = 0; kind < logic_.specs.size(); ++kind)
        text += std::string(" ") + SPEC_NAMES[kind] + " " + number(logic_.specs[kind].size());
    port_.log(text);
    schedule_buffer_full();
}

void statistics_service::stop_and_flush(const wire_message& request) {
    port_.log("stop and flush: field 16 " + optional_number(request, 0x10, 1));
    if (!collecting_) throw wire_refusal(WIRE_ERROR_NO_EFFECT, "nothing is collected");
    collecting_ = false;
    lll_running_ = false;
    schedule_buffer_full();
    if (!by_itself_) return;
    write_data("data", DATA_SIZE);
    write_data("static", STATIC_DATA_SIZE);
    complete_soon();
}

void statistics_service::hand_over_data(const wire_message& request) {
    const uint64_t zero = request.integer(0x01, 4);
    port_.log("data request " + number(request.integer(0x02, 4)) + ", field 1 " + number(zero));
    if (!by_itself_) return;
    write_data("data", DATA_SIZE);
    complete_soon();
}

void statistics_service::stop_lll() {
    port_.log("LLL stop");
    if (lll_running_ && by_itself_) write_data("lll", LLL_DATA_SIZE);
    lll_running_ = false;
}

// ---- By itself

void statistics_service::write_data(const std::string& kind, size_t size) {
    const auto stem = FILE_STEMS.find(kind);
    if (stem == FILE_STEMS.end()) throw std::invalid_argument("no such kind: " + kind);
    const std::string name = stem->second + number(++files_) + ".bin";
    write_whole(loop_.path(DATA_DIR) / name, data_bytes(name, size));
    port_.log("wrote " + name + ", " + number(size) + " bytes");
}

// The response goes out first.
void statistics_service::complete_soon() {
    loop_.after(WRITING_TAKES, [this] { send_complete(); });
}

void statistics_service::send_complete() {
    port_.indicate(SEND_COMPLETE, {{0x01, wire_integer(files_, 4)}, {0x02, wire_integer(0, 4)}});
    port_.log("sent send-complete");
}

void statistics_service::buffer_full(uint32_t type) {
    port_.indicate(BUFFER_FULL, {{0x01, wire_integer(type, 4)}});
    port_.log("sent buffer-full, type " + number(type));
}

void statistics_service::schedule_buffer_full() {
    if (buffer_full_timer_) loop_.cancel(*buffer_full_timer_);
    buffer_full_timer_.reset();
    if (!collecting_ || !by_itself_ || buffer_full_every_.count() == 0) return;
    buffer_full_timer_ = loop_.after(buffer_full_every_, [this] {
        buffer_full(0);
        schedule_buffer_full();
    });
}

std::unique_ptr<modem_service> make_statistics_service(modem& loop) {
    return std::make_unique<statistics_service>(loop);
}
