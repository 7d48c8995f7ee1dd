#include "support/dialogue.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "phone/enter.h"
#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;

std::string indented(const std::string& answer) {
    std::istringstream in(answer);
    std::string text;
    for (std::string line; std::getline(in, line);)
        text += (line.empty() ? "" : "  ") + line + "\n";
    return text;
}

// The same dialogue with the answers that are given now.
std::string played(const std::string& text, const answerer& answer) {
    std::istringstream in(text + "#");  // what ends the last block
    std::string all, question, gap;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with('>')) {
            all += gap + line + "\n";
            question += line.substr(std::min<size_t>(2, line.size())) + "\n";
            gap = "";
            continue;
        }
        if (!question.empty()) {
            all += indented(answer(question));
            question.clear();
            gap = "\n";
        }
        if (line.starts_with('#') && !in.eof()) all += gap + line + "\n";
        if (line.starts_with('#')) gap = "";
        if (line.empty() && gap.empty()) all += "\n";  // below remarks that stand for themselves
    }
    return all;
}

}  // namespace

std::string text_difference(const std::string& expected, const std::string& found) {
    if (found == expected) return "";
    const auto at = std::mismatch(expected.begin(), expected.end(), found.begin(), found.end());
    const auto offset = static_cast<size_t>(at.first - expected.begin());
    const size_t line = offset == 0 ? 0 : expected.rfind('\n', offset - 1) + 1;
    const size_t asked = std::min(expected.rfind("\n>", offset), line);
    return "line " + std::to_string(1 + std::count(expected.begin(), at.first, '\n')) + ":" +
           expected.substr(asked, line - asked) + "\nexpected:\n" + expected.substr(line, 600) +
           "\nfound:\n" + found.substr(line, 600);
}

void expect_dialogue(const std::string& name, const answerer& answer) {
    const std::string path = std::string(GOLDEN_DIR) + "/" + name + ".txt";
    const std::string expected = file_text(path);
    ASSERT_FALSE(expected.empty()) << path << " cannot be read";
    const std::string found = played(expected, answer);
    if (getenv("VEXA_WRITE_TRANSCRIPTS")) {
        if (found != expected) std::ofstream(path) << found;
    } else {
        EXPECT_EQ(text_difference(expected, found), "") << path;
    }
}

shell_session::shell_session() {
    phone_show_host_proc();
    char name[] = "/tmp/vexa_session.XXXXXX";
    dir_ = mkdtemp(name);
}

shell_session::~shell_session() {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
    fs::remove(dir_.string() + ".out", ignored);
}

std::string shell_session::run(const std::string& commands) const {
    const std::string out = dir_.string() + ".out";
    const std::string begin = "cd " + dir_.string() +
                              "; export LC_ALL=C TZ=UTC PATH=" + program("").string() + ":$PATH\n";
    child_process shell({"sh", "-c", begin + commands}, out);
    const int code = shell.wait(5 * EVENT_LIMIT).value_or(-1);
    std::string text = file_text(out);
    if (!text.empty() && text.back() != '\n') text += " (no newline)\n";
    return text + (code != 0 ? "[exit code " + std::to_string(code) + "]\n" : "");
}

std::string ranges_text(const std::vector<uint32_t>& numbers) {
    std::string text;
    for (size_t i = 0; i < numbers.size();) {
        size_t last = i;
        while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) ++last;
        text += (i > 0 ? " " : "") + std::to_string(numbers[i]);
        if (last > i) text += "-" + std::to_string(numbers[last]);
        i = last + 1;
    }
    return text;
}

std::vector<std::vector<std::string>> words_of(const std::string& question) {
    std::vector<std::vector<std::string>> lines;
    std::istringstream in(question);
    for (std::string line; std::getline(in, line);) {
        lines.emplace_back();
        std::istringstream words(line.substr(0, line.find(" #")));
        for (std::string word; words >> word;) lines.back().push_back(word);
    }
    return lines;
}
