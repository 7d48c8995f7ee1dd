// vexa-inspect FILE...: shows what upload files hold.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "band_list.h"
#include "input/command_line.h"
#include "record_formats.h"
#include "text.h"

namespace {

constexpr int EXIT_DAMAGED = 1;
constexpr int EXIT_USAGE = 2;

struct arguments {
    std::vector<std::string> files;
    bool json = false;
    bool band_list = false;
    report_options report;
};

void put(std::string_view text) {
    (void)fwrite(text.data(), 1, text.size(), stdout);
}

void show(const std::string& path, const arguments& args) {
    if (args.band_list) {
        put(band_list_show(path, args.json));
    } else if (args.json) {
        upload_put_json(path, upload_read(path), put);
    } else {
        upload_put_report(path, upload_read(path), args.report, put);
    }
    put("\n");
}

// Shows every file that can be shown; a damaged one gets a message and does not hide the others.
int inspect(const arguments& args) {
    int result = EXIT_SUCCESS;
    for (const auto& path : args.files) {
        try {
            show(path, args);
        } catch (const std::exception& error) {
            fflush(stdout);  // so that the message comes where the file would
            fmt::print(stderr, "vexa-inspect: {}: {}\n", text_printable(path),
                       text_printable(error.what()));
            result = EXIT_DAMAGED;
        }
    }
    if (fflush(stdout) == 0 && !ferror(stdout)) return result;
    fmt::print(stderr, "vexa-inspect: cannot write the output\n");
    return EXIT_DAMAGED;
}

int run(int argc, char** argv) {
    arguments args;
    CLI::App app("Shows what upload files hold. Exit code 1 when a file is damaged.",
                 "vexa-inspect");
    app.add_option("FILE", args.files, "upload files")->required();
    app.add_flag("--json", args.json, "one JSON object a line for each file, with the raw values");
    app.add_flag("--band-list", args.band_list, "the files are band lists, not upload files");
    app.add_option("--rows", args.report.max_rows,
                   "most rows of a table over time (default: all samples)")
        ->check(CLI::PositiveNumber);
    app.add_option("--processes", args.report.max_processes, "most processes shown (default: 10)")
        ->check(CLI::PositiveNumber);
    app.failure_message(printable_failure);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
    }
    return inspect(args);
}

}  // namespace

int main(int argc, char** argv) try {
    return run(argc, argv);
} catch (const std::exception& error) {
    fprintf(stderr, "vexa-inspect: %s\n", printable_text(error.what()).c_str());
    return EXIT_DAMAGED;
}
