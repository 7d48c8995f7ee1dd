// vexa-campaign: writes campaign files, shows them, says when their campaigns will run, and tells a
// phone's daemon what decides about that.
#include <fmt/format.h>
#include <stdlib.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "campaign_explain.h"
#include "campaign_text.h"
#include "host/log_silence.h"
#include "input/command_line.h"
#include "input/printable_text.h"
#include "phone_control.h"

namespace {

constexpr int EXIT_DAMAGED = 1;
constexpr int EXIT_USAGE = 2;

struct arguments {
    std::string file;  // or the phone's directory
    std::vector<std::string> words;
    std::string output;
    std::string zone;
    std::string from;
    int days = 7;
};

void encode(const arguments& args) {
    const std::string bytes =
        campaign_file_bytes(campaign_from_text(campaign_read_file(args.file)));
    std::ofstream stream(args.output, std::ios::binary);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) throw std::runtime_error("cannot write " + args.output);
}

void decode(const arguments& args) {
    fmt::print("{}", campaign_to_text(campaign_parse(campaign_file_split(args.file))));
}

// "2026-11-23T08:00:00" in the local time zone, with a "Z" behind it in UTC.
time_t parse_time(const std::string& text) {
    if (text.empty()) return time(nullptr);
    tm parts = {};
    parts.tm_isdst = -1;
    const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (end && *end == '\0') return mktime(&parts);
    if (end && std::string(end) == "Z") return timegm(&parts);
    throw std::runtime_error("--from " + text + " is no time like 2026-11-23T08:00:00");
}

void explain(const arguments& args) {
    if (!args.zone.empty()) setenv("TZ", args.zone.c_str(), 1);
    tzset();
    host_log_silence();  // the daemon's decoder says in the phone's log what it finds
    const explain_options options{.from = parse_time(args.from), .days = args.days};
    fmt::print("{}", campaign_explain(campaign_file_split(args.file), options));
}

unsigned long number(const std::string& word, unsigned long max) {
    size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(word, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used == 0 || used != word.size() || value > max)
        throw std::runtime_error(word + " is no number up to " + std::to_string(max));
    return value;
}

void tell(const arguments& args) {
    const auto& words = args.words;
    if (words[0] == "roaming" && words.size() == 2) {
        phone_tell_roaming(args.file, number(words[1], 1) == 1);
    } else if (words[0] == "sub" && words.size() == 4) {
        phone_tell_subscription(args.file, static_cast<uint32_t>(number(words[1], UINT32_MAX)),
                                static_cast<uint16_t>(number(words[2], UINT16_MAX)),
                                static_cast<uint16_t>(number(words[3], UINT16_MAX)));
    } else {
        throw std::runtime_error("tell what? roaming 0|1, or sub ID MCC MNC");
    }
}

int run(const CLI::App& app, const arguments& args) {
    try {
        if (app.got_subcommand("encode")) encode(args);
        if (app.got_subcommand("decode")) decode(args);
        if (app.got_subcommand("explain")) explain(args);
        if (app.got_subcommand("tell")) tell(args);
    } catch (const std::exception& error) {
        fmt::print(stderr, "vexa-campaign: {}: {}\n", printable_text(args.file),
                   printable_text(error.what()));
        return EXIT_DAMAGED;
    }
    if (fflush(stdout) == 0) return EXIT_SUCCESS;
    fmt::print(stderr, "vexa-campaign: cannot write the output\n");
    return EXIT_DAMAGED;
}

int parse_and_run(int argc, char** argv) {
    arguments args;
    CLI::App app("Writes campaign files, shows them, and says when their campaigns will run.",
                 "vexa-campaign");
    app.require_subcommand(1);
    auto* encoder = app.add_subcommand("encode", "writes a campaign file from text");
    encoder->add_option("FILE", args.file, "text form of a CampaignDescriptionMap")->required();
    encoder->add_option("-o,--output", args.output, "the campaign file")->required();
    auto* decoder = app.add_subcommand("decode", "prints a campaign file as text");
    decoder->add_option("FILE", args.file, "cdf.dat or a .camp file")->required();
    auto* explainer = app.add_subcommand("explain", "says in words when each campaign will run");
    explainer->add_option("FILE", args.file, "cdf.dat or a .camp file")->required();
    explainer->add_option("--tz", args.zone, "the phone's time zone (default: this machine's)");
    explainer->add_option(
        "--from", args.from,
        "first moment, like 2026-11-23T08:00:00, with a Z for UTC (default: now)");
    explainer->add_option("--days", args.days, "how many days (default: 7)")
        ->check(CLI::Range(1, 3660));
    auto* teller =
        app.add_subcommand("tell", "tells the daemon in a phone what another process would");
    teller->add_option("DIR", args.file, "the phone's directory")->required();
    teller->add_option("WORDS", args.words, "roaming 0|1, or sub ID MCC MNC")->required();
    app.failure_message(printable_failure);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : EXIT_USAGE;
    }
    return run(app, args);
}

}  // namespace

int main(int argc, char** argv) try {
    return parse_and_run(argc, argv);
} catch (const std::exception& error) {
    fprintf(stderr, "vexa-campaign: %s\n", printable_text(error.what()).c_str());
    return EXIT_DAMAGED;
}
