// What a phone holds, as text that is the same for two runs that did the same.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Tells at each snapshot what is new since the one before; the first one, since it was made.
class phone_transcript {
  public:
    // The phone in directory `dir`. With `about`, a thread's log is left out unless one of these
    // words occurs in it.
    phone_transcript(std::string dir, std::vector<std::string> about);

    // A time of the phone's wall clock as heading; the log since then, thread by thread;
    // `modem_lines`, which are the modem's own; the properties; `property_writes`, lines that
    // transcript_property_write made; the files under data/ that are new, changed or gone, with
    // modes and contents (uploads as their reader shows them). What has nothing new has no heading.
    // Throws std::exception.
    std::string next(int64_t real_ns, const std::vector<std::string>& modem_lines,
                     const std::vector<std::string>& property_writes);

  private:
    using thread_id = std::pair<int32_t, uint32_t>;  // process, thread
    using shown_texts = std::map<std::string, std::string>;

    std::string new_log();
    bool is_about(const std::string& text) const;
    std::string new_properties();
    std::string new_files();

    std::string dir_;
    std::vector<std::string> about_;
    ino_t log_file_ = 0;
    size_t log_seen_ = 0;                  // bytes of that file
    std::map<thread_id, size_t> threads_;  // numbered by the order of their first entries
    shown_texts properties_;
    shown_texts files_;
};

// A line about property `name` having been set, at this time of the wall clock.
std::string transcript_property_write(const std::string& dir, const std::string& name,
                                      int64_t real_ns);
