// vexa-phone from outside: signals, its end, and a terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include "phone/enter.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;

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

    temporary_phone phone_;
};

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

}  // namespace
