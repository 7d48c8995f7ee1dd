// Configuration files: what is accepted, what it becomes, and which files stay.
#include "framework/config/config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "framework/config/config_line.h"
#include "platform_test.h"
#include "support/files.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char LOCAL[] = "/data/vendor/vexastats/2/.teststats.cfg";
constexpr char DOWNLOADED[] = "/data/vendor/vexa/down/2/teststats.cfg";

class ConfigTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* path : {LOCAL, DOWNLOADED}) {
            fs::remove_all(fs::path(path).parent_path());
            fs::create_directories(fs::path(path).parent_path());
        }
        platform_test_reset();
    }

    static std::string local_text(const std::string& values) {
        return "#test_collector config file. Version: 1.2\n" + values + "\n";
    }

    // The row's values as the local file would hold them.
    std::string values() const {
        char text[256];
        snprintf(text, sizeof text,
                 "clientid=%u;size=%d;interval=%d;threshold=%d;notify=%d;no_supported_kernel=%d",
                 row.hdr.client_id, row.size, row.interval, row.threshold, row.notify,
                 row.no_supported_kernel);
        return text;
    }

    collector_info row{
        .name = "test_collector",
        .cfg_file = LOCAL,
        .dl_cfg_file = DOWNLOADED,
        .interval = 60000,
        .interval_max = 60000,
        .interval_min = 100,
        .threshold = 300000,
        .threshold_max = 1900800,
        .threshold_min = 300000,
        .hdr = {.client_id = 2},
        .cfg_update_handler = vexastats_update_cfg,
    };
};

const std::string DEFAULTS =
    "clientid=2;size=65536;interval=60000;threshold=300000;notify=0;no_supported_kernel=0";

struct local_case {
    const char* name;
    std::string text;
    std::string values;  // in the row afterwards
    bool rewritten;
};

TEST_F(ConfigTest, LocalFileIsAppliedOrRecreated) {
    const local_case cases[] = {
        {"valid",
         "clientid=2;size=100;interval=200;threshold=400000;notify=7;no_supported_kernel=3\n",
         "clientid=2;size=100;interval=200;threshold=400000;notify=1;no_supported_kernel=1", false},
        {"five values", "clientid=2;size=100;interval=200;threshold=400000;notify=1\n", DEFAULTS,
         true},
        {"other client",
         "clientid=3;size=100;interval=200;threshold=400000;notify=1;no_supported_kernel=1\n",
         DEFAULTS, true},
        {"negative client",
         "clientid=-4294967294;size=1;interval=2;threshold=3;notify=1;no_supported_kernel=1\n",
         DEFAULTS, true},
        {"only comments", "#a\n\n#b\n", DEFAULTS, false},
        {"empty", "", DEFAULTS, false},
        {"noise", std::string(2000, 'x'), DEFAULTS, true},
    };
    for (const local_case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        row.size = 65536;
        row.interval = 60000;
        row.threshold = 300000;
        row.notify = row.no_supported_kernel = 0;
        write_text_file(LOCAL, c.text);
        EXPECT_EQ(vexastats_init_params(&row), 0);
        EXPECT_EQ(values(), c.values);
        EXPECT_EQ(file_text(LOCAL), c.rewritten ? local_text(c.values) : c.text);
        EXPECT_EQ(log_text().find("invalid 2 config file. re-create.") != std::string::npos,
                  c.rewritten);
    }
}

TEST_F(ConfigTest, MissingLocalFileIsWrittenFromTheDefaults) {
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(file_text(LOCAL), local_text(DEFAULTS));
    EXPECT_EQ(log_text(), "");
}

struct clamp_case {
    const char* values;
    const char* applied;
};

TEST_F(ConfigTest, DownloadedValuesAreClampedAndRecordedBeforeTheFileGoes) {
    const clamp_case cases[] = {
        {"clientid=2;size=5000000;interval=50;threshold=2000000;notify=1",
         "clientid=2;size=1048576;interval=100;threshold=1900800;notify=1;no_supported_kernel=0"},
        {"clientid=2;size=-1;interval=-5;threshold=-1;notify=0",
         "clientid=2;size=0;interval=100;threshold=300000;notify=0;no_supported_kernel=0"},
        {"clientid=2;size=99999999999999999999;interval=4294967296;threshold=300001;notify=-1",
         "clientid=2;size=1048576;interval=60000;threshold=300001;notify=1;no_supported_kernel=0"},
    };
    for (const clamp_case& c : cases) {
        SCOPED_TRACE(c.values);
        SetUp();
        write_text_file(LOCAL, local_text(DEFAULTS));
        write_text_file(DOWNLOADED, "# from the server\n\n" + std::string(c.values) + "\n");
        EXPECT_EQ(vexastats_init_params(&row), 0);
        EXPECT_EQ(values(), c.applied);
        EXPECT_EQ(file_text(LOCAL), local_text(c.applied));
        EXPECT_FALSE(fs::exists(DOWNLOADED));
    }
}

TEST_F(ConfigTest, RowWithoutBoundsTakesZero) {
    row.interval_max = row.interval_min = row.threshold_max = row.threshold_min = 0;
    write_text_file(DOWNLOADED, "clientid=2;size=1;interval=70;threshold=-3;notify=0\n");
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(row.interval, 0);
    EXPECT_EQ(row.threshold, 0);
}

TEST_F(ConfigTest, ForeignDownloadIsRefusedAndStays) {
    write_text_file(LOCAL, local_text(DEFAULTS));
    write_text_file(DOWNLOADED, "clientid=1;size=1;interval=200;threshold=300000;notify=1\n");
    for (int load = 0; load < 2; load++) {
        platform_test_clear_log();
        EXPECT_EQ(vexastats_init_params(&row), 0);
        EXPECT_THAT(log_text(), HasSubstr("invalid 2 config file. ignore it. err:"));
        EXPECT_TRUE(fs::exists(DOWNLOADED));
        EXPECT_EQ(values(), DEFAULTS);
    }
}

TEST_F(ConfigTest, DownloadStaysWhenTheLocalFileCannotBeWritten) {
    write_text_file(DOWNLOADED, "clientid=2;size=1;interval=200;threshold=300000;notify=1\n");
    fs::remove_all(fs::path(LOCAL).parent_path());
    EXPECT_EQ(vexastats_init_params(&row), -EINVAL);
    EXPECT_THAT(
        log_text(),
        HasSubstr("failed to open test_collector cfg. err:2\nfailed to update cfg file.\n"));
    EXPECT_EQ(row.interval, 200);
    EXPECT_TRUE(fs::exists(DOWNLOADED)) << "what it said is recorded nowhere else";
}

TEST_F(ConfigTest, RowThatCannotWriteItsFileSaysSo) {
    row.cfg_update_handler = nullptr;
    EXPECT_EQ(vexastats_init_params(&row), -1);
    EXPECT_EQ(vexastats_init_params(nullptr), -EINVAL);
    write_text_file(LOCAL, local_text(DEFAULTS));
    EXPECT_EQ(vexastats_init_params(&row), 0);
}

TEST_F(ConfigTest, FifoInPlaceOfAFileDoesNotBlock) {
    fs::remove(LOCAL);
    ASSERT_EQ(mkfifo(DOWNLOADED, 0600), 0);
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_THAT(log_text(), HasSubstr("failed to open dloaded cfg file. err:22\n"));
}

// A collector's own format: the handler sees each file, or null for one that cannot be opened.
std::vector<std::string> g_seen;
void seen_handler(FILE* stream, collector_info*) {
    char line[64] = "";
    g_seen.emplace_back(!stream ? "null" : fgets(line, sizeof line, stream) ? line : "empty");
}

TEST_F(ConfigTest, OwnHandlerSeesBothFilesAndTheDownloadIsConsumed) {
    g_seen.clear();
    row.cfg_read_handler = seen_handler;
    write_text_file(LOCAL, "mine");
    write_text_file(DOWNLOADED, "theirs");
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(g_seen, (std::vector<std::string>{"mine", "theirs"}));
    EXPECT_FALSE(fs::exists(DOWNLOADED));
    EXPECT_EQ(file_text(LOCAL), local_text(DEFAULTS));
}

// What the agent does between the reading of a download and its removal, and what is there then.
void (*g_agent)() = nullptr;
int update_while_agent_delivers(void*) {
    if (g_agent) g_agent();
    return 0;
}
bool take_any_line(void*, const char* line, bool) {
    g_seen.emplace_back(line);
    return true;
}

TEST_F(ConfigTest, DownloadThatCameWhileTheLastOneWasTakenInIsLoadedNext) {
    struct {
        const char* name;
        void (*agent)();
        std::vector<std::string> next;  // what the next load takes
    } const cases[] = {
        {"nothing comes", [] {}, {}},
        {"another one is renamed into place",
         [] {
             write_text_file(std::string(DOWNLOADED) + ".arriving", "second\n");
             fs::rename(std::string(DOWNLOADED) + ".arriving", DOWNLOADED);
         },
         {"second\n"}},
        {"the same one is written again",
         [] { write_text_file(DOWNLOADED, "longer than it was\n"); },
         {"longer than it was\n"}},
        {"it is taken back", [] { fs::remove(DOWNLOADED); }, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        const config_files files{.downloaded = DOWNLOADED,
                                 .client_id = 2,
                                 .read_line = take_any_line,
                                 .update_local = update_while_agent_delivers};
        write_text_file(DOWNLOADED, "first\n");
        g_agent = c.agent;
        EXPECT_EQ(vexastats_load_config(files), 0);
        g_agent = nullptr;
        g_seen.clear();
        EXPECT_EQ(vexastats_load_config(files), 0);
        EXPECT_EQ(g_seen, c.next);
        EXPECT_EQ(list_dir(fs::path(DOWNLOADED).parent_path()), std::vector<std::string>{});
    }
}

TEST_F(ConfigTest, DownloadThatAKillLeftAsideIsTakenUnlessANewerOneIsThere) {
    const std::string aside = std::string(DOWNLOADED) + ".done";
    const config_files files{.downloaded = DOWNLOADED,
                             .read_line = take_any_line,
                             .update_local = update_while_agent_delivers};
    for (const bool newer : {false, true}) {
        SCOPED_TRACE(newer);
        g_seen.clear();
        write_text_file(aside, "aside\n");
        if (newer) write_text_file(DOWNLOADED, "newer\n");
        EXPECT_EQ(vexastats_load_config(files), 0);
        EXPECT_EQ(g_seen, std::vector<std::string>{newer ? "newer\n" : "aside\n"});
        EXPECT_EQ(list_dir(fs::path(DOWNLOADED).parent_path()), std::vector<std::string>{});
    }
}

}  // namespace
