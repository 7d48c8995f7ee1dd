#include "scenario/daemon_process.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "support/files.h"

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

namespace {

constexpr char CLOCK_FILE[] = "/dev/clock";

void remove_content(const fs::path& dir) {
    for (const fs::directory_entry& entry : fs::directory_iterator(dir))
        fs::remove_all(entry.path());
}

}  // namespace

void phone_reset() {
    remove_content("/data");
    fs::create_directories(UP_DIR);
    fs::create_directories(DOWN_DIR);
    remove_content("/dev/log");
    remove_content("/dev/properties");
    write_text_file("/dev/properties/ro.build.type", "user");
    fs::remove(CLOCK_FILE);
}

void phone_set_clock(const std::string& spec) {
    const std::string beside = std::string(CLOCK_FILE) + ".new";
    write_text_file(beside, spec + "\n");
    fs::rename(beside, CLOCK_FILE);
}

std::string phone_log() {
    std::string text;
    if (!fs::exists("/dev/log/main")) return text;
    const std::string log = file_text("/dev/log/main");
    for (size_t at = 0; at + 28 <= log.size();) {
        uint16_t payload_len = 0;
        memcpy(&payload_len, log.data() + at, sizeof payload_len);
        if (at + 28 + payload_len > log.size()) break;
        const std::string payload = log.substr(at + 28, payload_len);
        const std::string message = payload.substr(payload.find('\0') + 1).c_str();
        text += message;
        if (message.empty() || message.back() != '\n') text += '\n';
        at += 28 + payload_len;
    }
    return text;
}

bool eventually_logged(const std::string& text) {
    return eventually([&] { return phone_log().find(text) != std::string::npos; });
}

void opt_in(int client_id) {
    fs::create_directory(fs::path(UP_DIR) / std::to_string(client_id));
}

void opt_out(int client_id) {
    fs::remove_all(fs::path(UP_DIR) / std::to_string(client_id));
}

void deliver(int client_id, const std::string& name, const std::string& text) {
    const fs::path dir = fs::path(DOWN_DIR) / std::to_string(client_id);
    fs::create_directories(dir);
    write_text_file(dir / ".arriving", text);
    fs::rename(dir / ".arriving", dir / name);
}

bool eventually(const std::function<bool()>& condition, milliseconds limit) {
    const steady::time_point deadline = steady::now() + limit;
    for (;;) {
        if (condition()) return true;
        if (steady::now() >= deadline) return false;
        usleep(2000);
    }
}

int storm_rounds(int by_default) {
    const char* text = getenv("VEXA_STORM_ROUNDS");
    return text ? atoi(text) : by_default;
}

daemon_process::daemon_process(const std::vector<std::string>& environment,
                               const std::string& output)
    : child_process({program("vexastatsd")}, output, environment) {
    show_threads(pid());
}

daemon_process::~daemon_process() {
    std::error_code ignored;
    fs::remove_all("/proc/" + std::to_string(pid()), ignored);
}

bool daemon_process::stop(milliseconds limit) {
    signal(SIGTERM);
    return wait(limit) == 0;
}
