// The script of a phone in driven time: what happens when. docs/platform.md has the language.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

struct script_line {
    enum class when { AT_ONCE, AT, AT_CLOCK, EVERY };
    when kind = when::AT_ONCE;
    int64_t time_ns = 0;  // after the start; of the day; or the period
    int chance_percent = 100;
    std::string action;  // its first word
    std::vector<std::string> words;
    std::string text;  // the lines up to the end mark, or the rest of the line
    int number = 0;    // of the line, for messages
};

struct script {
    std::string name;
    uint64_t seed = 1;
    std::string start;               // words of a clock; empty: nothing is said
    std::string zone;                // value of TZ; empty: the caller's
    std::vector<std::string> about;  // what the transcript's threads are to be about
    std::vector<script_line> lines;
};

// What is wrong, as "FILE:LINE: PROBLEM".
class script_error : public std::runtime_error {
  public:
    script_error(const std::string& name, int number, const std::string& problem)
        : std::runtime_error(name + ":" + std::to_string(number) + ": " + problem) {}
};

// Reads a whole script. Throws script_error.
script script_parse(std::istream& in, const std::string& name);

// "00:00:10", "90s", "5m", "2h", "1d", also several of them: "1d 02:00:00" is written "1d02:00:00".
// Nothing: it is no such time, or more than a hundred years.
std::optional<int64_t> script_parse_time(const std::string& word);
