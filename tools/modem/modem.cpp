#include "modem/modem.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "phone/socket_address.h"

namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr int BACKLOG = 16;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

uint64_t machine_wall_clock_us() {
    const auto since_1970 = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(since_1970).count());
}

unique_fd listen_at(const fs::path& path) {
    fs::create_directories(path.parent_path());
    fs::remove(path);
    const socket_address address(path);
    unique_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd || bind(fd.get(), address.get(), address.size()) != 0 ||
        ::listen(fd.get(), BACKLOG) != 0) {
        fail(path);
    }
    return fd;
}

std::vector<std::string> split(const std::string& line) {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

}  // namespace

uint64_t modem_number(const std::string& word, uint64_t max) {
    size_t used = 0;
    uint64_t value = 0;
    try {
        value = std::stoull(word, &used, 0);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != word.size() || word.empty() || word[0] == '-' || value > max)
        throw std::invalid_argument("no such number: " + word);
    return value;
}

modem::modem(fs::path phone, std::function<void(const std::string&)> log)
    : wall_clock_us_(machine_wall_clock_us),
      phone_(std::move(phone)),
      log_(std::move(log)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake_) fail("eventfd");
    watch(wake_.get(), POLLIN, [this](short) { run_posted(); });
    add_command({.service = "",
                 .word = "help",
                 .arguments = "",
                 .help = "list the commands",
                 .run = [this](const auto&) {
                     for (const std::string& line : help()) this->log("help", line);
                 }});
    add_command({.service = "",
                 .word = "quit",
                 .arguments = "",
                 .help = "end the modem",
                 .run = [this](const auto&) { quit(); }});
}

modem::~modem() {
    std::error_code ignored;
    for (const listener& l : listeners_) fs::remove(l.path, ignored);
}

fs::path modem::path(std::string_view seen_as) const {
    return phone_ / fs::path(seen_as).relative_path();
}

void modem::listen(const std::string& seen_as, std::function<void(unique_fd)> accepted) {
    listeners_.push_back({.fd = listen_at(path(seen_as)), .path = path(seen_as)});
    const int fd = listeners_.back().fd.get();
    watch(fd, POLLIN, [fd, accepted = std::move(accepted)](short) {
        unique_fd connection(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (connection) accepted(std::move(connection));
    });
}

void modem::watch(int fd, short events, std::function<void(short)> ready) {
    watched_[fd] = {.events = events,
                    .serial = ++last_watch_,
                    .ready = std::make_shared<std::function<void(short)>>(std::move(ready))};
}

void modem::unwatch(int fd) {
    watched_.erase(fd);
}

modem::timer_id modem::after(std::chrono::milliseconds delay, std::function<void()> due) {
    timers_.emplace(timer_key{now_() + delay, ++last_timer_}, std::move(due));
    return last_timer_;
}

void modem::cancel(timer_id timer) {
    std::erase_if(timers_, [&](const auto& entry) { return entry.first.second == timer; });
}

void modem::add_command(modem_command command) {
    commands_.push_back(std::move(command));
}

void modem::log(std::string_view service, std::string_view text) {
    const std::lock_guard held(log_mutex_);
    log_(std::string(service) + ": " + std::string(text));
}

void modem::quit() {
    post([this] { quit_ = true; });
}

void modem::post(std::function<void()> work) {
    const std::lock_guard held(posted_mutex_);
    posted_.push_back(std::move(work));
    (void)eventfd_write(wake_.get(), 1);
}

bool modem::execute(const std::string& line) {
    std::vector<std::string> words = split(line);
    if (words.empty()) return true;
    const auto found =
        std::find_if(commands_.begin(), commands_.end(), [&](const modem_command& c) {
            if (c.service.empty()) return words[0] == c.word;
            return words.size() > 1 && words[0] == c.service && words[1] == c.word;
        });
    try {
        if (found == commands_.end()) throw std::invalid_argument("no such command; try help");
        words.erase(words.begin(), words.begin() + (found->service.empty() ? 1 : 2));
        found->run(words);
        return true;
    } catch (const std::exception& error) {
        log("error", line + ": " + error.what());
        return false;
    }
}

std::vector<std::string> modem::help() const {
    std::vector<std::string> lines;
    for (const modem_command& c : commands_) {
        std::string usage = c.service.empty() ? c.word : c.service + " " + c.word;
        if (!c.arguments.empty()) usage += " " + c.arguments;
        usage.resize(std::max<size_t>(usage.size() + 2, 36), ' ');
        lines.push_back(usage + c.help);
    }
    return lines;
}

void modem::run_posted() {
    eventfd_t ignored = 0;
    (void)eventfd_read(wake_.get(), &ignored);
    std::deque<std::function<void()>> work;
    {
        const std::lock_guard held(posted_mutex_);
        work.swap(posted_);
    }
    for (const auto& one : work) one();
}

void modem::run_timers() {
    const auto now = now_();
    while (!timers_.empty() && timers_.begin()->first.first <= now) {
        const auto due = timers_.extract(timers_.begin());
        due.mapped()();
    }
}

int modem::next_timeout_ms() const {
    if (timers_.empty()) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - now_());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, std::numeric_limits<int>::max()));
}

// What one callback unwatches, or watches anew under the same number, is not called any more.
void modem::dispatch(const std::vector<pollfd>& polled, const std::vector<uint64_t>& serials) {
    for (size_t i = 0; i < polled.size(); ++i) {
        if (polled[i].revents == 0) continue;
        const auto found = watched_.find(polled[i].fd);
        if (found == watched_.end() || found->second.serial != serials[i]) continue;
        const auto ready = found->second.ready;
        (*ready)(polled[i].revents);
    }
}

// Returns how many were ready.
int modem::poll_watched(int timeout_ms) {
    std::vector<pollfd> polled;
    std::vector<uint64_t> serials;
    for (const auto& [fd, entry] : watched_) {
        polled.push_back({.fd = fd, .events = entry.events, .revents = 0});
        serials.push_back(entry.serial);
    }
    const int count = poll(polled.data(), polled.size(), timeout_ms);
    if (count < 0 && errno != EINTR) fail("poll");
    if (count > 0) dispatch(polled, serials);
    return count;
}

void modem::run() {
    while (!quit_) {
        (void)poll_watched(next_timeout_ms());
        run_timers();
    }
}

void modem::use_clock(std::function<steady_clock::time_point()> now,
                      std::function<uint64_t()> wall_clock_us) {
    now_ = std::move(now);
    wall_clock_us_ = std::move(wall_clock_us);
}

bool modem::serve() {
    return poll_watched(0) > 0;
}

std::optional<steady_clock::time_point> modem::next_timer() const {
    if (timers_.empty()) return {};
    return timers_.begin()->first.first;
}
