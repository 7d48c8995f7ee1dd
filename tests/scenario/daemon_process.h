// The real daemon as a child process of a test, in the phone that the test binary has entered: what
// its owner, the upload agent and the server see of it.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/process.h"

inline constexpr char UP_DIR[] = "/data/vendor/vexa/up";
inline constexpr char DOWN_DIR[] = "/data/vendor/vexa/down";
inline constexpr char STATS_DIR[] = "/data/vendor/vexastats";

using std::chrono::milliseconds;

// Empties the phone: data, log, properties and clock as they are before a first start.
void phone_reset();

// Sets the simulated clock, for example "real=1970-01-01T00:00:10Z speed=20".
void phone_set_clock(const std::string& spec);

// The text of every entry in the main log, oldest first, one a line.
std::string phone_log();

// Makes or removes the directories that stand for the owner's consent and for the download agent.
void opt_in(int client_id);
void opt_out(int client_id);

// Delivers a file as the download agent does: whole, by rename.
void deliver(int client_id, const std::string& name, const std::string& text);

// More than anything should take on a machine that does other things as well.
inline constexpr milliseconds SCENARIO_LIMIT{30000};

// Waits until `condition` holds, looking every few milliseconds. Returns false after the limit.
bool eventually(const std::function<bool()>& condition, milliseconds limit = SCENARIO_LIMIT);

// Waits until the main log has this text in it.
bool eventually_logged(const std::string& text);

class daemon_process : public child_process {
  public:
    // Standard output and error go to the file `output`.
    explicit daemon_process(const std::vector<std::string>& environment = {},
                            const std::string& output = "/dev/null");
    ~daemon_process();

    // SIGTERM, and whether the daemon then ended in order: exit code 0, within the limit.
    bool stop(milliseconds limit = SCENARIO_LIMIT);
};

// How often a storm is to come: VEXA_STORM_ROUNDS, or so often.
int storm_rounds(int by_default);
