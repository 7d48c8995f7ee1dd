// Three processes stand between the caller and the command: vexa-phone, bubblewrap, and
// bubblewrap's init inside the phone. The caller knows the first, signals are for the last. So the
// command's process starts as vexa-phone itself and reports over a socket: the kernel puts its
// process id as seen from here beside the message. It becomes the command once it is told that
// vexa-phone lives, and its end of the socket, closed on exec, tells that it has become it.
#include "run.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "base/unique_handle.h"
#include "bubblewrap.h"
#include "input/printable_text.h"
#include "phone/enter.h"
#include "phone/host_cpusets.h"

namespace {

constexpr int FORWARDED[] = {SIGTERM, SIGINT, SIGHUP};

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sigset_t forwarded_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : FORWARDED) sigaddset(&set, signo);
    return set;
}

unique_fd open_pidfd(pid_t pid) {
    return unique_fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

void send_signal(const unique_fd& process, int signo) {
    (void)syscall(SYS_pidfd_send_signal, process.get(), signo, nullptr,
                  0);  // fails when it has ended
}

// The forwarded signals stay blocked through bubblewrap, which the terminal's Ctrl-C would
// otherwise end, and the phone with it, before the command has ended in order.
[[noreturn]] void exec_bubblewrap(std::vector<std::string>& words, pid_t parent) {
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    execvp(argv[0], argv.data());
    fprintf(stderr, "vexa-phone: cannot run bwrap: %s (package bubblewrap)\n", strerror(errno));
    _exit(1);
}

// Kills the children of this process, and theirs as they become its own, until there are none.
void kill_descendants() {
    const std::string list = "/proc/self/task/" + std::to_string(gettid()) + "/children";
    pid_t ended = 0;
    while (ended >= 0) {
        std::ifstream children(list);
        pid_t pid = 0;
        while (children >> pid) kill(pid, SIGKILL);
        ended = waitpid(-1, nullptr, WNOHANG);
        if (ended == 0) usleep(500);  // the list need not be whole while it changes: look again
    }
}

int exit_code(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) fail("waitpid");
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The keeper lives as long as bubblewrap and vexa-phone both do; `lifeline` ends with vexa-phone.
// Half of bubblewrap can outlive the other half when that is killed, or fails, before they have
// agreed: the keeper is given what is orphaned and ends it.
int keep(std::vector<std::string>& words, const unique_fd& lifeline, int inside) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t self = getpid();
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        fcntl(inside, F_SETFD, 0);
        exec_bubblewrap(words, self);
    }
    close(inside);
    const unique_fd bubblewrap = open_pidfd(pid);
    pollfd ends[] = {
        {.fd = bubblewrap.get(), .events = POLLIN, .revents = 0},
        {.fd = lifeline.get(), .events = POLLIN, .revents = 0},
    };
    while (poll(ends, std::size(ends), -1) < 0 && errno == EINTR) {
    }
    const int code = ends[0].revents ? exit_code(pid) : 1;
    kill_descendants();
    return code;
}

// What the process inside sends: 0 before it becomes the command, or the errno of its failing to.
// Returns 0 at the end of the stream, or the number of bytes.
ssize_t receive_report(int fd, int* report, std::optional<pid_t>* sender) {
    iovec part = {.iov_base = report, .iov_len = sizeof *report};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t count = recvmsg(fd, &message, MSG_CMSG_CLOEXEC);
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (count > 0 && header && header->cmsg_level == SOL_SOCKET &&
        header->cmsg_type == SCM_CREDENTIALS) {
        ucred credentials;
        memcpy(&credentials, CMSG_DATA(header), sizeof credentials);
        *sender = credentials.pid;
    }
    return count;
}

// The run as this process sees it.
struct phone_run {
    unique_fd signals;  // signalfd of the forwarded signals
    unique_fd keeper;   // pidfd; it ends after bubblewrap
    unique_fd reports;  // socket to the process inside; closed when there is nothing more to come
    unique_fd command;  // pidfd, once the process inside has reported
    phone_companion* companion = nullptr;
    bool started = false;   // it has become the command
    int exec_errno = 0;     // it could not
    std::vector<int> held;  // signals that came before
};

void take_signal(phone_run* run) {
    signalfd_siginfo info = {};
    if (read(run->signals.get(), &info, sizeof info) != sizeof info) return;
    const int signo = static_cast<int>(info.ssi_signo);
    if (run->started) {
        send_signal(run->command, signo);
    } else {
        run->held.push_back(signo);
    }
}

void take_report(phone_run* run) {
    int report = 0;
    std::optional<pid_t> sender;
    const ssize_t count = receive_report(run->reports.get(), &report, &sender);
    if (count == sizeof report && report == 0 && sender) {
        run->command = open_pidfd(*sender);
        if (run->companion)
            run->companion->begin(*sender, [run](int signo) { send_signal(run->command, signo); });
        (void)!send(run->reports.get(), "", 1,
                    MSG_NOSIGNAL);  // it may have been killed: seen below
        return;
    }
    if (count == sizeof report && report != 0) run->exec_errno = report;
    run->reports.reset();
    if (!run->command || run->exec_errno != 0) return;
    run->started = true;
    for (const int signo : run->held) send_signal(run->command, signo);
    run->held.clear();
}

// Returns when the keeper has ended, and before it everything in the phone.
void follow(phone_run* run) {
    enum { KEEPER, SIGNALS, REPORTS, COUNT };
    for (;;) {
        pollfd fds[COUNT] = {
            {.fd = run->keeper.get(), .events = POLLIN, .revents = 0},
            {.fd = run->signals.get(), .events = POLLIN, .revents = 0},
            {.fd = run->reports.get(), .events = POLLIN, .revents = 0},
        };
        const int timeout_ms = run->companion && run->started ? run->companion->work() : -1;
        if (poll(fds, COUNT, timeout_ms) < 0 && errno != EINTR) fail("poll");
        if (fds[REPORTS].revents) take_report(run);
        if (fds[SIGNALS].revents) take_signal(run);
        if (fds[KEEPER].revents) return;
    }
}

// ---- The steps of a run

// Opens the channel on which what runs inside reports; returns its other end.
unique_fd open_reports(phone_run* run) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) fail("socketpair");
    run->reports.reset(ends[0]);
    unique_fd inside(ends[1]);
    const int on = 1;
    if (setsockopt(run->reports.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0)
        fail("SO_PASSCRED");
    return inside;
}

// bubblewrap's command line: the phone's mounts, and in it this program again, which becomes the
// command (become_command).
std::vector<std::string> phone_words(const phone_options& options,
                                     const std::vector<std::string>& command, int reports_fd) {
    constexpr char INSIDE[] = "/.host/vexa-phone";
    std::vector<mount_step> steps = phone_mounts(options);
    steps.push_back({mount_kind::BIND_RO, std::filesystem::read_symlink("/proc/self/exe"), INSIDE});
    std::vector<std::string> becoming = {INSIDE,
                                         options.host_proc ? RUN_INSIDE_ON_HOST_PROC : RUN_INSIDE,
                                         std::to_string(reports_fd)};
    becoming.insert(becoming.end(), command.begin(), command.end());
    return bubblewrap_words(steps, options, becoming);
}

void hold_signals(phone_run* run) {
    const sigset_t signals = forwarded_signals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    run->signals.reset(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!run->signals) fail("signalfd");
}

// Starts the process that keeps the phone. It and everything in the phone end with this one, since
// the end of the pipe in *held_to_the_end is closed then. Returns its id.
pid_t start_keeper(phone_run* run, std::vector<std::string> words, unique_fd inside,
                   unique_fd* held_to_the_end) {
    int pipe_ends[2];
    if (pipe2(pipe_ends, O_CLOEXEC) != 0) fail("pipe2");
    const unique_fd life(pipe_ends[0]);
    held_to_the_end->reset(pipe_ends[1]);
    const pid_t pid = fork();
    if (pid < 0) fail("fork");
    if (pid == 0) {
        held_to_the_end->reset();
        run->reports.reset();
        _exit(keep(words, life, inside.release()));
    }
    run->keeper = open_pidfd(pid);
    if (!run->keeper) fail("pidfd_open");
    return pid;
}

void print_failure(const phone_run& run, const std::string& command) {
    if (run.exec_errno != 0) {
        fprintf(stderr, "vexa-phone: cannot run %s: %s\n", printable_text(command).c_str(),
                strerror(run.exec_errno));
    } else if (!run.command) {
        fprintf(stderr, "vexa-phone: the phone could not be made; see scripts/setup\n");
    }
}

}  // namespace

int run_in_phone(const phone_options& options, const std::vector<std::string>& command,
                 phone_companion* companion) {
    phone_run run;
    run.companion = companion;
    unique_fd inside = open_reports(&run);
    std::vector<std::string> words = phone_words(options, command, inside.get());
    hold_signals(&run);
    unique_fd held_to_the_end;
    const pid_t pid = start_keeper(&run, std::move(words), std::move(inside), &held_to_the_end);
    follow(&run);
    const int code = exit_code(pid);
    print_failure(run, command[0]);
    return code;
}

int become_command(int fd, bool host_proc, char** command) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    if (host_proc) {
        phone_overlay_host_cpusets();
        phone_drop_capabilities();
    }
    int report = 0;
    char word = 0;
    if (send(fd, &report, sizeof report, MSG_NOSIGNAL) < 0) return 1;
    // No word: vexa-phone was killed before all that dies with it was in place.
    if (recv(fd, &word, sizeof word, 0) != 1) return 1;
    const sigset_t signals = forwarded_signals();
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    execvp(command[0], command);
    report = errno;
    (void)!send(fd, &report, sizeof report, MSG_NOSIGNAL);
    return report == ENOENT ? 127 : 126;
}
