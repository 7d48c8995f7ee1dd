// vexa-modem: plays the modem of a simulated phone.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <system_error>

#include "input/command_line.h"
#include "modem/modem.h"
#include "phone/mounts.h"

namespace {

namespace fs = std::filesystem;

unique_fd block_and_watch_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signo);
    if (sigprocmask(SIG_BLOCK, &set, nullptr) != 0)
        throw std::system_error(errno, std::generic_category(), "sigprocmask");
    unique_fd fd(signalfd(-1, &set, SFD_CLOEXEC));
    if (!fd) throw std::system_error(errno, std::generic_category(), "signalfd");
    return fd;
}

// Standard input: commands, one a line. Its end is the end of commands, not of the modem.
class command_reader {
  public:
    explicit command_reader(modem& loop) : loop_(loop) {
        loop_.watch(STDIN_FILENO, POLLIN, [this](short) { read_some(); });
    }

  private:
    void read_some() {
        char bytes[4096];
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
        if (count > 0) text_.append(bytes, static_cast<size_t>(count));
        size_t begin = 0;
        for (size_t end = 0; (end = text_.find('\n', begin)) != std::string::npos; begin = end + 1)
            (void)loop_.execute(text_.substr(begin, end - begin));
        text_.erase(0, begin);
        if (count > 0) return;
        loop_.unwatch(STDIN_FILENO);
        (void)loop_.execute(text_);
    }

    modem& loop_;
    std::string text_;
};

void play(const fs::path& phone) {
    const unique_fd signals = block_and_watch_signals();
    modem loop(phone, [](const std::string& line) {
        printf("%s\n", printable_text(line).c_str());
        fflush(stdout);
    });
    std::vector<std::unique_ptr<modem_service>> services;
    for (const modem_service_maker make : modem_services()) services.push_back(make(loop));
    loop.watch(signals.get(), POLLIN, [&](short) { loop.quit(); });
    const command_reader commands(loop);
    loop.log("modem", "ready");
    loop.run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app{"The modem of a simulated phone; \"help\" on standard input lists commands"};
        std::string dir;
        app.add_option("DIR", dir, "The phone's directory")
            ->required()
            ->check(CLI::ExistingDirectory);
        app.failure_message(printable_failure);
        CLI11_PARSE(app, argc, argv);
        phone_refuse_links(dir);
        if (fs::exists(fs::path(dir) / "dev/driven"))
            throw std::runtime_error("in driven time the modem is the script's: \"modem up\"");
        // The end of whoever reads the events is not the modem's.
        signal(SIGPIPE, SIG_IGN);
        play(fs::canonical(dir));
        return 0;
    } catch (const std::exception& error) {
        fprintf(stderr, "vexa-modem: %s\n", printable_text(error.what()).c_str());
        return 1;
    }
}
