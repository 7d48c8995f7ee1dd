// A scenario in driven time: the daemon in the phone that the test is in, and beside it a script.
// Whatever the script does, everybody has come to rest before its next line, so nothing is waited
// for, and what happened when stands in the log to the millisecond.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct driven_result {
    std::optional<int> exit_code;        // none: it did not end
    std::string transcript;              // of the phone at the end
    std::vector<std::string> snapshots;  // those that the script asked for

    // The lines of the log, thread by thread, that have `text` in them, from the hour on:
    // "10:20:00.000 I ...".
    std::string lines_with(const std::string& text) const;
};

// Runs the daemon, with `environment` added to the test's, and the script until the daemon has
// ended; at the script's end it gets SIGTERM. `clock` is where the time begins ("real=...
// boot=..."; else in 2023, a second after boot). Files that lines take with "< NAME" lie in
// SCRIPT_DIR. A script that cannot be played, and a daemon that does not stop, fail the test.
driven_result play(const std::string& script, const std::string& clock = "",
                   const std::vector<std::string>& environment = {});

inline constexpr char SCRIPT_DIR[] = "/dev/script/";
