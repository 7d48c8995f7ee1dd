// Plays a script in a phone, together with the phone's modem.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "conductor/conductor.h"
#include "conductor/script.h"
#include "conductor/transcript.h"
#include "modem/modem.h"

class script_player : public conductor_guest {
  public:
    // `put` gets the text of snapshots; `send_signal` sends one to the daemon.
    script_player(const std::string& dir, script lines, std::function<void(const std::string&)> put,
                  std::function<void(int)> send_signal);

    // The clocks that it goes by. Before it serves.
    void follow(conductor* clocks);

    bool serve() override;
    int64_t next_ns() override;

    // Throws std::runtime_error when the daemon was told to stop and a minute of the phone's time
    // has passed since, or nothing can ever happen any more.
    void check_stop(bool is_stalled) const;

    // What has come since the last one, as text (transcript.h).
    void snapshot();

  private:
    struct due_line {
        const script_line* line = nullptr;
        int64_t next_ns = 0;
    };

    struct quiet_since {
        const script_line* line = nullptr;  // none: nothing is expected
        uint64_t wakes = 0;
    };

    using action = void (*)(script_player&, const script_line&);
    static const std::map<std::string, action> ACTIONS;

    int64_t first_ns(const script_line& line) const;
    void check_quiet();
    void note_property_writes();
    bool play_due();
    bool end_if_over();
    void signal_daemon(int signo);
    void play(const script_line& line);
    std::string path(const std::string& seen_as) const;
    void deliver(const std::string& name, const std::string& bytes);
    void tell_modem(const std::string& command);
    void start_modem();
    void tell_phone(const std::string& what);
    void set_clock(const std::string& spec);
    void append_log(const std::string& buffer, const std::string& tag, const std::string& message);
    std::string text_of(const script_line& line) const;

    std::string dir_;
    script script_;
    std::function<void(const std::string&)> put_;
    std::function<void(int)> send_signal_;
    conductor* clocks_ = nullptr;
    std::vector<due_line> due_;
    std::mt19937_64 chance_;
    phone_transcript transcript_;
    std::vector<std::string> modem_lines_;  // since the last snapshot, as the property writes
    std::vector<std::string> property_writes_;
    unique_fd property_watch_;
    std::vector<unique_fd> told_;
    quiet_since quiet_{};
    int64_t told_to_stop_ns_ = DRIVEN_NEVER;
    std::unique_ptr<modem> modem_;
    std::vector<std::unique_ptr<modem_service>> services_;
};
