#include "scenario/driven_scenario.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "conductor/player.h"
#include "host/clock_course.h"
#include "host/driven.h"
#include "scenario/daemon_process.h"

namespace {

namespace fs = std::filesystem;

constexpr char ROOT[] = "/.";

void conduct(conductor* clocks, script_player* player, daemon_process* daemon) {
    const auto deadline = std::chrono::steady_clock::now() + SCENARIO_LIMIT;
    for (;;) {
        const conductor::progress progress = clocks->step(player);
        if (progress == conductor::progress::MOVED) continue;
        if (daemon->wait(milliseconds(0))) return;
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("it does not get on:" + clocks->who_runs());
        player->check_stop(progress == conductor::progress::STALLED);
        clocks->wait_for_moves();
    }
}

// Where the conductor looks for the daemon's threads: the phone's /proc is a tree of files.
void show_threads_in_proc(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    fs::create_directories(dir);
    if (!fs::exists(dir + "/task"))
        fs::create_directory_symlink("/.host" + dir + "/task", dir + "/task");
}

}  // namespace

driven_result play(const std::string& script, const std::string& clock,
                   const std::vector<std::string>& environment) {
    driven_result result;
    (void)driven_is_on();  // it is off for the test itself, and remembers that
    std::optional<daemon_process> daemon;
    try {
        std::istringstream lines(script);
        conductor clocks(ROOT, clock_spec_parse(clock.data(), clock.size()).value_or(clock_spec{}),
                         {});
        script_player player(
            ROOT, script_parse(lines, std::string(SCRIPT_DIR) + "script"),
            [&](const std::string& text) { result.snapshots.push_back(text); },
            [&](int signo) { daemon->signal(signo); });
        player.follow(&clocks);
        while (player.serve()) {  // what stands at the beginning is there before the daemon
        }
        daemon.emplace(environment);
        show_threads_in_proc(daemon->pid());
        clocks.add_process(daemon->pid());
        conduct(&clocks, &player, &*daemon);
        result.exit_code = daemon->wait();
        player.snapshot();
        for (const std::string& text : result.snapshots) result.transcript += text;
        result.snapshots.pop_back();
    } catch (const std::exception& error) {
        ADD_FAILURE() << error.what() << "\n" << phone_log();
    }
    return result;
}

std::string driven_result::lines_with(const std::string& text) const {
    constexpr size_t DAY_LEN = 3;
    std::istringstream lines(transcript);
    std::string found;
    bool is_log = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("-- ")) is_log = line.starts_with("-- log of ");
        if (is_log && line.find(text) != std::string::npos) found += line.substr(DAY_LEN) + "\n";
    }
    return found;
}
