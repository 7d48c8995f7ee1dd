// Starting programs from tests, and phones of their own for them.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "base/unique_handle.h"
#include "support/events.h"

// A running program. It is killed, and waited for, when it has not ended by the time this goes.
class child_process {
  public:
    // argv[0] is a path or a name for PATH; `environment` ("NAME=VALUE") is added to the caller's.
    // Standard output and error go to the file `output`, or where the caller's go when it is empty.
    explicit child_process(const std::vector<std::string>& argv,
                           const std::filesystem::path& output = {},
                           const std::vector<std::string>& environment = {});
    ~child_process();
    child_process(const child_process&) = delete;
    child_process& operator=(const child_process&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int signo) const;

    // Waits for the end. Returns the exit code, 128 + N after signal N, or nothing when `limit`
    // passes.
    std::optional<int> wait(std::chrono::milliseconds limit = EVENT_LIMIT);

  private:
    pid_t pid_ = -1;
    unique_fd pidfd_;
    std::optional<int> status_;
};

// A phone's tree in a fresh temporary directory, for programs that are started with vexa-phone or
// that look at a phone from outside. Removed at the end unless VEXA_TEST_KEEP=1.
class temporary_phone {
  public:
    temporary_phone();
    ~temporary_phone();
    temporary_phone(const temporary_phone&) = delete;
    temporary_phone& operator=(const temporary_phone&) = delete;

    const std::filesystem::path& dir() const { return dir_; }

    // Where the phone's absolute path `seen_as` lies: path("/data/vendor") is dir() /
    // "data/vendor".
    std::filesystem::path path(const std::string& seen_as) const { return dir_.string() + seen_as; }

    // The arguments of "vexa-phone run DIR options -- command"; no command: the daemon. The caller,
    // in a phone itself, must have called phone_show_host_proc(): bubblewrap needs the machine's
    // /proc.
    std::vector<std::string> run(const std::vector<std::string>& command = {},
                                 const std::vector<std::string>& options = {}) const;

  private:
    std::filesystem::path dir_;
};

// The path of one of the project's programs, which are built beside the tests.
std::filesystem::path program(const std::string& name);

// Shows the threads of a process that this one has started inside its phone where a real /proc has
// them, for the leak check at a sanitized program's end.
void show_threads(pid_t pid);
