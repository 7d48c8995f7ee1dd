// A phone in driven time for tests: a script is played to its end, and what came of it is looked
// at.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "support/process.h"

struct driven_result {
    std::optional<int> code;  // vexa-phone's; none: it did not end
    std::string output;       // what it and the command printed
    std::string transcript;   // empty when the run failed
};

// A fresh phone whose time begins on a Wednesday at 06:00. Its caller must have called
// phone_show_host_proc().
class driven_phone {
  public:
    // `<` in a script reads from here.
    const std::filesystem::path& dir() const { return phone_.dir(); }

    // The phone has a few dozen processes; whoever has no use for them leaves the daemon less to
    // read.
    void remove_processes() const;

    // Runs `command` (none: the daemon) and plays `script`, in a file "script" beside the phone's
    // parts, to its end.
    driven_result run(const std::string& script, const std::vector<std::string>& options = {},
                      const std::vector<std::string>& command = {}) const;

  private:
    temporary_phone phone_;
};
