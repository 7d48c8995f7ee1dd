#include "driven_run.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <fstream>
#include <iostream>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int STEPS_AT_ONCE = 64;
constexpr int IDLE_MS = 10;
constexpr std::chrono::minutes LONG_TURN{1};

script read_script(const std::string& name) {
    if (name.empty()) return {};
    if (name == "-") return script_parse(std::cin, "standard input");
    std::ifstream in(name);
    if (!in) throw std::system_error(errno, std::generic_category(), name);
    return script_parse(in, name);
}

FILE* open_transcript(const std::string& name) {
    if (name.empty()) return nullptr;
    if (name == "-") return stdout;
    FILE* file = fopen(name.c_str(), "we");
    if (!file) throw std::system_error(errno, std::generic_category(), name);
    return file;
}

// In the zone of the script, which the daemon inherits.
clock_spec begin_of(const script& lines) {
    if (!lines.zone.empty()) setenv("TZ", lines.zone.c_str(), 1);
    tzset();
    const auto start = clock_spec_parse(lines.start.data(), lines.start.size());
    if (!lines.start.empty() && (!start || start->speed))
        throw std::invalid_argument(lines.name + ": no start: " + lines.start);
    return start.value_or(clock_spec{});
}

}  // namespace

driven_run::driven_run(const std::string& dir, const driven_options& options)
    : driven_run(dir, options, read_script(options.script)) {}

driven_run::driven_run(const std::string& dir, const driven_options& options, const script& lines)
    : transcript_(open_transcript(options.transcript)),
      conductor_(dir, options.start.value_or(begin_of(lines)), options.shuffle_seed),
      player_(
          dir, lines,
          [this](const std::string& text) {
              if (transcript_) (void)fwrite(text.data(), 1, text.size(), transcript_);
          },
          [this](int signo) {
              if (!send_signal_) throw std::invalid_argument("there is no daemon yet");
              send_signal_(signo);
          }) {
    player_.follow(&conductor_);
    // What stands at the script's beginning is there before the daemon is. Its end is not: it is
    // for the daemon.
    while (player_.next_ns() <= conductor_.boot_ns()) (void)player_.serve();
}

driven_run::~driven_run() {
    if (transcript_ && transcript_ != stdout) (void)fclose(transcript_);
}

void driven_run::begin(pid_t pid, std::function<void(int)> send_signal) {
    send_signal_ = std::move(send_signal);
    conductor_.add_process(pid);
}

// Once a run: somebody may wait in a call that gives nothing up.
void driven_run::note_long_turn() {
    const auto now = std::chrono::steady_clock::now();
    if (conductor_.wakes() != seen_wakes_) {
        seen_wakes_ = conductor_.wakes();
        seen_at_ = now;
    } else if (!is_noted_ && now - seen_at_ > LONG_TURN) {
        is_noted_ = true;
        fprintf(stderr, "vexa-phone: for a minute the same thread has had the turn:%s\n",
                conductor_.who_runs().c_str());
    }
}

int driven_run::work() {
    note_long_turn();
    for (int i = 0; i < STEPS_AT_ONCE; ++i) {
        switch (conductor_.step(&player_)) {
            case conductor::progress::MOVED:
                break;
            case conductor::progress::BUSY:
                conductor_.wait_for_moves();
                break;
            case conductor::progress::STALLED:
                player_.check_stop(true);
                seen_at_ = std::chrono::steady_clock::now();  // nobody has the turn
                return IDLE_MS;
        }
    }
    player_.check_stop(false);
    return 0;
}

void driven_run::end() {
    player_.snapshot();
    if (transcript_) (void)fflush(transcript_);
}
