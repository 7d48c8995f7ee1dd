// Configuration files: what is accepted, what it becomes, and which files stay.
#include "framework/config/config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>

#include "framework/config/config_line.h"
#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

const std::string DOWNLOADED = "/data/vendor/vexa/down/7/teststats.cfg";
const std::string DEFAULTS =
    "clientid=7;size=65536;interval=60000;threshold=300000;notify=0;no_supported_kernel=0";

struct ConfigTest : testing::Test, record_phone {
    ConfigTest() { fresh(); }

    // No file is there, and the row as the table has it.
    void fresh() {
        reset();
        row.interval = 60000;
        row.interval_min = 100;
        row.threshold = row.threshold_min = 300000;
        row.threshold_max = 1900800;
        row.notify = row.no_supported_kernel = 0;
        g_seen.clear();
    }
    static std::string local_text(const std::string& values) {
        return "#test_collector config file. Version: 1.2\n" + values + "\n";
    }
    std::string local() const { return file_text(row.cfg_file); }

    // The row's values as the local file would hold them.
    std::string values() const {
        return fmt_values({static_cast<int>(row.hdr.client_id), row.size, row.interval,
                           row.threshold, row.notify, row.no_supported_kernel});
    }
    static std::string fmt_values(const std::array<int, 6>& v) {
        const char* keys[] = {"clientid=",   ";size=",   ";interval=",
                              ";threshold=", ";notify=", ";no_supported_kernel="};
        std::string text;
        for (size_t i = 0; i < v.size(); ++i) text += keys[i] + std::to_string(v[i]);
        return text;
    }

    static inline std::vector<std::string> g_seen;  // by a collector's own handler
};

TEST_F(ConfigTest, LocalFileIsAppliedOrRecreated) {
    const struct {
        const char* name;
        std::string text;
        std::string values;  // in the row afterwards
        bool rewritten;
    } cases[] = {
        {"valid", fmt_values({7, 100, 200, 400000, 7, 3}) + "\n",
         fmt_values({7, 100, 200, 400000, 1, 1}), false},
        {"five values", "clientid=7;size=100;interval=200;threshold=400000;notify=1\n", DEFAULTS,
         true},
        {"other client", fmt_values({3, 100, 200, 400000, 1, 1}) + "\n", DEFAULTS, true},
        {"only comments", "#a\n\n#b\n", DEFAULTS, false},
        {"empty", "", DEFAULTS, false},
        {"noise", std::string(2000, 'x'), DEFAULTS, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        write_text_file(row.cfg_file, c.text);
        errno = 0;
        EXPECT_EQ(vexastats_init_params(&row), 0);
        EXPECT_EQ(values(), c.values);
        EXPECT_EQ(local(), c.rewritten ? local_text(c.values) : c.text);
        const std::string logged = log();
        EXPECT_EQ(logged.starts_with("E vexastatsd: invalid 7 config file. re-create. err:"),
                  c.rewritten);
        EXPECT_EQ(logged.empty(), !c.rewritten);
    }
    fresh();
    EXPECT_EQ(vexastats_init_params(&row), 0) << "it is missing";
    EXPECT_EQ(local(), local_text(DEFAULTS));
    EXPECT_EQ(log(), "");
}

TEST_F(ConfigTest, DownloadedValuesAreClampedAndRecordedBeforeTheFileGoes) {
    const struct {
        const char* values;
        std::array<int, 6> applied;
    } cases[] = {
        {"size=5000000;interval=50;threshold=2000000;notify=1", {7, 1048576, 100, 1900800, 1, 0}},
        {"size=-1;interval=-5;threshold=-1;notify=0", {7, 0, 100, 300000, 0, 0}},
        {"size=1048576;interval=100;threshold=1900800;notify=0", {7, 1048576, 100, 1900800, 0, 0}},
        {"size=1048577;interval=60001;threshold=299999;notify=2",
         {7, 1048576, 60000, 300000, 1, 0}},
        {"size=99999999999999999999;interval=4294967296;threshold=300001;notify=-1",
         {7, 1048576, 60000, 300001, 1, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.values);
        fresh();
        write_text_file(row.cfg_file, local_text(DEFAULTS));
        write_text_file(row.dl_cfg_file,
                        "# from the server\n\nclientid=7;" + std::string(c.values) + "\n");
        EXPECT_EQ(vexastats_init_params(&row), 0);
        EXPECT_EQ(values(), fmt_values(c.applied));
        EXPECT_EQ(local(), local_text(fmt_values(c.applied)));
        EXPECT_EQ(list_dir(DOWN), std::vector<std::string>{});
        EXPECT_EQ(log(), "");
    }
    fresh();  // a row without bounds takes zero
    row.interval_max = row.interval_min = row.threshold_max = row.threshold_min = 0;
    write_text_file(row.dl_cfg_file, "clientid=7;size=1;interval=70;threshold=-3;notify=0\n");
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(values(), fmt_values({7, 1, 0, 0, 0, 0}));
}

TEST_F(ConfigTest, ForeignDownloadIsRefusedAndStays) {
    write_text_file(row.cfg_file, local_text(DEFAULTS));
    write_text_file(row.dl_cfg_file, "clientid=1;size=1;interval=200;threshold=300000;notify=1\n");
    for (int load = 0; load < 2; load++) {
        EXPECT_EQ(vexastats_init_params(&row), 0);
        EXPECT_TRUE(log().starts_with("E vexastatsd: invalid 7 config file. ignore it. err:"));
        EXPECT_TRUE(fs::exists(row.dl_cfg_file));
        EXPECT_EQ(values(), DEFAULTS);
    }
}

TEST_F(ConfigTest, DownloadStaysWhenTheLocalFileCannotBeWritten) {
    write_text_file(row.dl_cfg_file, "clientid=7;size=1;interval=200;threshold=300000;notify=1\n");
    fs::remove_all(OWN);
    EXPECT_EQ(vexastats_init_params(&row), -EINVAL);
    EXPECT_EQ(log(),
              "E vexastatsd: failed to open test_collector cfg. err:2\n"
              "E vexastatsd: failed to update cfg file.\n");
    EXPECT_EQ(row.interval, 200);
    EXPECT_TRUE(fs::exists(row.dl_cfg_file)) << "what it said is recorded nowhere else";
}

TEST_F(ConfigTest, RowThatCannotWriteItsFileSaysSo) {
    row.cfg_update_handler = nullptr;
    EXPECT_EQ(vexastats_init_params(&row), -1);
    EXPECT_EQ(log(), "E vexastatsd: failed to update cfg file.\n");
    EXPECT_EQ(vexastats_init_params(nullptr), -EINVAL);
    write_text_file(row.cfg_file, local_text(DEFAULTS));
    EXPECT_EQ(vexastats_init_params(&row), 0);
}

TEST_F(ConfigTest, FifoInPlaceOfAFileDoesNotBlock) {
    for (const char* path : {row.cfg_file, row.dl_cfg_file}) ASSERT_EQ(mkfifo(path, 0600), 0);
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(log(),
              "E vexastatsd: failed to open cfg file. err:22\n"
              "E vexastatsd: failed to open dloaded cfg file. err:22\n");
}

// A collector's own format: the handler sees each file, or null for one that cannot be opened.
void seen_handler(FILE* stream, collector_info*) {
    char line[64] = "";
    ConfigTest::g_seen.emplace_back(!stream                            ? "null"
                                    : fgets(line, sizeof line, stream) ? line
                                                                       : "empty");
}

TEST_F(ConfigTest, OwnHandlerSeesBothFilesAndTheDownloadIsConsumed) {
    row.cfg_read_handler = seen_handler;
    write_text_file(row.cfg_file, "mine");
    write_text_file(row.dl_cfg_file, "theirs");
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(g_seen, (std::vector<std::string>{"mine", "theirs"}));
    EXPECT_EQ(list_dir(DOWN), std::vector<std::string>{});
    EXPECT_EQ(local(), local_text(DEFAULTS));
}

// What the agent does between the reading of a download and its removal, and what is there then.
void (*g_agent)() = nullptr;
int update_while_agent_delivers(void*) {
    if (g_agent) g_agent();
    return 0;
}
bool take_any_line(void*, const char* line, bool) {
    ConfigTest::g_seen.emplace_back(line);
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
             write_text_file(DOWNLOADED + ".arriving", "second\n");
             fs::rename(DOWNLOADED + ".arriving", DOWNLOADED);
         },
         {"second\n"}},
        {"the same one is written again",
         [] { write_text_file(DOWNLOADED, "longer than it was\n"); },
         {"longer than it was\n"}},
        {"it is taken back", [] { fs::remove(DOWNLOADED); }, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        const config_files files{.downloaded = row.dl_cfg_file,
                                 .client_id = 7,
                                 .read_line = take_any_line,
                                 .update_local = update_while_agent_delivers};
        write_text_file(DOWNLOADED, "first\n");
        g_agent = c.agent;
        EXPECT_EQ(vexastats_load_config(files), 0);
        g_agent = nullptr;
        g_seen.clear();
        EXPECT_EQ(vexastats_load_config(files), 0);
        EXPECT_EQ(g_seen, c.next);
        EXPECT_EQ(list_dir(DOWN), std::vector<std::string>{});
    }
}

TEST_F(ConfigTest, DownloadThatAKillLeftAsideIsTakenUnlessANewerOneIsThere) {
    const std::string aside = DOWNLOADED + ".done";
    const config_files files{.downloaded = row.dl_cfg_file,
                             .read_line = take_any_line,
                             .update_local = update_while_agent_delivers};
    for (const bool newer : {false, true}) {
        SCOPED_TRACE(newer);
        g_seen.clear();
        write_text_file(aside, "aside\n");
        if (newer) write_text_file(DOWNLOADED, "newer\n");
        EXPECT_EQ(vexastats_load_config(files), 0);
        EXPECT_EQ(g_seen, std::vector<std::string>{newer ? "newer\n" : "aside\n"});
        EXPECT_EQ(list_dir(DOWN), std::vector<std::string>{});
    }
}

}  // namespace
