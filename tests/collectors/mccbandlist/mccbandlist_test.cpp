// The band-list updater's parts by themselves, and what others put into its directory. What it says
// and does over its turns is told in tests/transcripts.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "collectors/mccbandlist/mccbandlist_collector.h"
#include "collectors/mccbandlist/mccbandlist_dload.h"
#include "collectors/mccbandlist/mccbandlist_update.h"
#include "framework/row/debug_build.h"
#include "framework/time/clock.h"
#include "support/collector_phone.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/51";
const std::string STATS_DIR = "/data/vendor/vexastats/51";
const std::string STATUS = STATS_DIR + "/.mccbandlist.info";

TEST(MccbandlistFile, IsReadWhenItIsAFileOfBoundedSize) {
    put_files({{"/data/list", "x"}, {"/data/huge", ""}});
    fs::resize_file("/data/huge", MCCBANDLIST_FILE_MAX + 1);
    owned_bytes file;
    EXPECT_EQ(mccbandlist_read_dl_file("/data/list", &file), 0);
    EXPECT_EQ(file.length, 1u);
    for (const char* path : {"/data/missing", "/data", "/data/huge"})
        EXPECT_EQ(mccbandlist_read_dl_file(path, &file), -EINVAL) << path;
    EXPECT_EQ(mccbandlist_dload_handler("/data/list", stop_flag()), -EINVAL);
    EXPECT_FALSE(fs::exists("/data/list")) << "too short, and deleted";
}

struct Mccbandlist : testing::Test, collector_phone {
    Mccbandlist() : collector_phone(51) {
        g_is_debug_build = false;
        put_files({{STATS_DIR + "/"}});
        platform_test_set_property("vendor.orb.vexa.enabled", "1");
    }
    ~Mccbandlist() override { g_is_debug_build = false; }
    mccbandlist_request request;
};

// "@" is the id of the request.
TEST_F(Mccbandlist, DownloadDirectoryIsJudgedByTheRulesInTheirOrder) {
    const std::tuple<std::string, int, std::string, uint64_t> cases[] = {
        {"", -2, "", 0},
        {"@.req @.cancel other", -2, "@.cancel @.req other ", 0},
        {"@-cancel-200", -2, "", 0},
        {"mccbandlist.bin.77", -17, "mccbandlist.bin.77 ", 0},
        {"@-404", 404, "", 0},
        {"@-progress-50", 50, "", 0},
        {"mccbandlist.bin @-404", -22, "mccbandlist.bin ", 0},
        {"mccbandlist.bin @.77-200", 0, "mccbandlist.bin ", 77},
        {"mccbandlist.bin @-4294967496", -22, "mccbandlist.bin ", 0},
        {"@-", 0, "", 0},
    };
    request.fields.key = request.key;
    const std::string id = "51-1.0-mccbandlist.bin";
    const fs::path dir = DOWN_DIR;
    for (const auto& [files, wanted, left, key_ts] : cases) {
        remove(dir);
        fs::create_directories(dir / (id + "-299"));  // no regular file
        std::istringstream names(files);
        for (std::string name; names >> name;)
            put_files({{dir / (name[0] == '@' ? id + name.substr(1) : name), "x"}});
        int status = 0;
        mccbandlist_download download;
        EXPECT_EQ(mccbandlist_check_dload_result(DOWN_DIR, request, &status, &download), wanted);
        remove(dir / (id + "-299"));
        std::string found;
        for (const std::string& name : list_dir(dir))
            found += (name.starts_with(id) ? "@" + name.substr(id.size()) : name) + " ";
        EXPECT_EQ(found, left);
        EXPECT_EQ(download.key_ts, key_ts);
    }
    // A directory that is a link is none.
    fs::rename(dir, "/data/elsewhere");
    put_files({{"/data/elsewhere/" + id + "-404", ""}});
    fs::create_directory_symlink("/data/elsewhere", dir);
    int status = 0;
    mccbandlist_download download;
    EXPECT_EQ(mccbandlist_check_dload_result(DOWN_DIR, request, &status, &download), -2);
    EXPECT_EQ(mccbandlist_dload_handler((dir / (id + "-404")).c_str(), row->stop), -22);
    EXPECT_TRUE(fs::exists("/data/elsewhere/" + id + "-404"));
    remove(dir);
}

TEST_F(Mccbandlist, NextTurnIsDueAfterTheIntervalSinceTheLast) {
    const std::tuple<int64_t, bool, uint64_t> cases[] = {
        {7776000000, false, 0}, {7775999001, false, 0}, {7775999000, false, 1}, {0, false, 7776000},
        {-1, false, 7776000},   {1000, true, 299},      {300000, true, 0},
    };
    mccbandlist_status status;
    for (const auto& [ago_ms, is_debug, wait_s] : cases) {
        platform_test_reset();
        put_files(
            {{STATUS, "#\n\nlast_dl_done_ts=" + std::to_string(PLATFORM_TEST_REAL_MS - ago_ms) +
                          ";last_key_ts=18446744073709551615;"}});
        g_is_debug_build = is_debug;
        mccbandlist_wait_next_turn(7776000000, &status, row->stop);
        EXPECT_EQ(vexastats_mono_time_ms() - PLATFORM_TEST_MONO_MS, wait_s * 1000) << ago_ms;
        EXPECT_EQ(status.last_key_ts, UINT64_MAX);
    }
    put_files({{STATUS, "last_dl_done_ts=5;last_key_ts=;"}});
    EXPECT_EQ(mccbandlist_get_status(&status), -EINVAL);
    EXPECT_EQ(status.last_dl_done_ts, 0u);
    // One that cannot be saved stays in memory.
    remove(STATS_DIR);
    status.last_dl_done_ts = 7;
    EXPECT_EQ(mccbandlist_set_status(&status), -EINVAL);
    EXPECT_EQ(mccbandlist_get_status(&status), 0);
    EXPECT_EQ(status.last_dl_done_ts, 7u);
}

// Whether the daemon is enabled is waited for, but not for ever. A stop ends that wait, too.
TEST_F(Mccbandlist, EnablingPropertyIsWaitedForThreeHundredSeconds) {
    for (const bool is_stopped : {true, false}) {
        platform_test_set_property("vendor.orb.vexa.enabled", "0");
        start();
        for (int waited_s = 0; waited_s < 295; waited_s += 5) pass(5000);
        EXPECT_EQ(requests(), "");
        if (is_stopped) stop();
        if (!is_stopped) pass(5000);
        EXPECT_EQ(requests().empty(), is_stopped);
        if (is_stopped) renew();
    }
}

TEST_F(Mccbandlist, FileThatIsNotClosedYetIsNotTaken) {
    const std::string report = DOWN_DIR + "/51-1.0-mccbandlist.bin-200"s;
    start();
    {
        const unique_fd being_written(open(report.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        park();
        EXPECT_TRUE(fs::exists(report));
        // The list comes first, then the report is complete.
        put_files({{DOWN_DIR + "/mccbandlist.bin"s, "x"}});
        wait_log("successfully downloaded the file");
    }
    EXPECT_TRUE(wait_for_file(STATUS));
}

// Others may fill the directory and touch it as often as they like: so many lines, and so many
// looks a second.
TEST_F(Mccbandlist, NeighbourWhoFillsTheDirectoryAndTouchesItCostsLittle) {
    const auto looks = [this] { return times_logged("not found status file"); };
    start();
    EXPECT_EQ(looks(), 1u);
    put_files({{DOWN_DIR + "/sub/"s}, {"/data/vendor/vexa/down/neighbour", ""}});
    park();
    EXPECT_EQ(looks(), 1u) << "of no interest";
    platform_test_at_once([] {
        for (int i = 0; i < 40; ++i) put_files({{DOWN_DIR + "/junk"s + std::to_string(i), ""}});
    });
    park();
    EXPECT_EQ(times_logged("mccbandlist_check_dload_result: 8 more files"), 1u);
    EXPECT_EQ(times_logged("mccbandlist_monitor: 104 more events"), 1u);
    for (size_t second = 0; second < 3; ++second) {
        for (int i = 0; i < 20; ++i) {
            put_files({{DOWN_DIR + "/junk0"s, "x"}});
            park();
        }
        EXPECT_EQ(looks(), 4u * (second + 1));
        pass(1000);
    }
}

}  // namespace
