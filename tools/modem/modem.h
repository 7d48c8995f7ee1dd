// The modem's side of a simulated phone: one loop, and services that live in it. A service brings
// its sockets, its timers and its commands; services.cpp lists all there are.
#pragma once

#include <poll.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/unique_handle.h"

// One command of standard input: "SERVICE WORD ARGUMENTS...".
struct modem_command {
    std::string service;  // empty: of the modem itself
    std::string word;
    std::string arguments;  // as help shows them
    std::string help;
    // Throws std::exception when the arguments are no good; what() is shown.
    std::function<void(const std::vector<std::string>& arguments)> run;
};

// The loop. All callbacks run in the thread that is in run(); so must every other call, unless its
// comment says otherwise. Times are this machine's, not the phone's.
class modem {
  public:
    using timer_id = uint64_t;

    // `phone` is the directory of the phone; "/" for the phone that this process is in. `log` gets
    // every event, one line without its newline.
    modem(std::filesystem::path phone, std::function<void(const std::string&)> log);
    ~modem();
    modem(const modem&) = delete;
    modem& operator=(const modem&) = delete;

    // Where the phone's absolute path `seen_as` lies.
    std::filesystem::path path(std::string_view seen_as) const;

    // Listens on a SOCK_SEQPACKET socket at the phone's path `seen_as`, whatever its length; one
    // that was left there is replaced. `accepted` gets each connection, non-blocking. The socket is
    // removed at the end. Throws std::system_error.
    void listen(const std::string& seen_as, std::function<void(unique_fd)> accepted);

    // Calls `ready` with what poll(2) reports whenever `fd`, which stays the caller's, has one of
    // `events` or an error; again for the same fd: changes both. To be unwatched before it is
    // closed.
    void watch(int fd, short events, std::function<void(short revents)> ready);
    void unwatch(int fd);

    // Calls `due` once, when `delay` has passed. Timers that are due at one time run in the order
    // in which they were made.
    timer_id after(std::chrono::milliseconds delay, std::function<void()> due);
    void cancel(timer_id timer);  // harmless when it is over

    void add_command(modem_command command);

    // One line about an event: "SERVICE: TEXT". Any thread.
    void log(std::string_view service, std::string_view text);

    // Runs until quit(). Throws std::system_error.
    void run();

    std::chrono::steady_clock::time_point now() const { return now_(); }
    uint64_t wall_clock_us() const { return wall_clock_us_(); }

    // ---- For who has time pass by steps instead: `now` tells the time of timers from here on.
    // `wall_clock_us` tells the phone's microseconds since 1970.
    void use_clock(std::function<std::chrono::steady_clock::time_point()> now,
                   std::function<uint64_t()> wall_clock_us);
    bool serve();       // what is ready now, without waiting; returns whether anything was
    void run_timers();  // those that are due
    std::optional<std::chrono::steady_clock::time_point> next_timer() const;

    void quit();                            // any thread, also before run()
    void post(std::function<void()> work);  // has the loop do some work; any thread
    bool execute(const std::string& line);  // one command line; false, logged: it was no good
    std::vector<std::string> help() const;  // one line a command

  private:
    struct watched {
        short events = 0;
        uint64_t serial = 0;
        std::shared_ptr<std::function<void(short)>> ready;
    };
    struct listener {
        unique_fd fd;
        std::filesystem::path path;
    };
    using timer_key = std::pair<std::chrono::steady_clock::time_point, timer_id>;

    void run_posted();
    int next_timeout_ms() const;
    int poll_watched(int timeout_ms);
    void dispatch(const std::vector<pollfd>& polled, const std::vector<uint64_t>& serials);

    std::function<std::chrono::steady_clock::time_point()> now_ = std::chrono::steady_clock::now;
    std::function<uint64_t()> wall_clock_us_;
    std::filesystem::path phone_;
    std::function<void(const std::string&)> log_;
    std::mutex log_mutex_;
    std::vector<modem_command> commands_;
    std::map<int, watched> watched_;
    uint64_t last_watch_ = 0;
    std::vector<listener> listeners_;
    std::map<timer_key, std::function<void()>> timers_;
    timer_id last_timer_ = 0;
    unique_fd wake_;  // eventfd: there is posted work
    std::mutex posted_mutex_;
    std::deque<std::function<void()>> posted_;
    bool quit_ = false;
};

// A service of the modem. Made before the loop runs, destroyed after it has ended.
class modem_service {
  public:
    modem_service() = default;
    virtual ~modem_service() = default;
    modem_service(const modem_service&) = delete;
    modem_service& operator=(const modem_service&) = delete;
};

// How a service comes into being: it adds its sockets and its commands to the modem, and keeps the
// reference.
using modem_service_maker = std::unique_ptr<modem_service> (*)(modem&);

// All services there are (services.cpp): a new one is a file of its own and a line there.
std::span<const modem_service_maker> modem_services();

// A whole number in a command's arguments. Throws std::invalid_argument.
uint64_t modem_number(const std::string& word, uint64_t max = UINT64_MAX);
