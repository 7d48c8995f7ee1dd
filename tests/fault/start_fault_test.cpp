// One start of the whole daemon, its first sample and its stop, with every single call failing
// once: it ends when it is told to, with the exit code that belongs to the failure, and drops
// nothing torn.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "core/daemon.h"
#include "fault/fault.h"
#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

struct end_of_start {
    bool failed = false;  // there was such a call
    int exit_code = -1;
    std::string log;
};

// Forks a daemon whose n-th call of `name` fails, lets it take its first sample if it can, and
// stops it.
void start_with_fault(const char* name, long n, end_of_start* end) {
    phone_reset();
    fs::create_directories(std::string(DOWN_DIR) + "/2");
    deliver_quick_cpu_config(65536);
    phone_set_clock("speed=10");
    opt_in(2);

    fault_arm(name, n);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        _exit(daemon_run() & 0xFF);
    }
    int status = 0;
    pid_t ended = 0;
    const auto sampled = [] {
        const std::string record = std::string(STATS_DIR) + "/2/cpustats.tmp";
        return fs::exists(record) && fs::file_size(record) > 200;
    };
    eventually([&] { return (ended = waitpid(pid, &status, WNOHANG)) != 0 || sampled(); },
               milliseconds(700));
    if (ended == 0) {
        kill(pid, SIGTERM);
        ASSERT_TRUE(eventually([&] { return (ended = waitpid(pid, &status, WNOHANG)) != 0; },
                               SCENARIO_LIMIT))
            << "does not end\n"
            << phone_log() << (kill(pid, SIGKILL), "");
    }
    end->failed = fault_disarm();
    end->log = phone_log();
    ASSERT_TRUE(WIFEXITED(status)) << end->log;
    end->exit_code = WEXITSTATUS(status);
}

struct all_starts {
    int count = 0;
    std::string logged;
    std::set<int> exit_codes;
};

// A start for every call that one makes, with that call failing.
void fail_every_call(all_starts* starts) {
    for (const char* name : fault_calls()) {
        bool more = true;
        for (long n = 1; more; n++) {
            SCOPED_TRACE(testing::Message() << "call " << n << " of " << name);
            end_of_start end;
            start_with_fault(name, n, &end);
            if (testing::Test::HasFatalFailure()) return;
            more = end.failed;
            starts->count++;
            starts->logged += end.log;
            starts->exit_codes.insert(end.exit_code);
            EXPECT_NO_THROW(take_uploads(2));
            if (end.exit_code == 256 - 22) continue;  // the early end, which leaves the property
            // Collectors that a failed start leaves behind may have the last word.
            const std::string ending =
                "property_set vendor.orb.vexa.enabled 0\nvexastatsd stopped\n";
            EXPECT_TRUE(end.exit_code == 0
                            ? end.log.ends_with(ending)
                            : end.log.find("vexastatsd stopped\n") != std::string::npos)
                << end.log;
        }
    }
}

TEST(StartFaultTest, EveryFailedCallOfAStartEndsInOrder) {
    const char* expected[] = {"failed to create /data/vendor/vexastats. err:28\n",
                              "failed to create thread: cpu_collector. err:11\n",
                              "failed to create optout_monitor thread. err:11\n",
                              "failed inotify_init. err:24\n",
                              "failed inotify_add_watch. err:28\n",
                              "failed to open record file for cpu\n"};
    all_starts starts;
    const auto never_logged = [&] {
        return std::find_if(std::begin(expected), std::end(expected), [&](const char* text) {
            return starts.logged.find(text) == std::string::npos;
        });
    };
    // Two threads may make the calls of one name in either order: a round can miss one of them.
    for (int round = 0; round < 5 && never_logged() != std::end(expected); round++) {
        fail_every_call(&starts);
        if (HasFailure()) return;
    }
    printf("%d starts, each with another call failing\n", starts.count);
    EXPECT_TRUE(never_logged() == std::end(expected)) << "never logged: " << *never_logged();
    EXPECT_THAT(starts.exit_codes, ::testing::IsSupersetOf({0, 11, 234}));
}

}  // namespace
