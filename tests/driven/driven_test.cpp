// Runs in driven time: the same script makes the same run, and what a script expects is looked at.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "cpu_record.h"
#include "driven/driven_phone.h"
#include "phone/enter.h"
#include "support/files.h"
#include "upload_reader.h"

namespace fs = std::filesystem;

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

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

// Where two transcripts begin to differ, for a message that can be read.
std::string difference(const std::string& a, const std::string& b) {
    const auto length = std::min(a.size(), b.size());
    const auto at = static_cast<size_t>(
        std::mismatch(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(length), b.begin()).first -
        a.begin());
    if (at == a.size() && at == b.size()) return "";
    const size_t begin = a.rfind('\n', at) + 1;
    return "at byte " + std::to_string(at) + ":\n" + a.substr(begin, 200) + "\nnot\n" +
           b.substr(begin, 200);
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
    EXPECT_EQ(difference(first.transcript, play("day.script").transcript), "");
    const busy_threads busy(2);
    EXPECT_EQ(difference(first.transcript, play("day.script").transcript), "");
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
    EXPECT_EQ(difference(first, play("stops.script", {"--shuffle", "1"}).transcript), "");
}

TEST_F(Driven, ExpectQuietHoldsForAnIdleDaemonOnly) {
    const driven_phone phone;
    const std::string wait = "at 1m expect-quiet\nat 2h snapshot\n";
    const driven_result idle = phone.run(wait);
    EXPECT_EQ(idle.code, 0) << idle.output;
    EXPECT_TRUE(is_in(idle.transcript, STOPPED));
    const driven_result sampling = phone.run("optin 2\nmkdir data/vendor/vexa/down/2\n" + wait);
    EXPECT_EQ(sampling.code, 1);
    EXPECT_THAT(sampling.output, ContainsRegex("script:3: [0-9]+ times somebody woke"));
}

// Nobody but the script ends the daemon, also when it is over before the daemon begins.
TEST_F(Driven, ScriptEndsTheDaemonHoweverShortItIs) {
    for (const char* script : {"mkdir data/x\n", "every 1m mkdir data/x\n", "at 5s mkdir data/x\n",
                               "at 1s signal HUP\n"}) {
        const driven_phone phone;
        const driven_result result = phone.run(script);
        EXPECT_EQ(result.code, 0) << script << result.output;
        EXPECT_TRUE(is_in(result.transcript, STOPPED)) << script;
    }
}

// A script can come from standard input. What is wrong is found before or while it is played.
TEST_F(Driven, ErrorOfAScriptNamesItsLine) {
    const struct {
        const char* script;
        const char* message;
    } rows[] = {
        {"optin 2\nfly\n", "vexa-phone: standard input:2: no such action: fly"},
        {"optin 2\n\nat 1s signal FOO\n", "standard input:3: no such signal: FOO"},
        {"at 1s modem vexa close\n", "standard input:1: the modem does not take it: vexa close"},
        {"at 1s write a < no-such-file\n", "standard input:1: cannot read no-such-file"},
        {"signal TERM\n", "standard input:1: there is no daemon yet"},
        {"tell me\n", "standard input:1: nothing to tell: me"},
    };
    const driven_phone phone;
    for (const auto& row : rows) {
        const driven_result result = phone.run(row.script, {}, {}, script_from::STANDARD_INPUT);
        EXPECT_EQ(result.code, 1) << row.script;
        EXPECT_THAT(result.output, HasSubstr(row.message));
    }
}

TEST_F(Driven, ProgramThatDoesNotStopIsToldOf) {
    const driven_phone phone;
    const std::string stubborn = program("driven_stubborn");
    const driven_result waiting = phone.run("at 1h signal TERM\n", {}, {stubborn});
    EXPECT_EQ(waiting.code, 1);
    EXPECT_THAT(waiting.output, HasSubstr("vexa-phone: the daemon hangs in its stop: 0:waiting"));
    const driven_result waking = phone.run("at 1h signal TERM\n", {}, {stubborn, "waking"});
    EXPECT_EQ(waking.code, 1);
    EXPECT_THAT(waking.output, HasSubstr("vexa-phone: the daemon does not stop: 0:"));
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
