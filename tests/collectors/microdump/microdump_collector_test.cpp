// The collector's thread and a FIFO for a device, with the clocks moved by hand: dumps whose writer
// takes its time, and the exact moment of an upload. What it says and writes is told in
// tests/transcripts. A thread that waits has taken everything that the device had to give.
#include "collectors/microdump/microdump_collector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "base/unique_handle.h"
#include "framework/time/clock.h"
#include "support/collector_phone.h"

namespace {

constexpr char DEVICE[] = "/dev/ramdump_microdump_modem";
constexpr int64_t DAY_MS = days_ms(1);
const std::string CLOCK_FILE = "timeout_microdumpstats.txt";

// What stands in front of a dump of that time on the first day.
std::string crash_at(const std::string& time) {
    return "--1522738393043\nCrash Time: 2023-11-14 " + time + " +0000\n";
}
const std::string CRASH = crash_at("22:13:20");

struct MicrodumpCollector : testing::Test, collector_phone {
    MicrodumpCollector() : collector_phone(5) {
        remove(DEVICE);
        if (mkfifo(DEVICE, 0600) != 0) throw std::runtime_error("no device");
    }
    static unique_fd open_writer() {
        unique_fd writer(open(DEVICE, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(writer) << "nobody reads the device";
        return writer;
    }
    void put(const unique_fd& writer, const std::string& text) {
        ASSERT_EQ(::write(writer.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
        park();
    }
    void crash(const std::string& text) {
        put(open_writer(), text);
        park();
    }
};

TEST_F(MicrodumpCollector, DumpInPiecesIsOneAndTheNextWriterBringsAnother) {
    start();
    unique_fd writer = open_writer();
    for (const char* piece : {"first\n", "second\n"}) put(writer, piece);
    EXPECT_EQ(record(), "") << "a dump stands in the record when it is whole";
    writer.reset();
    park();
    crash("third\n");
    EXPECT_EQ(record(), CRASH + "first\nsecond\n" + CRASH + "third\n");
}

TEST_F(MicrodumpCollector, DumpLargerThanTheBufferIsCutAndDrained) {
    start();
    const size_t room = 4410 - CRASH.size();
    const std::string cut = CRASH + std::string(room - 1, 'a') + "\n";
    crash(std::string(30000, 'a'));
    EXPECT_EQ(record(), cut);
    // One that just fills it, and one that comes behind.
    crash(std::string(room, 'a'));
    crash("next\n");
    EXPECT_EQ(record(), cut + cut + CRASH + "next\n");
}

TEST_F(MicrodumpCollector, WriterThatStaysHoldsItsDumpBackForAMinuteOnly) {
    start();
    const unique_fd writer = open_writer();
    put(writer, "one\n");
    pass(59999);
    put(writer, "two\n");
    pass(59999);
    EXPECT_EQ(record(), "");
    pass(1);
    const std::string whole = CRASH + "one\ntwo\n";
    EXPECT_EQ(record(), whole);
    put(writer, "three\n");
    stop();
    EXPECT_EQ(record(), whole + crash_at("22:15:19") + "three\n") << "a stop cuts it short";
}

TEST_F(MicrodumpCollector, RecordIsHandedOverToTheMillisecondAlsoAfterARestart) {
    start();
    crash("one\n");
    pass(2 * DAY_MS);
    renew();
    start();
    pass(3 * DAY_MS - 1);
    EXPECT_EQ(dropbox(), "");
    pass(1);
    EXPECT_EQ(payloads(), std::vector<std::string>{CRASH + "one\n"});
    EXPECT_EQ(record(), "");
    EXPECT_EQ(file_text(own(CLOCK_FILE)),
              "time_started=" + std::to_string(1700000000000 + 5 * DAY_MS));
}

TEST_F(MicrodumpCollector, ClockSetBackHandsTheRecordOffButNotFromUnderADump) {
    start();
    crash("one\n");
    platform_test_set_real_ms(PLATFORM_TEST_REAL_MS - 1000);
    unique_fd writer = open_writer();
    put(writer, "two\n");
    EXPECT_EQ(dropbox(), "");
    writer.reset();
    park();
    EXPECT_EQ(payloads(),
              std::vector<std::string>{CRASH + "one\n" + crash_at("22:13:19") + "two\n"});
}

TEST_F(MicrodumpCollector, TimeOutsWithNothingToHandOverDoNotSpin) {
    const std::pair<uint64_t, bool> cases[] = {{0, true}, {0, false}, {days_ms(5), false}};
    for (const auto& [wait_ms, clock_can_be_saved] : cases) {
        put_files({{row->dl_cfg_file,
                    "clientid=5;size=65536;maxuploadwaittime=" + std::to_string(wait_ms)},
                   {own(CLOCK_FILE).string(), "time_started=1"}});
        start();
        if (!clock_can_be_saved) remove(own(CLOCK_FILE));
        if (!clock_can_be_saved) put_files({{own(CLOCK_FILE).string() + "/x/"}});
        const size_t before = times_logged("Time_started: ");
        const uint64_t begin_ms = vexastats_real_time_ms();
        for (int i = 0; i < 10; i++) pass(1000);
        const size_t restarts = times_logged("Time_started: ") - before;
        EXPECT_LE(restarts, (vexastats_real_time_ms() - begin_ms) / 1000);
        EXPECT_EQ(restarts > 0, wait_ms == 0);
        crash("dump\n");
        pass(static_cast<int64_t>(wait_ms));
        EXPECT_EQ(payloads().size(), 1u) << "and the next dump comes through";
        remove(row->up_dir);
        renew();
        remove(own());
    }
}

TEST_F(MicrodumpCollector, HandOverThatFailsLosesNothing) {
    start();
    crash("dump\n");
    std::filesystem::permissions(
        own(), std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
    pass(5 * DAY_MS);
    EXPECT_EQ(record(), CRASH + "dump\n");
    std::filesystem::permissions(own(), std::filesystem::perms::owner_all);
    pass(5 * DAY_MS);
    EXPECT_EQ(payloads(), std::vector<std::string>{CRASH + "dump\n"});
}

}  // namespace
