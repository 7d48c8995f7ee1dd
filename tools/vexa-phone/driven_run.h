// A run in driven time: the conductor, the script and the modem beside the daemon.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "conductor/player.h"
#include "run.h"

struct driven_options {
    std::optional<clock_spec> start{};  // none: the script's
    std::optional<uint64_t> shuffle_seed{};
    std::string script;      // file; "-": standard input; empty: none
    std::string transcript;  // file that snapshots go to; "-": standard output; empty: none
};

class driven_run : public phone_companion {
  public:
    // Throws std::exception.
    driven_run(const std::string& dir, const driven_options& options);
    ~driven_run() override;

    void begin(pid_t pid, std::function<void(int)> send_signal) override;
    int work() override;

    // The last snapshot. Throws std::exception.
    void end();

  private:
    driven_run(const std::string& dir, const driven_options& options, const script& lines);
    void note_long_turn();

    std::function<void(int)> send_signal_;
    FILE* transcript_ = nullptr;
    conductor conductor_;
    script_player player_;
    uint64_t seen_wakes_ = 0;
    std::chrono::steady_clock::time_point seen_at_ = std::chrono::steady_clock::now();
    bool is_noted_ = false;
};
