#include "support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "phone/phone_tree.h"

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

std::vector<char*> pointers(std::vector<std::string>& words) {
    std::vector<char*> result;
    for (std::string& word : words) result.push_back(word.data());
    result.push_back(nullptr);
    return result;
}

// A program begins with signals as init starts it with: none blocked, and none ignored because the
// shell that runs the tests in the background ignores it.
void default_signals() {
    for (int signo = 1; signo < NSIG; ++signo) (void)::signal(signo, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool keeps_phones() {
    const char* keep = getenv("VEXA_TEST_KEEP");
    return keep && std::string(keep) == "1";
}

}  // namespace

child_process::child_process(const std::vector<std::string>& argv, const fs::path& output,
                             const std::vector<std::string>& environment) {
    std::vector<std::string> words = argv;
    std::vector<std::string> variables = environment;
    for (char** variable = environ; *variable; ++variable) variables.emplace_back(*variable);
    const std::vector<char*> arguments = pointers(words);
    const std::vector<char*> settings = pointers(variables);
    unique_fd out;
    if (!output.empty()) {
        out.reset(open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!out) fail(output);
    }
    pid_ = fork();
    if (pid_ < 0) fail("fork");
    if (pid_ == 0) {
        default_signals();
        if (out) {
            dup2(out.get(), STDOUT_FILENO);
            dup2(out.get(), STDERR_FILENO);
        }
        execvpe(arguments[0], arguments.data(), settings.data());
        _exit(127);
    }
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    if (!pidfd_) fail("pidfd_open");
}

child_process::~child_process() {
    if (status_) return;
    signal(SIGKILL);
    (void)wait();
}

void child_process::signal(int signo) const {
    (void)syscall(SYS_pidfd_send_signal, pidfd_.get(), signo, nullptr, 0);
}

std::optional<int> child_process::wait(std::chrono::milliseconds limit) {
    if (status_) return status_;
    pollfd ended{.fd = pidfd_.get(), .events = POLLIN, .revents = 0};
    if (poll(&ended, 1, static_cast<int>(limit.count())) <= 0) return {};
    int status = 0;
    if (waitpid(pid_, &status, 0) != pid_) fail("waitpid");
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
}

temporary_phone::temporary_phone() {
    // In memory, beside what the test's own phone adds to the root.
    std::string dir =
        (keeps_phones() ? fs::temp_directory_path() : fs::path("/.host")) / "vexa-phone-XXXXXX";
    if (!mkdtemp(dir.data())) fail(dir);
    dir_ = dir;
    phone_create(dir_);
    if (keeps_phones()) printf("A phone of this test: %s\n", dir.c_str());
}

temporary_phone::~temporary_phone() {
    std::error_code ignored;
    if (!keeps_phones()) fs::remove_all(dir_, ignored);
}

std::vector<std::string> temporary_phone::run(const std::vector<std::string>& command,
                                              const std::vector<std::string>& options) const {
    std::vector<std::string> words = {program("vexa-phone"), "run", dir_};
    words.insert(words.end(), options.begin(), options.end());
    if (command.empty()) return words;
    words.emplace_back("--");
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

fs::path program(const std::string& name) {
    return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

void show_threads([[maybe_unused]] pid_t pid) {
#if defined(__SANITIZE_ADDRESS__)
    const fs::path dir = "/proc/" + std::to_string(pid);
    fs::create_directories(dir);
    fs::create_directory_symlink("/.host" + dir.string() + "/task", dir / "task");
#endif
}
