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
#include "scenario/driven_scenario.h"
#include "scenario/modem_thread.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

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

// A modem that holds version 5 of the list, and the agent's directory.
const std::string PREPARED =
    "modem up\nmodem pdc list 16909060 5\nmkdir data/vendor/vexa/down/51\n";

// Lines at which the agent puts a file; what FILE names lies in SCRIPT_DIR.
std::string put_at(const std::string& time, const std::string& name, const std::string& file = "") {
    return "at " + time + " write data/vendor/vexa/down/51/" + name +
           (file.empty() ? "\n" : " < " + file + "\n");
}

void put_for_script(const std::string& name, const std::string& content) {
    put_files({{SCRIPT_DIR + name, content}});
}

TEST(MccbandlistScenario, ListsAreFetchedEveryNinetyDaysAndNewerOnesLoaded) {
    phone_reset();
    const std::string list = pdc_band_list(DB, 6, "vexa", 2500);
    put_for_script("list", list);
    put_for_script("part", list.substr(0, 100));
    put_for_script("same_version", pdc_band_list(DB, 6, "vexa", 41));
    const driven_result run = play(PREPARED + put_at("10s", "mccbandlist.bin", "part") +
                                       put_at("20s", "mccbandlist.bin", "list") +
                                       put_at("20s", "51-1.0-mccbandlist.bin.1704-200") +
                                       "at 89d23h50m snapshot\nat 90d1h snapshot\n" +
                                       put_at("90d1h", "mccbandlist.bin.1704", "same_version") +
                                       put_at("90d1h", "51-1.0-mccbandlist.bin.1704-200") +
                                       "at 90d2h modem pdc save 16909060 /dev/script/held\n",
                                   "real=2024-01-01T00:00:00Z boot=1000");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(file_text(SCRIPT_DIR + std::string("held")), list);
    EXPECT_THAT(run.lines_with("partially downloaded"), StartsWith("00:00:10.000"));
    EXPECT_THAT(run.lines_with("ignore old or no match file"), StartsWith("01:00:00.000"));
    // The directory, then what follows it: nothing, and the request of the next turn.
    ASSERT_EQ(run.snapshots.size(), 2u);
    for (const char* part :
         {"/down/51/ 755\n/data/vendor/vexa/up/", "pdc: segment of 700 bytes, 2500 of 2500\n",
          "    last_dl_done_ts=1704067220000;last_key_ts=1704;\n"})
        EXPECT_THAT(run.snapshots[0], HasSubstr(part));
    EXPECT_THAT(run.snapshots[1],
                HasSubstr("/51-1.0-mccbandlist.bin.1704.req 644\n    clientID=51\n"
                          "    version=1.0\n    key=mccbandlist.bin.1704\n    requestType=0\n"
                          "    requestTimer=-813934592\n    connType=1\n    connTimer=86400\n"));
    for (const char* part : {"/down/51/ 755\n/data/vendor/vexa/up/",
                             "    last_dl_done_ts=1711846800000;last_key_ts=1704;\n"})
        EXPECT_THAT(run.transcript, HasSubstr(part));
}

// On a debug build turns are five minutes apart. Every attempt but the last fails in its own way.
TEST(MccbandlistScenario, FailedAttemptsEndAndTheNextOneIsMade) {
    phone_reset();
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
    std::string script = PREPARED + "property ro.build.type userdebug\nat 9s snapshot\n";
    std::vector<std::string> times;
    for (const auto& [modem_command, delivered, status, logged] : attempts) {
        const std::string time = std::to_string(10 + 301 * times.size()) + "s";
        script += "at " + time + " modem " + modem_command + "\n";
        put_for_script("list" + time, delivered);
        if (!delivered.empty()) script += put_at(time, "mccbandlist.bin", "list" + time);
        script += put_at(time, std::string("51-1.0-mccbandlist.bin-") + status);
        times.push_back(time);
    }
    script += "at 45m modem pdc save 16909060 /dev/script/held\n";
    const driven_result run = play(script, "real=2024-01-01T00:00:00Z");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(file_text(SCRIPT_DIR + std::string("held")), list.substr(0, 900));
    ASSERT_FALSE(run.snapshots.empty());
    EXPECT_THAT(run.snapshots[0],
                HasSubstr("    requestTimer=1740\n    connType=1\n    connTimer=300\n"));
    const std::string requests = run.lines_with("req_timer=1740, conn_timer=300");
    EXPECT_EQ(std::ranges::count(requests, '\n'), 9);
    size_t second = 10;
    for (const auto& [modem_command, delivered, status, logged] : attempts) {
        char time[32];
        (void)snprintf(time, sizeof time, "00:%02zu:%02zu.000", second / 60, second % 60);
        EXPECT_THAT(run.lines_with(logged), HasSubstr(time)) << logged;
        second += 301;
    }
}

TEST(MccbandlistScenario, StopDoesNotWaitForTheModem) {
    for (const char* command : {"pdc silent", "pdc stall on"}) {
        phone_reset();
        put_for_script("list", pdc_band_list(DB, 6, "vexa", 40));
        const driven_result run =
            play(PREPARED + "modem " + command + "\n" + put_at("1s", "mccbandlist.bin", "list") +
                 put_at("1s", "51-1.0-mccbandlist.bin-200") + "at 2s signal TERM\n");
        EXPECT_EQ(run.exit_code, 0);
        EXPECT_THAT(run.transcript, HasSubstr("left without an"));
        EXPECT_THAT(run.lines_with("vexastatsd stopped"), StartsWith("22:13:22.000")) << command;
        EXPECT_FALSE(fs::exists(STATUS_FILE)) << "the next start makes the attempt anew";
    }
}

// Of a directory full of files, some of which others write all the time, the daemon makes a bounded
// number of looks and log lines, and what the agent delivers is found in between.
TEST(MccbandlistScenario, NeighbourWhoFillsTheDirectoryAndTouchesItCostsLittle) {
    phone_reset();
    fs::create_directories(DIR);
    const auto put = [](const std::string& name, const std::string& text = "") {
        write_text_file(DIR + "/" + name, text);
    };
    modem_thread modem;
    modem.command("pdc list " + std::to_string(DB) + " 5");
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("check if disabled."));
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
    EXPECT_TRUE(eventually_logged("mccbandlist_wait_next_turn: start wait time "));
    EXPECT_TRUE(list_dir(DIR).empty());
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
