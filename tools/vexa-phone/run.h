// Running a command in a phone.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "phone/mounts.h"

// The word that makes vexa-phone, called inside the phone, become the command.
inline constexpr char RUN_INSIDE[] = "--become";
inline constexpr char RUN_INSIDE_ON_HOST_PROC[] = "--become-on-host-proc";

// What goes along with a run, in the same thread.
class phone_companion {
  public:
    virtual ~phone_companion() = default;

    // The command is about to begin, in process `pid` of this machine; send_signal(signo) sends to
    // it.
    virtual void begin(pid_t pid, std::function<void(int)> send_signal) = 0;

    // Does some work. Returns for how many milliseconds it has nothing to do.
    virtual int work() = 0;
};

// Runs `command` in the phone and returns its exit code: 128 + N after signal N, 127 or 126 when it
// cannot be run. SIGTERM, SIGINT and SIGHUP are passed on to the command, and kept for it until it
// exists. When this process is killed, everything in the phone is. Throws std::exception.
int run_in_phone(const phone_options& options, const std::vector<std::string>& command,
                 phone_companion* companion = nullptr);

// The part inside the phone: reports to run_in_phone over descriptor `fd`, waits for its word and
// becomes `command` (null-terminated). Returns an exit code when that fails. Throws std::exception.
int become_command(int fd, bool host_proc, char** command);
