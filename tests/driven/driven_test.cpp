// Runs in driven time: the same script makes the same run, and what a script expects is looked at.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "conductor/script.h"
#include "cpu_record.h"
#include "driven/driven_phone.h"
#include "phone/enter.h"
#include "support/dialogue.h"
#include "support/files.h"
#include "upload_reader.h"

namespace fs = std::filesystem;

namespace {

constexpr char STOPPED[] = "I vexastatsd: vexastatsd stopped\n";

// Takes the machine's time from everybody else.
class busy_threads {
  public:
    explicit busy_threads(int count) {
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this] {
                while (!is_over_) {
                }
            });
        }
    }
    ~busy_threads() {
        is_over_ = true;
        for (std::thread& thread : threads_) thread.join();
    }

  private:
    std::atomic<bool> is_over_{false};
    std::vector<std::thread> threads_;
};

// Transcripts are too long for a matcher's message.
bool is_in(const std::string& transcript, const char* part) {
    return transcript.find(part) != std::string::npos;
}

class Driven : public testing::Test {
  protected:
    // The phone's /proc knows nothing of bubblewrap's processes.
    static void SetUpTestSuite() { phone_show_host_proc(); }

    // A fresh phone plays the script of that name, with the day's campaigns at hand.
    static driven_result play(const std::string& name,
                              const std::vector<std::string>& options = {}) {
        const driven_phone phone;
        const fs::path scripts = SCRIPTS;
        child_process encode({program("vexa-campaign"), "encode", scripts / "day.textproto", "-o",
                              phone.dir() / "cdf.bin"});
        EXPECT_EQ(encode.wait(), 0);
        return phone.run(file_text(scripts / name), options);
    }
};

TEST_F(Driven, DayIsTheSameEveryTimeAlsoOnABusyMachine) {
    const driven_result first = play("day.script");
    ASSERT_EQ(first.code, 0) << first.output;
    for (const char* part :
         {STOPPED, "-- modem\n", "a.test=of driven time", "up/1/gpustats.", "up/2/cpustats.",
          "up/3/staticstats.", "up/4/diagstats.", "up/5/modem_microdumpstats.",
          "up/6/mpscollectstats.", "up/501/alogstats.", "101/2-78-", "101/6-77-"})
        EXPECT_TRUE(is_in(first.transcript, part)) << part;
    EXPECT_EQ(text_difference(first.transcript, play("day.script").transcript), "");
    const busy_threads busy(2);
    EXPECT_EQ(text_difference(first.transcript, play("day.script").transcript), "");
}

TEST_F(Driven, SeedRepeatsItselfAndEverySeedStopsInOrder) {
    std::string first;
    int others = 0;
    for (int seed = 1; seed <= 30; ++seed) {
        const driven_result result = play("stops.script", {"--shuffle", std::to_string(seed)});
        ASSERT_EQ(result.code, 0) << "seed " << seed << ": " << result.output;
        ASSERT_TRUE(is_in(result.transcript, STOPPED)) << "seed " << seed;
        if (seed == 1) first = result.transcript;
        others += result.transcript != first;
    }
    EXPECT_GT(others, 20) << "the seeds change nothing";
    EXPECT_EQ(text_difference(first, play("stops.script", {"--shuffle", "1"}).transcript), "");
}

TEST_F(Driven, ScriptsArePlayedToTheirEndOrRefused) {
    const shell_session session;
    expect_dialogue("driven/run",
                    [&](const std::string& commands) { return session.run(commands); });
}

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
    expect_dialogue("driven/script", parsed);
}

// The uploads' samples and those of the record that the stop left.
std::vector<cpu_record_sample> cpu_samples(const driven_phone& phone) {
    std::vector<cpu_record_sample> all;
    const auto add = [&](std::span<const uint8_t> payload) {
        const cpu_record record = cpu_record_decode(payload);
        all.insert(all.end(), record.samples.begin(), record.samples.end());
    };
    const fs::path uploads = phone.dir() / "data/vendor/vexa/up/2";
    for (const std::string& name : list_dir(uploads)) add(upload_read(uploads / name).payload);
    const std::string record = file_text(phone.dir() / "data/vendor/vexastats/2/cpustats.tmp");
    const std::string left = record.substr(record.find('\n') + 1);
    add({reinterpret_cast<const uint8_t*>(left.data()), left.size()});
    return all;
}

// The daemon looks every ten seconds whether a sample is due, and takes one that is due for longer
// than its interval. The stop comes as the last one would.
TEST_F(Driven, WeekHasASampleForEveryMinute) {
    constexpr size_t MINUTES = 7 * 24 * 60;
    const driven_phone phone;
    phone.remove_processes();
    const driven_result result = phone.run(R"(optin 2
deliver down/2/cpustats.cfg clientid=2;size=100000;interval=59999;threshold=300000;notify=0
at 7d signal TERM
)");
    ASSERT_EQ(result.code, 0) << result.output;
    const std::vector<cpu_record_sample> samples = cpu_samples(phone);
    ASSERT_EQ(samples.size(), MINUTES - 1);
    constexpr uint64_t BOOT_100MS = 10;
    for (size_t i = 0; i < samples.size(); ++i)
        ASSERT_EQ(samples[i].uptime_100ms, BOOT_100MS + 600 * (i + 1)) << i;
}

}  // namespace
