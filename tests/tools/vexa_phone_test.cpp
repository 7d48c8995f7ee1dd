// vexa-phone from outside: what its caller, its command and the phone's directory see of it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <fstream>

#include "phone/enter.h"
#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// Lets a moment pass that no event marks: which moment a signal strikes is what such a test varies.
void spin_ms(int ms) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < until) {
    }
}

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
        spin_ms(i);
        run.signal(SIGTERM);
        EXPECT_EQ(run.wait(), 128 + SIGTERM) << i;
    }
}

// Every process in the phone holds the pipe; it ends when the last of them has.
TEST_F(VexaPhone, NothingInThePhoneOutlivesAKill) {
    for (int i = 0; i < 25; ++i) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        fs::remove(phone_.path("/data/ready"));
        child_process run(
            phone_.run(
                {"sh", "-c",
                 "setsid sleep 1000 & (sleep 1000 & sleep 1000) & : > /data/ready; sleep 1000"}),
            "/proc/self/fd/" + std::to_string(ends[1]));
        close(ends[1]);
        // Most rounds strike while the phone is being made, the last ones when all is up.
        if (i < 20) {
            spin_ms(i / 2);
        } else {
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

// The directory of this test is one that the test itself may write to; root's own and the machine's
// settings are of interest only when the tests run as root.
TEST_F(VexaPhone, CommandOfRootChangesNothingOfTheMachine) {
    const std::string script =
        "for dir in " + program("vexa-phone").parent_path().string() +
        " . /usr /etc /var ~root; do "
        "  if touch $dir/.vexa_phone_test; then rm -f $dir/.vexa_phone_test; echo wrote $dir; fi; "
        "done;"
        "level=$(cat /proc/sys/vm/swappiness); "
        "if echo $level > /proc/sys/vm/swappiness; then echo wrote /proc/sys; fi; "
        "if test $(id -u) = 0; then echo root; fi; test ! -e /run && echo end";
    for (const char* option : {"--size=1000000", "--host-proc"}) {
        EXPECT_EQ(run_script("exec 2> /dev/null; " + script, {option}), 0) << option;
        EXPECT_EQ(output(), "end\n") << option;
    }
}

TEST_F(VexaPhone, CommandWritesWhereItsCallerLetsIt) {
    const std::string here = fs::current_path();
    const std::string touch = "touch .vexa_phone_test.$$ && rm .vexa_phone_test.$$";
    EXPECT_EQ(run_script("cd /tmp && " + touch), 0) << output();
    EXPECT_EQ(run_script("cd " + here + " && " + touch, {"--writable", here}), 0) << output();
}

// A neighbour who may write into the tree puts a link in the place of a part of it.
TEST_F(VexaPhone, TreeWithALinkForAPartIsRefused) {
    const std::string said = phone_.dir().string() + ".said";
    for (const char* part : {"data", "dev", "dev/properties", "dev/socket/kbr", "mnt/vendor", ""}) {
        const fs::path path = part[0] == '\0' ? phone_.dir() : phone_.dir() / part;
        const fs::path aside = phone_.dir().string() + ".aside";
        fs::rename(path, aside);
        fs::create_directory_symlink(aside, path);
        for (const std::vector<std::string>& words :
             {phone_.run({"true"}, {"--property", "a=1"}),
              std::vector<std::string>{program("vexa-modem"), phone_.dir().string() + "/"}}) {
            child_process run(words, said);
            EXPECT_EQ(run.wait(), 1) << words[0] << ' ' << part;
            EXPECT_THAT(read_file(said).value_or(""),
                        HasSubstr(path.string() + " is a symbolic link"));
        }
        EXPECT_FALSE(fs::exists(aside / "a")) << "a property was written through the link";
        fs::remove(path);
        fs::rename(aside, path);
    }
    fs::remove(said);
}

// Whoever has a terminal can type into it what the caller's shell will run.
TEST_F(VexaPhone, TerminalIsNotTheCommandsButItsInterruptStillComes) {
    std::vector<std::string> words = phone_.run(
        {"sh", "-c",
         "trap 'exit 7' INT; if (: < /dev/tty) 2> /dev/null; then echo has a terminal; fi; "
         "echo ready; while :; do sleep 0.01; done"});
    fs::create_directory("/data/pts");
    ASSERT_EQ(mount("pts", "/data/pts", "devpts", 0, "newinstance,ptmxmode=0666"), 0);
    const unique_fd terminal(open("/data/pts/ptmx", O_RDWR | O_NOCTTY | O_CLOEXEC));
    const int unlocked = 0;
    ASSERT_EQ(ioctl(terminal.get(), TIOCSPTLCK, &unlocked), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(30);  // counts on through exec
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        if (login_tty(ioctl(terminal.get(), TIOCGPTPEER, O_RDWR)) == 0) execv(argv[0], argv.data());
        _exit(1);
    }
    std::string seen;
    char byte = 0;
    while (seen.find("ready") == std::string::npos && read(terminal.get(), &byte, 1) == 1)
        seen += byte;
    EXPECT_EQ(seen, "ready");
    EXPECT_EQ(write(terminal.get(), "\x03", 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
    umount2("/data/pts", MNT_DETACH);
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
        {{"run", dir + "/\x1b[2J"}, "/\\x1b[2J"},
        {{"run", dir, "--property", "\x1b/\u009b", "--", "true"}, "\\x1b/\\xc2\\x9b"},
        {{"run", dir, "--\x7f", "--", "true"}, "--\\x7f"},
        {{"run", dir, "--", "/\x1b[2J"}, "cannot run /\\x1b[2J"},
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
