#include "conductor/script.h"

#include <algorithm>
#include <charconv>
#include <sstream>

#include "host/clock_course.h"

namespace {

// How many words an action takes, and whether a text follows them.
struct action_form {
    const char* name;
    size_t words;
    bool has_text;
};

// Nothing is later, or comes more seldom, so that no sum of times overflows.
constexpr int64_t LATEST_NS = int64_t{36500} * 86400 * NS_PER_S;

constexpr action_form ACTIONS[] = {
    {"write", 1, true},         {"deliver", 1, true}, {"remove", 1, false},  {"mkdir", 1, false},
    {"optin", 1, false},        {"optout", 1, false}, {"modem", 0, true},    {"signal", 1, false},
    {"property", 1, true},      {"tell", 0, true},    {"clock", 0, true},    {"snapshot", 0, false},
    {"expect-quiet", 0, false}, {"rename", 2, false}, {"chmod", 2, false},   {"campaign", 0, true},
    {"link", 2, false},         {"log", 2, true},     {"bandlist", 0, true},
};

std::optional<int64_t> parse_number(const char** at, const char* end) {
    int64_t value = 0;
    const auto [next, error] = std::from_chars(*at, end, value);
    if (error != std::errc() || value < 0 || value > 1000000000) return {};
    *at = next;
    return value;
}

// "HH:MM:SS" behind its first number.
std::optional<int64_t> parse_clock(int64_t hours, const char** at, const char* end) {
    int64_t seconds = hours * 3600;
    for (const int64_t unit_s : {60, 1}) {
        if (*at == end || **at != ':') return {};
        ++*at;
        const auto value = parse_number(at, end);
        if (!value || *value > 59) return {};
        seconds += *value * unit_s;
    }
    return seconds * NS_PER_S;
}

std::optional<int64_t> unit_ns(char unit) {
    switch (unit) {
        case 's':
            return NS_PER_S;
        case 'm':
            return 60 * NS_PER_S;
        case 'h':
            return 3600 * NS_PER_S;
        case 'd':
            return 86400 * NS_PER_S;
        default:
            return {};
    }
}

class script_reader {
  public:
    script_reader(std::istream& in, const std::string& name) : in_(in) { result_.name = name; }

    script read() {
        std::string line;
        while (next_line(&line)) {
            const size_t begin = line.find_first_not_of(" \t");
            if (begin == std::string::npos || line[begin] == '#') continue;
            rest_ = line.substr(begin);
            read_line();
        }
        return result_;
    }

  private:
    bool next_line(std::string* line) {
        if (!std::getline(in_, *line)) return false;
        ++number_;
        return true;
    }

    [[noreturn]] void fail(const std::string& problem) const {
        throw script_error(result_.name, number_, problem);
    }

    std::string take_word() {
        const size_t end = std::min(rest_.find_first_of(" \t"), rest_.size());
        std::string word = rest_.substr(0, end);
        rest_.erase(0, std::min(rest_.find_first_not_of(" \t", end), rest_.size()));
        return word;
    }

    int64_t take_time() {
        const std::string word = take_word();
        const auto time = script_parse_time(word);
        if (!time) fail("no time: " + word);
        return *time;
    }

    void take_when(std::string* word, script_line* line) {
        if (*word == "at") {
            line->kind = script_line::when::AT;
            if (rest_.starts_with("clock ")) {
                (void)take_word();
                line->kind = script_line::when::AT_CLOCK;
            }
        } else if (*word == "every") {
            line->kind = script_line::when::EVERY;
        } else {
            return;
        }
        line->time_ns = take_time();
        if (line->kind == script_line::when::EVERY && line->time_ns == 0) fail("a period of 0");
        *word = take_word();
    }

    void take_chance(std::string* word, script_line* line) {
        if (*word != "chance") return;
        std::string percent = take_word();
        const char* at = percent.c_str();
        const auto value = parse_number(&at, at + percent.size());
        if (!value || *value > 100 || std::string(at) != "%") fail("no chance: " + percent);
        line->chance_percent = static_cast<int>(*value);
        *word = take_word();
    }

    // The rest of the line, or with "<<END" the lines up to the one that says END.
    std::string take_text() {
        if (!rest_.starts_with("<<")) return rest_;
        const std::string mark = rest_.substr(2);
        const int begin = number_;
        std::string text;
        for (std::string line; next_line(&line); text += line + "\n") {
            if (line == mark) return text;
        }
        throw script_error(result_.name, begin, "nothing ends the text that begins here: " + mark);
    }

    // What holds for the whole script.
    bool read_setting(const std::string& word) {
        if (word == "seed") {
            const char* at = rest_.c_str();
            const auto seed = parse_number(&at, at + rest_.size());
            if (!seed || *at) fail("no seed: " + rest_);
            result_.seed = static_cast<uint64_t>(*seed);
        } else if (word == "start") {
            result_.start = rest_;
        } else if (word == "zone") {
            result_.zone = rest_;
        } else if (word == "about") {
            while (!rest_.empty()) result_.about.push_back(take_word());
        } else {
            return false;
        }
        return true;
    }

    void read_line() {
        script_line line;
        line.number = number_;
        std::string word = take_word();
        if (read_setting(word)) return;
        take_when(&word, &line);
        take_chance(&word, &line);
        line.action = word;
        const auto* form = std::find_if(std::begin(ACTIONS), std::end(ACTIONS),
                                        [&](const action_form& a) { return word == a.name; });
        if (form == std::end(ACTIONS)) fail("no such action: " + word);
        for (size_t i = 0; i < form->words; ++i) {
            line.words.push_back(take_word());
            if (line.words.back().empty()) fail(word + " needs more words");
        }
        if (!form->has_text && !rest_.empty()) fail("what is this: " + rest_);
        line.text = take_text();
        result_.lines.push_back(line);
    }

    std::istream& in_;
    script result_;
    int number_ = 0;
    std::string rest_;
};

}  // namespace

std::optional<int64_t> script_parse_time(const std::string& word) {
    const char* at = word.c_str();
    const char* end = at + word.size();
    if (at == end) return {};
    int64_t sum = 0;
    while (at != end) {
        const auto number = parse_number(&at, end);
        if (!number || at == end) return {};
        const auto unit = unit_ns(*at);
        if (*number > LATEST_NS / unit.value_or(3600 * NS_PER_S)) return {};
        const auto part = unit ? *number * *unit : parse_clock(*number, &at, end);
        if (!part) return {};
        if (unit) ++at;
        sum += *part;
        if (sum > LATEST_NS) return {};
    }
    return sum;
}

script script_parse(std::istream& in, const std::string& name) {
    return script_reader(in, name).read();
}
