// vexa-phone: makes the tree of a simulated phone, and runs commands in one.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <CLI/CLI.hpp>
#include <filesystem>

#include "driven_run.h"
#include "host/clock_course.h"
#include "input/command_line.h"
#include "phone/phone_tree.h"
#include "platform/properties.h"
#include "run.h"

namespace {

namespace fs = std::filesystem;

struct run_arguments {
    std::string dir;
    bool host_proc = false;
    std::vector<std::string> properties;
    std::string clock;
    uint64_t size = 0;
    std::vector<std::string> writable;
    std::vector<std::string> command;
    std::string script;
    std::string transcript;
    std::optional<uint64_t> shuffle_seed;
};

std::string check_property(const std::string& word) {
    const size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0) return "must be NAME=VALUE: " + word;
    if (word[0] == '.' || word.find('/') < equals) return "no name of a property: " + word;
    if (word.size() - equals - 1 >= PROPERTY_VALUE_MAX) return "longer than 91 bytes: " + word;
    return "";
}

constexpr std::string_view DRIVEN = "driven";

bool is_driven(std::string_view spec) {
    return spec == DRIVEN || (spec.starts_with(DRIVEN) && spec[DRIVEN.size()] == ':');
}

// What a driven clock begins with: nothing is said of its speed.
std::optional<clock_spec> driven_start(std::string_view spec) {
    if (spec == DRIVEN) return clock_spec{};
    spec.remove_prefix(DRIVEN.size() + 1);
    const std::optional<clock_spec> start = clock_spec_parse(spec.data(), spec.size());
    return start && !start->speed ? start : std::nullopt;
}

std::string check_clock(const std::string& spec) {
    if (is_driven(spec) ? driven_start(spec).has_value()
                        : clock_spec_parse(spec.data(), spec.size()).has_value())
        return "";
    return "must be words like real=2016-12-31T23:59:50Z boot=30 speed=60, or driven, or driven: "
           "and such "
           "words without a speed";
}

int run_driven(const phone_options& options, const run_arguments& arguments,
               const std::vector<std::string>& command) {
    const bool is_bare = arguments.clock == DRIVEN;
    driven_run companion(options.dir,
                         {.start = is_bare ? std::nullopt : driven_start(arguments.clock),
                          .shuffle_seed = arguments.shuffle_seed,
                          .script = arguments.script,
                          .transcript = arguments.transcript});
    const int code = run_in_phone(options, command, &companion);
    companion.end();
    return code;
}

int run(const run_arguments& arguments) {
    if (!fs::is_directory(arguments.dir)) {
        throw std::runtime_error("no such directory: " + arguments.dir +
                                 " (vexa-phone create makes a phone)");
    }
    phone_refuse_links(arguments.dir);
    const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path();
    const phone_options options = {
        .dir = fs::canonical(arguments.dir),
        .host_proc = arguments.host_proc,
        .small_dir = arguments.size > 0 ? "/data/vendor" : "",
        .small_bytes = arguments.size,
        .also_needed = {beside, fs::current_path()},
        .writable = arguments.writable,
    };
    for (const std::string& word : arguments.properties) {
        const size_t equals = word.find('=');
        phone_set_property(options.dir, word.substr(0, equals), word.substr(equals + 1));
    }
    const std::vector<std::string> command = arguments.command.empty()
                                                 ? std::vector<std::string>{beside / "vexastatsd"}
                                                 : arguments.command;
    if (is_driven(arguments.clock)) return run_driven(options, arguments, command);
    if (!arguments.clock.empty()) phone_set_clock(options.dir, arguments.clock);
    return run_in_phone(options, command);
}

// Reads the words before the command and does what they say.
int do_as_told(int argc, char** argv, run_arguments* arguments) {
    CLI::App app{"A simulated phone on this machine"};
    app.require_subcommand(1);
    app.failure_message(printable_failure);
    CLI::App* create =
        app.add_subcommand("create", "Make the tree of a phone in a new or empty directory");
    create->add_option("DIR", arguments->dir)->required();
    CLI::App* run_it = app.add_subcommand("run", "Run a command in the phone in DIR");
    run_it->footer("vexa-phone run DIR [OPTIONS] [-- COMMAND...]: without COMMAND, the daemon");
    run_it->add_option("DIR", arguments->dir)->required();
    run_it->add_flag("--host-proc", arguments->host_proc, "Show this machine's own /proc");
    run_it->add_option("--property", arguments->properties, "Set a property before the start")
        ->type_name("NAME=VALUE")
        ->take_all()
        ->check(check_property);
    run_it->add_option("--clock", arguments->clock, "Give the phone another time")
        ->type_name("SPEC")
        ->check(check_clock);
    run_it->add_option("--script", arguments->script, "Play this script (needs a driven clock)")
        ->type_name("FILE");
    run_it->add_option("--transcript", arguments->transcript, "Write snapshots, and one at the end")
        ->type_name("FILE");
    run_it->add_option("--shuffle", arguments->shuffle_seed, "Draw from SEED who comes first")
        ->type_name("SEED");
    run_it->add_option("--size", arguments->size, "Put /data/vendor on a file system of this size")
        ->type_name("BYTES");
    run_it
        ->add_option("--writable", arguments->writable,
                     "Let the phone write to this directory of the machine")
        ->type_name("DIR")
        ->take_all()
        ->check(CLI::ExistingDirectory);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }
    if (run_it->parsed()) return run(*arguments);
    phone_create(arguments->dir);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const bool on_host_proc = argc > 3 && strcmp(argv[1], RUN_INSIDE_ON_HOST_PROC) == 0;
        if (on_host_proc || (argc > 3 && strcmp(argv[1], RUN_INSIDE) == 0)) {
            const int fd = static_cast<int>(strtol(argv[2], nullptr, 10));
            return become_command(fd, on_host_proc, argv + 3);
        }
        // The command's own options are none of ours.
        run_arguments arguments;
        int own = 1;
        while (own < argc && strcmp(argv[own], "--") != 0) ++own;
        if (own < argc) arguments.command.assign(argv + own + 1, argv + argc);
        return do_as_told(own, argv, &arguments);
    } catch (const std::exception& error) {
        fprintf(stderr, "vexa-phone: %s\n", printable_text(error.what()).c_str());
        return 1;
    }
}
