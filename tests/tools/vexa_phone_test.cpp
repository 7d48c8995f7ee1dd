// vexa-phone from outside: what its caller, its command and the phone's directory see of it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>

#include "phone/enter.h"
#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class VexaPhone : public testing::Test {
  protected:
    // The phone's /proc knows nothing of bubblewrap's processes.
    static void SetUpTestSuite() { phone_show_host_proc(); }

    // Runs a shell script in the phone to its end. Returns its exit code; what it wrote is in
    // output().
    std::optional<int> run_script(const std::string& script,
                                  const std::vector<std::string>& options = {}) {
        child_process run(phone_.run({"sh", "-c", script}, options), output_path());
        return run.wait();
    }
    std::string output() const { return read_file(output_path()).value_or(""); }
    fs::path output_path() const { return phone_.dir() / "output"; }

    temporary_phone phone_;
};

TEST_F(VexaPhone, ExitCodeIsTheCommands) {
    write_text_file(phone_.path("/data/no_program"), "text");
    const struct {
        std::vector<std::string> command;
        int code;
    } rows[] = {
        {{"true"}, 0},
        {{"sh", "-c", "exit 5"}, 5},
        {{"sh", "-c", "kill -KILL $$"}, 128 + SIGKILL},
        {{"/data/no-such-program"}, 127},
        {{"/data/no_program"}, 126},
        {{"sh", "-c", "test $# = 2 && test \"$2\" = --", "name", "--host-proc", "--"}, 0},
    };
    for (const auto& row : rows) {
        child_process run(phone_.run(row.command), output_path());
        EXPECT_EQ(run.wait(), row.code) << row.command[0] << ": " << output();
    }
}

TEST_F(VexaPhone, SignalsReachTheCommandItself) {
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) {
        fs::remove(phone_.path("/data/ready"));
        const std::string script = "trap 'exit 7' " + std::to_string(signo) +
                                   "; : > /data/ready; while :; do sleep 0.01; done";
        child_process run(phone_.run({"sh", "-c", script}));
        ASSERT_TRUE(wait_for_file(phone_.path("/data/ready")));
        run.signal(signo);
        EXPECT_EQ(run.wait(), 7) << signo;
    }
}

TEST_F(VexaPhone, SignalThatComesBeforeTheCommandIsKeptForIt) {
    for (int i = 0; i < 20; ++i) {
        child_process run(phone_.run({"sleep", "1000"}));
        // Ever later into the start: from the program's own first steps to the command's.
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(i);
        while (std::chrono::steady_clock::now() < until) {
        }
        run.signal(SIGTERM);
        EXPECT_EQ(run.wait(), 128 + SIGTERM) << i;
    }
}

// Every process in the phone holds the pipe; it ends when the last of them has.
TEST_F(VexaPhone, NothingInThePhoneOutlivesAKill) {
    for (int i = 0; i < 10; ++i) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        fs::remove(phone_.path("/data/ready"));
        child_process run(
            phone_.run(
                {"sh", "-c",
                 "setsid sleep 1000 & (sleep 1000 & sleep 1000) & : > /data/ready; sleep 1000"}),
            "/proc/self/fd/" + std::to_string(ends[1]));
        close(ends[1]);
        // The first rounds strike while the phone is being made.
        if (i >= 5) {
            ASSERT_TRUE(wait_for_file(phone_.path("/data/ready")));
        }
        run.signal(SIGKILL);
        EXPECT_EQ(run.wait(), 128 + SIGKILL);
        pollfd end{.fd = ends[0], .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&end, 1, static_cast<int>(EVENT_LIMIT.count())), 1) << "a process is left";
        char nothing = 0;
        EXPECT_EQ(read(ends[0], &nothing, 1), 0);
        close(ends[0]);
    }
}

TEST_F(VexaPhone, CommandSeesThePhoneAndWritesIntoItsDirectory) {
    EXPECT_EQ(
        run_script(
            "cat /sys/devices/system/cpu/possible && echo written > /data/vendor/file && "
            "grep -q Name /proc/self/status && echo x > /dev/null && ls /dev/fd/0 > /dev/null"),
        0)
        << output();
    EXPECT_EQ(output(), "0-7\n");
    EXPECT_EQ(read_file(phone_.path("/data/vendor/file")), "written\n");
    EXPECT_EQ(fs::file_size(phone_.path("/dev/null")), 0u)
        << "the device is seen, not the tree's file";
}

TEST_F(VexaPhone, OptionsSetPropertyClockProcAndSize) {
    EXPECT_EQ(run_script("test -d /proc/" + std::to_string(getpid()), {"--host-proc"}), 0)
        << output();
    EXPECT_NE(run_script("test -d /proc/" + std::to_string(getpid())), 0);
    EXPECT_EQ(
        run_script("cat /dev/properties/a.b /dev/clock",
                   {"--property", "a.b=1=2", "--property", "c=", "--clock", "boot=30 speed=60"}),
        0);
    EXPECT_EQ(output(), "1=2boot=30 speed=60");
    EXPECT_NE(
        run_script("head -c 200000 /dev/zero > /data/vendor/vexa/up/file", {"--size", "100000"}),
        0);
    EXPECT_THAT(output(), HasSubstr("No space left"));
}

TEST_F(VexaPhone, CommandHasNoPowerOverPermissions) {
    EXPECT_NE(run_script("echo x > /data/closed; chmod 0 /data/closed; cat /data/closed"), 0);
}

TEST_F(VexaPhone, WrongCallsAreRefusedWithAReason) {
    const std::string dir = phone_.dir();
    const struct {
        std::vector<std::string> arguments;
        const char* reason;
    } rows[] = {
        {{"run", dir + "/missing"}, "no such directory"},
        {{"run", "/usr"}, "is no phone"},
        {{"create", dir}, "is not empty"},
        {{"run", dir, "--clock", "tomorrow", "--", "true"}, "--clock"},
        {{"run", dir, "--property", "a/b=c", "--", "true"}, "--property"},
        {{"run", dir, "--property", "a=" + std::string(92, 'x'), "--", "true"}, "91 bytes"},
        {{"run", dir, "--no-such-option", "--", "true"}, "--no-such-option"},
    };
    for (const auto& row : rows) {
        std::vector<std::string> words = {program("vexa-phone")};
        words.insert(words.end(), row.arguments.begin(), row.arguments.end());
        child_process run(words, output_path());
        EXPECT_NE(run.wait(), 0) << row.reason;
        EXPECT_THAT(output(), HasSubstr(row.reason));
    }
}

TEST_F(VexaPhone, DirectoryMayLieAsDeepAsItLikes) {
    const std::string deep = phone_.dir() / std::string(200, 'x') / std::string(200, 'y');
    child_process create({program("vexa-phone"), "create", deep});
    ASSERT_EQ(create.wait(), 0);
    child_process run({program("vexa-phone"), "run", deep, "--", "sh", "-c", ": > /data/here"});
    EXPECT_EQ(run.wait(), 0);
    EXPECT_TRUE(fs::exists(deep + "/data/here"));
}

}  // namespace
