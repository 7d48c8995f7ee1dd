// The band-list updater in the whole daemon, with a modem on its socket and a download agent played
// here, over turns that lie 90 days apart.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include "modem/pdc.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

const std::string DIR = std::string(DOWN_DIR) + "/51";
const std::string STATUS_FILE = std::string(STATS_DIR) + "/51/.mccbandlist.info";
constexpr uint32_t DB = 0x01020304;

// Processor time that the process has used.
double cpu_time_s(pid_t pid) {
    std::istringstream stat(file_text("/.host/proc/" + std::to_string(pid) + "/stat"));
    std::string word;
    for (int i = 0; i < 13; ++i) stat >> word;
    double user = 0, system = 0;
    stat >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

class MccbandlistScenario : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        fs::create_directories(DIR);
        modem.emplace();
        modem->command("pdc list " + std::to_string(DB) + " 5");
        phone_set_clock("real=2024-01-01T00:00:00Z boot=1000");
    }
    static bool eventually_logged(const std::string& text) {
        return eventually([&] { return phone_log().find(text) != std::string::npos; });
    }
    // Waits for the request for the list of that name, and forgets the log up to it.
    static bool requested(const std::string& key) {
        const bool filed =
            eventually([&] { return fs::exists(DIR + "/51-1.0-" + key + ".req"); }) &&
            eventually_logged("check if disabled.");
        fs::remove("/dev/log/main");
        return filed;
    }
    static void put(const std::string& name, const std::string& text = "") {
        write_text_file(DIR + "/" + name, text);
    }
    // The attempt is over: its status is written, the directory swept, the next turn waited for.
    static bool ended() {
        return eventually_logged("mccbandlist_wait_next_turn: start wait time ") &&
               list_dir(DIR).empty();
    }
    std::string held() {
        const std::string path = "/data/held" + std::to_string(++saved);
        modem->command("pdc save " + std::to_string(DB) + " " + path);
        EXPECT_TRUE(
            eventually([&] { return modem->output().find("saved " + path) != std::string::npos; }));
        return file_text(path);
    }
    std::optional<modem_thread> modem;
    int saved = 0;
};

TEST_F(MccbandlistScenario, ListsAreFetchedEveryNinetyDaysAndNewerOnesLoaded) {
    const std::string list = pdc_band_list(DB, 6, "vexa", 2500);
    daemon_process daemon;
    ASSERT_TRUE(requested("mccbandlist.bin"));
    put("mccbandlist.bin", list.substr(0, 100));
    ASSERT_TRUE(eventually_logged("partially downloaded"));
    put("mccbandlist.bin", list);
    put("51-1.0-mccbandlist.bin.1704-200");
    ASSERT_TRUE(ended()) << phone_log();
    EXPECT_EQ(held(), list);
    EXPECT_THAT(modem->output(), HasSubstr("pdc: segment of 700 bytes, 2500 of 2500"));
    EXPECT_THAT(file_text(STATUS_FILE), HasSubstr("last_dl_done_ts=17040672"));
    EXPECT_THAT(file_text(STATUS_FILE), HasSubstr(";last_key_ts=1704;"));

    // The next turn is 90 days later, less the seconds since; the list is no newer then.
    phone_set_clock("real=2024-03-30T23:50:00Z boot=7776400");
    EXPECT_THAT(list_dir(DIR), IsEmpty());
    phone_set_clock("real=2024-03-31T00:00:10Z boot=7777010");
    ASSERT_TRUE(requested("mccbandlist.bin.1704"));
    EXPECT_EQ(file_text(DIR + "/51-1.0-mccbandlist.bin.1704.req"),
              "clientID=51\nversion=1.0\nkey=mccbandlist.bin.1704\nrequestType=0\n"
              "requestTimer=-813934592\nconnType=1\nconnTimer=86400\n");
    put("mccbandlist.bin.1704", pdc_band_list(DB, 6, "vexa", 41));
    put("51-1.0-mccbandlist.bin.1704-200");
    ASSERT_TRUE(ended());
    EXPECT_THAT(phone_log(), HasSubstr("ignore old or no match file"));
    EXPECT_THAT(file_text(STATUS_FILE), HasSubstr("last_dl_done_ts=171184"));
    EXPECT_THAT(file_text(STATUS_FILE), HasSubstr(";last_key_ts=1704;"));
    EXPECT_EQ(held(), list);
    EXPECT_TRUE(daemon.stop());
}

// On a debug build turns are five minutes apart. Every attempt but the last fails in its own way.
TEST_F(MccbandlistScenario, FailedAttemptsEndAndTheNextOneIsMade) {
    write_text_file("/dev/properties/ro.build.type", "userdebug");
    const std::string list = pdc_band_list(DB, 6, "vexa", 1000);
    const std::tuple<const char*, std::string, const char*, const char*> attempts[] = {
        {"help", list, "404", "failed to process download request"},
        {"help", "", "503", "status file only 503"},
        {"help", list.substr(0, 39), "200", "read header failed"},
        {"help", pdc_band_list(DB + 1, 9, "vexa", 40), "200", "to find db_id 01020305"},
        {"help", pdc_band_list(DB, 9, "other", 40), "200", "owner_name not match"},
        {"pdc refuse 40 1 3", list, "200", "failed to get config info"},
        {"pdc refuse 38", list, "200", "Failed to load config segments, result: -1"},
        {"pdc early 900", list, "200", "The remaining size: 0"},
    };
    daemon_process daemon;
    int64_t boot_s = 1000;
    for (const auto& [modem_command, delivered, status, logged] : attempts) {
        ASSERT_TRUE(requested("mccbandlist.bin")) << phone_log();
        EXPECT_THAT(file_text(DIR + "/51-1.0-mccbandlist.bin.req"),
                    HasSubstr("requestTimer=1740\nconnType=1\nconnTimer=300\n"));
        modem->command(modem_command);
        if (!delivered.empty()) put("mccbandlist.bin", delivered);
        put(std::string("51-1.0-mccbandlist.bin-") + status);
        ASSERT_TRUE(ended()) << phone_log();
        EXPECT_THAT(phone_log(), HasSubstr(logged));
        boot_s += 301;
        phone_set_clock("boot=" + std::to_string(boot_s));
    }
    EXPECT_EQ(held(), list.substr(0, 900));
    EXPECT_TRUE(daemon.stop());
}

TEST_F(MccbandlistScenario, StopDoesNotWaitForTheModem) {
    for (const char* command : {"pdc silent", "pdc stall on"}) {
        SetUp();
        modem->command(command);
        daemon_process daemon;
        ASSERT_TRUE(requested("mccbandlist.bin"));
        put("mccbandlist.bin", pdc_band_list(DB, 6, "vexa", 40));
        put("51-1.0-mccbandlist.bin-200");
        ASSERT_TRUE(eventually(
            [&] { return modem->output().find("left without an") != std::string::npos; }));
        EXPECT_TRUE(daemon.stop()) << command;
        EXPECT_FALSE(fs::exists(STATUS_FILE)) << "the next start makes the attempt anew";
    }
}

// Of a directory full of files, some of which others write all the time, the daemon makes a bounded
// number of looks and log lines, and what the agent delivers is found in between.
TEST_F(MccbandlistScenario, NeighbourWhoFillsTheDirectoryAndTouchesItCostsLittle) {
    daemon_process daemon;
    ASSERT_TRUE(requested("mccbandlist.bin"));
    for (int i = 0; i < 5000; ++i) put("junk" + std::to_string(i));
    EXPECT_TRUE(eventually_logged("mccbandlist_check_dload_result: 4968 more files"));
    fs::remove("/dev/log/main");
    const double cpu_before_s = cpu_time_s(daemon.pid());
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 60; ++i) {
        put("junk" + std::to_string(i), "x");
        std::this_thread::sleep_for(milliseconds(50));  // twenty a second
    }
    const double wall_s =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double share = (cpu_time_s(daemon.pid()) - cpu_before_s) / wall_s;
    const std::string log = phone_log();
    const double lines_a_second = static_cast<double>(std::ranges::count(log, '\n')) / wall_s;
    printf("%.0f %% of a core, %.0f lines a second\n", 100 * share, lines_a_second);
    EXPECT_LT(lines_a_second, 700);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(share, 0.2);
#endif
    put("mccbandlist.bin", pdc_band_list(DB, 6, "vexa", 100));
    put("51-1.0-mccbandlist.bin-200");
    EXPECT_TRUE(ended());
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
