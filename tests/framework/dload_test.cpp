// Requests to the download agent and the sweep of its directory, in a directory that others write
// to.
#include "framework/config/dload.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/files.h"

namespace fs = std::filesystem;

namespace {

const fs::path DOWN_DIR = "/data/vendor/vexa/down/51";
const fs::path OURS = "/data/vendor/ours";
constexpr char CONTENT[] =
    "clientID=51\nversion=1.1\nkey=x.cfg\nrequestType=1\nrequestTimer=2\nconnType=3\nconnTimer=4\n";

class Dload : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const fs::path& dir : {DOWN_DIR, OURS}) fs::remove_all(dir);
        fs::create_directories(DOWN_DIR.parent_path());
        put_files({{OURS / "file", "kept"}, {(OURS / "empty").string() + "/"}});
    }
    void TearDown() override { fs::remove_all(DOWN_DIR); }
};

TEST_F(Dload, RequestReplacesWhatLiesUnderItsNamesAndWritesThroughNoLink) {
    const dload_req req{.client_id = 51,
                        .version = "1.1",
                        .key = "x.cfg",
                        .request_type = 1,
                        .request_timer = 2,
                        .conn_type = 3,
                        .conn_timer = 4};
    const std::string name = "51-1.1-x.cfg.req";
    EXPECT_EQ(vexastats_dload_req(&req), -EINVAL) << "no directory";
    fs::create_directories(DOWN_DIR);
    for (const std::string& linked : {name, "." + name}) {
        fs::create_symlink(OURS / "file", DOWN_DIR / linked);
        EXPECT_EQ(vexastats_dload_req(&req), 0);
        EXPECT_EQ(file_text(OURS / "file"), "kept") << linked;
        EXPECT_EQ(list_dir(DOWN_DIR), std::vector{name});
        EXPECT_EQ(file_text(DOWN_DIR / name), CONTENT);
        EXPECT_FALSE(fs::is_symlink(DOWN_DIR / name));
        fs::remove(DOWN_DIR / name);
    }
}

TEST_F(Dload, SweepEmptiesTheDirectoryAndNotTheTargetOfALink) {
    const collector_info row{.down_dir = DOWN_DIR.c_str()};
    fs::create_directory_symlink(OURS, DOWN_DIR);
    vexastats_dl_cleanup(&row);
    EXPECT_EQ(list_dir(OURS), (std::vector<std::string>{"empty", "file"}));

    fs::remove(DOWN_DIR);
    put_files({{DOWN_DIR / "file", "x"},
               {(DOWN_DIR / "empty").string() + "/"},
               {DOWN_DIR / "full/file", "x"}});
    fs::create_directory_symlink(OURS, DOWN_DIR / "link");
    vexastats_dl_cleanup(&row);
    EXPECT_EQ(list_dir(DOWN_DIR), std::vector<std::string>{"full"});
    EXPECT_EQ(list_dir(OURS), (std::vector<std::string>{"empty", "file"}));
}

}  // namespace
