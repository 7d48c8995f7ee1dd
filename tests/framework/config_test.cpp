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

    static inline std::vector<std::string> g_seen;  // by a collector's own handler
};

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
