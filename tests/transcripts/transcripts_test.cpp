// What the daemon owes the outside, told once: every NAME.script beside this file is played in
// driven time, and NAME.txt is its transcript. NAME.2.script and so on go on in the same phone,
// with a daemon started afresh. VEXA_WRITE_TRANSCRIPTS=1 writes the transcripts anew.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "driven/driven_phone.h"
#include "phone/enter.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> names_of_scripts() {
    std::vector<std::string> names;
    for (const std::string& file : list_dir(TRANSCRIPTS)) {
        const std::string name = fs::path(file).stem();
        if (file.ends_with(".script") && name.find('.') == std::string::npos) names.push_back(name);
    }
    return names;
}

bool is_to_be_written() {
    const char* value = getenv("VEXA_WRITE_TRANSCRIPTS");
    return value && std::string(value) == "1";
}

// The first lines that differ, with what leads there.
std::string difference(const std::string& found, const std::string& expected) {
    size_t at = 0;
    while (at < std::min(found.size(), expected.size()) && found[at] == expected[at]) ++at;
    if (at == found.size() && at == expected.size()) return "";
    constexpr size_t BEFORE = 300;
    constexpr size_t BEHIND = 400;
    const size_t begin = found.rfind('\n', at > BEFORE ? at - BEFORE : 0) + 1;
    const auto line = std::count(found.begin(), found.begin() + static_cast<long>(at), '\n') + 1;
    return "line " + std::to_string(line) + ", found:\n" +
           found.substr(begin, at - begin + BEHIND) + "\nexpected:\n" +
           expected.substr(begin, at - begin + BEHIND);
}

class Transcript : public testing::TestWithParam<std::string> {
  protected:
    // The phone's /proc knows nothing of bubblewrap's processes.
    static void SetUpTestSuite() { phone_show_host_proc(); }
};

TEST_P(Transcript, Play) {
    const fs::path base = fs::path(TRANSCRIPTS) / GetParam();
    const driven_phone phone;
    std::string found;
    std::string file = base.string() + ".script";
    for (int part = 2; fs::exists(file); ++part) {
        const driven_result run = phone.run(file_text(file));
        ASSERT_FALSE(run.transcript.empty()) << file << "\n" << run.output;
        found += run.transcript + "== exit code " + std::to_string(run.code.value_or(-1)) + "\n";
        file = base.string() + "." + std::to_string(part) + ".script";
    }
    const std::string expected = base.string() + ".txt";
    if (is_to_be_written()) {
        write_text_file(expected, found);
    } else {
        EXPECT_EQ(difference(found, file_text(expected)), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Daemon, Transcript, testing::ValuesIn(names_of_scripts()),
                         [](const auto& test) { return test.param; });

}  // namespace
