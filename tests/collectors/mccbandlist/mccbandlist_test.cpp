// The band-list updater's parts by themselves, and what others put into its directory. What it says
// and does over its turns is told in tests/transcripts.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "collectors/mccbandlist/mccbandlist_collector.h"
#include "collectors/mccbandlist/mccbandlist_dload.h"
#include "collectors/mccbandlist/mccbandlist_header.h"
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

const uint8_t* bytes_of(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

TEST(MccbandlistHeader, IsReadInBothByteOrdersFromFortyBytesAndNoFewer) {
    const std::string owner = "owner"s + std::string(25, '\0');
    const std::string ids = "\x01\x02\x03\x04";
    const std::tuple<std::string, std::string, uint32_t> cases[] = {
        {"\x01\x07"s + owner + ids + "\xff\x00\x00\x80"s, "owner", 0x04030201},
        {"\x02\x07"s + std::string(30, 'o') + ids + "\x80\x00\x00\xff more"s, std::string(30, 'o'),
         0x01020304},
    };
    for (const auto& [bytes, name, db_id] : cases) {
        mccbandlist_header header;
        ASSERT_EQ(mccbandlist_read_header(bytes_of(bytes), bytes.size(), &header), 0);
        EXPECT_EQ(header.is_little, bytes[0] == 1);
        EXPECT_EQ(header.st_v, 7);
        EXPECT_EQ(header.owner_n, name);
        EXPECT_EQ(header.db_id, db_id);
        EXPECT_EQ(header.cont_v, 0x800000ff);
        EXPECT_EQ(mccbandlist_read_header(bytes_of(bytes), 39, &header), -EINVAL);
    }
    const pdc_config_id id = mccbandlist_config_id(0x01020304);
    EXPECT_EQ(std::string(id.bytes, id.bytes + id.len), ids);
}

TEST(MccbandlistHeader, NewerHasTheSameStructureAndOwnerAndAHigherVersion) {
    const auto is_new = [](uint8_t st_v, const char(&owner)[3], uint32_t cont_v) {
        mccbandlist_header next{.st_v = st_v, .cont_v = cont_v};
        memcpy(next.owner_n, owner, sizeof owner);
        return mccbandlist_is_new_ver({.st_v = 1, .owner_n = "us", .cont_v = 0x7fffffff}, next);
    };
    EXPECT_TRUE(is_new(1, "us", 0x80000000));
    EXPECT_FALSE(is_new(1, "us", 0x7fffffff) || is_new(2, "us", 0x80000000) ||
                 is_new(1, "me", 0x80000000));
}

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

TEST_F(Mccbandlist, DownloadDirectoryIsJudgedByTheRulesInTheirOrder) {
    const std::string id = "51-1.0-mccbandlist.bin";
    using names = std::vector<std::string>;
    const std::tuple<names, int, names, uint64_t> cases[] = {
        {{}, -2, {}, 0},
        {{id + ".req", id + ".cancel", "other"}, -2, {id + ".cancel", id + ".req", "other"}, 0},
        {{id + "-cancel-200"}, -2, {}, 0},
        {{"mccbandlist.bin.77"}, -17, {"mccbandlist.bin.77"}, 0},
        {{id + "-404"}, 404, {}, 0},
        {{id + "-progress-50"}, 50, {}, 0},
        {{"mccbandlist.bin", id + "-404"}, -22, {"mccbandlist.bin"}, 0},
        {{"mccbandlist.bin", id + "-200"}, 0, {"mccbandlist.bin"}, 0},
        {{"mccbandlist.bin", id + ".77-200"}, 0, {"mccbandlist.bin"}, 77},
        {{"mccbandlist.bin", id + "-4294967496"}, -22, {"mccbandlist.bin"}, 0},
        {{id + "-"}, 0, {}, 0},
    };
    for (const auto& [files, wanted, left, key_ts] : cases) {
        fs::remove_all(DOWN_DIR);
        fs::create_directories(DOWN_DIR + "/"s + id + "-299");  // no regular file
        for (const std::string& name : files) put_files({{DOWN_DIR + "/"s + name, "x"}});
        request.fields.key = request.key;
        int status = 0;
        mccbandlist_download download;
        EXPECT_EQ(mccbandlist_check_dload_result(DOWN_DIR, request, &status, &download), wanted);
        fs::remove(DOWN_DIR + "/"s + id + "-299");
        EXPECT_EQ(list_dir(DOWN_DIR), left);
        EXPECT_EQ(download.key_ts, key_ts);
    }
    // A directory that is a link is none.
    fs::remove_all(DOWN_DIR);
    put_files({{"/data/elsewhere/"s + id + "-404", ""}});
    fs::create_directory_symlink("/data/elsewhere", DOWN_DIR);
    int status = 0;
    mccbandlist_download download;
    EXPECT_EQ(mccbandlist_check_dload_result(DOWN_DIR, request, &status, &download), -2);
    EXPECT_EQ(mccbandlist_dload_handler((DOWN_DIR + "/"s + id + "-404").c_str(), row->stop), -22);
    EXPECT_TRUE(fs::exists("/data/elsewhere/"s + id + "-404"));
    fs::remove(DOWN_DIR);
}

TEST_F(Mccbandlist, NextTurnIsDueAfterTheIntervalSinceTheLast) {
    const auto status = [](int64_t ago_ms) {
        return "#\n\nlast_dl_done_ts=" + std::to_string(PLATFORM_TEST_REAL_MS - ago_ms) +
               ";last_key_ts=18446744073709551615;";
    };
    const std::tuple<std::string, bool, uint64_t> cases[] = {
        {"", false, 0},
        {"last_dl_done_ts=;last_key_ts=1;", false, 0},
        {status(7776000000), false, 0},
        {status(7775999999), false, 0},
        {status(7775998999), false, 1},
        {status(0), false, 7776000},
        {status(-1), false, 7776000},
        {status(1000), true, 299},
        {status(300000), true, 0},
    };
    for (const auto& [text, is_debug, wait_s] : cases) {
        platform_test_reset();
        put_files({{STATUS, text}});
        g_is_debug_build = is_debug;
        mccbandlist_status read;
        mccbandlist_wait_next_turn(7776000000, &read, row->stop);
        EXPECT_EQ(vexastats_mono_time_ms() - PLATFORM_TEST_MONO_MS, wait_s * 1000) << text;
    }
    // One that cannot be saved stays in memory.
    remove(STATS_DIR);
    mccbandlist_status status_now{.last_dl_done_ts = 7};
    EXPECT_EQ(mccbandlist_set_status(&status_now), -EINVAL);
    EXPECT_EQ(mccbandlist_get_status(&status_now), 0);
    EXPECT_EQ(status_now.last_dl_done_ts, 7u);
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
    const auto looks = [this] {
        const std::string said = log();
        size_t count = 0;
        for (size_t at = 0; (at = said.find("not found status file", at)) != said.npos; ++at)
            ++count;
        return count;
    };
    start();
    EXPECT_EQ(looks(), 1u);
    put_files({{DOWN_DIR + "/sub/"s}, {"/data/vendor/vexa/down/neighbour", ""}});
    park();
    EXPECT_EQ(looks(), 0u) << "of no interest";
    platform_test_at_once([] {
        for (int i = 0; i < 40; ++i) put_files({{DOWN_DIR + "/junk"s + std::to_string(i), ""}});
    });
    park();
    const std::string said = log();
    EXPECT_NE(said.find("mccbandlist_check_dload_result: 8 more files\n"), said.npos);
    EXPECT_NE(said.find("mccbandlist_monitor: 104 more events\n"), said.npos);
    for (int second = 0; second < 3; ++second) {
        for (int i = 0; i < 20; ++i) {
            put_files({{DOWN_DIR + "/junk0"s, "x"}});
            park();
        }
        EXPECT_EQ(looks(), second == 0 ? 2u : 4u);
        pass(1000);
    }
}

}  // namespace
