// The script language: what a line becomes, and what is said of one that is wrong.
#include "conductor/script.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

constexpr int64_t S = 1000000000;

// A line that was read, as "WHEN[ SECONDS][ PERCENT%] ACTION [WORD]... |TEXT|".
std::string shown(const script_line& line) {
    constexpr const char* WHEN[] = {"once", "at", "clock", "every"};
    std::ostringstream out;
    out << WHEN[static_cast<size_t>(line.kind)];
    if (line.kind != script_line::when::AT_ONCE) out << ' ' << line.time_ns / S;
    if (line.chance_percent != 100) out << ' ' << line.chance_percent << '%';
    out << ' ' << line.action;
    for (const std::string& word : line.words) out << " [" << word << ']';
    out << " |" << line.text << '|';
    return out.str();
}

// The lines with their numbers, or what is wrong.
std::string parsed(const std::string& text) try {
    std::istringstream in(text);
    const script result = script_parse(in, "F");
    std::string all;
    for (const script_line& line : result.lines)
        all += std::to_string(line.number) + ": " + shown(line) + "\n";
    if (result.seed != 1) all += "seed " + std::to_string(result.seed) + "\n";
    return all;
} catch (const script_error& error) {
    return error.what();
}

TEST(Script, LineIsWhenChanceActionWordsAndText) {
    const struct {
        const char* text;
        const char* is;
    } rows[] = {
        {"optin 2", "1: once optin [2] ||\n"},
        {"\n# a remark\n \t \n\t optout \t 7\n", "4: once optout [7] ||\n"},
        {"at 00:00:10 snapshot", "1: at 10 snapshot ||\n"},
        {"at 1d02:00:30 snapshot", "1: at 93630 snapshot ||\n"},
        {"at 1h2m3s expect-quiet", "1: at 3723 expect-quiet ||\n"},
        {"at 0s expect-quiet", "1: at 0 expect-quiet ||\n"},
        {"at clock 20:15:00 signal TERM", "1: clock 72900 signal [TERM] ||\n"},
        {"every 90s chance 5% mkdir a/b", "1: every 90 5% mkdir [a/b] ||\n"},
        {"chance 0% remove a", "1: once 0% remove [a] ||\n"},
        {"write  a/b  two words ", "1: once write [a/b] |two words |\n"},
        {"write a", "1: once write [a] ||\n"},
        {"modem vexa auto 300", "1: once modem |vexa auto 300|\n"},
        {"tell sub 1 262 7", "1: once tell |sub 1 262 7|\n"},
        {"property a.b <<X\n\n at 1s X\n# no remark\nX\noptin 2",
         "1: once property [a.b] |\n at 1s X\n# no remark\n|\n6: once optin [2] ||\n"},
        {"deliver d/f < x y", "1: once deliver [d/f] |< x y|\n"},
        {"seed 7\nseed 8", "seed 8\n"},
        {"at 36500d snapshot", "1: at 3153600000 snapshot ||\n"},
    };
    for (const auto& row : rows) EXPECT_EQ(parsed(row.text), row.is) << row.text;
}

TEST(Script, ErrorNamesFileAndLine) {
    const struct {
        const char* text;
        const char* is;
    } rows[] = {
        {"optin 2\n\nfly", "F:3: no such action: fly"},
        {"optin", "F:1: optin needs more words"},
        {"optin 2 3", "F:1: what is this: 3"},
        {"snapshot <<E\nE", "F:1: what is this: <<E"},
        {"at", "F:1: no time: "},
        {"at 5 snapshot", "F:1: no time: 5"},
        {"at 5w snapshot", "F:1: no time: 5w"},
        {"at -5s snapshot", "F:1: no time: -5s"},
        {"at 12:60:00 snapshot", "F:1: no time: 12:60:00"},
        {"at 12:00 snapshot", "F:1: no time: 12:00"},
        {"at clock", "F:1: no time: clock"},
        {"at 200000d snapshot", "F:1: no time: 200000d"},
        {"at 900000000:00:00 snapshot", "F:1: no time: 900000000:00:00"},
        {"at 36500d36500d snapshot", "F:1: no time: 36500d36500d"},
        {"at 5s", "F:1: no such action: "},
        {"every 0s snapshot", "F:1: a period of 0"},
        {"chance 101% snapshot", "F:1: no chance: 101%"},
        {"chance 5 snapshot", "F:1: no chance: 5"},
        {"seed x", "F:1: no seed: x"},
        {"seed 5 6", "F:1: no seed: 5 6"},
        {"snapshot\nwrite a <<E\nb\n E\n", "F:2: nothing ends the text that begins here: E"},
    };
    for (const auto& row : rows) EXPECT_EQ(parsed(row.text), row.is) << row.text;
}

}  // namespace
