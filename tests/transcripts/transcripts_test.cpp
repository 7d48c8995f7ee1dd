// What the daemon owes the outside, told once: every NAME.script beside this file is played in
// driven time, and NAME.txt is its transcript. NAME.2.script and so on go on in the same phone,
// with a daemon started afresh. VEXA_WRITE_TRANSCRIPTS=1 writes the transcripts anew.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "driven/driven_phone.h"
#include "phone/enter.h"
#include "support/dialogue.h"
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
        EXPECT_EQ(text_difference(file_text(expected), found), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Daemon, Transcript, testing::ValuesIn(names_of_scripts()),
                         [](const auto& test) { return test.param; });

}  // namespace
