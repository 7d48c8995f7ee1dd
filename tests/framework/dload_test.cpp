// Requests to the download agent and the sweep of its directory, in a directory that others write
// to.
#include "framework/config/dload.h"

#include <gtest/gtest.h>

#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

constexpr char OURS[] = "/data/vendor/ours";

struct Dload : testing::Test, record_phone {
    void SetUp() override {
        fs::remove_all(OURS);
        put_files({{OURS + std::string("/file"), "kept"}, {OURS + std::string("/empty/")}});
    }
    std::string down(const std::string& name) const { return DOWN + ("/" + name); }
};

TEST_F(Dload, RequestReplacesWhatLiesUnderItsNamesAndWritesThroughNoLink) {
    const dload_req req{.client_id = 7,
                        .version = "1.1",
                        .key = "x.cfg",
                        .request_type = 1,
                        .request_timer = 2,
                        .conn_type = 3,
                        .conn_timer = 4};
    const std::string name = "7-1.1-x.cfg.req";
    fs::remove(DOWN);
    EXPECT_EQ(vexastats_dload_req(&req), -EINVAL);
    EXPECT_EQ(log(),
              "E vexastatsd: failed to create /data/vendor/vexa/down/7/7-1.1-x.cfg.req. err:2\n");
    fs::create_directories(DOWN);
    for (const std::string& linked : {name, "." + name}) {
        fs::create_symlink(OURS + std::string("/file"), down(linked));
        EXPECT_EQ(vexastats_dload_req(&req), 0);
        EXPECT_EQ(file_text(OURS + std::string("/file")), "kept") << linked;
        EXPECT_EQ(list_dir(DOWN), std::vector{name});
        EXPECT_EQ(file_text(down(name)),
                  "clientID=7\nversion=1.1\nkey=x.cfg\nrequestType=1\nrequestTimer=2\n"
                  "connType=3\nconnTimer=4\n");
        EXPECT_FALSE(fs::is_symlink(down(name)));
        fs::remove(down(name));
    }
    EXPECT_EQ(log(), "");
}

TEST_F(Dload, SweepEmptiesTheDirectoryAndNotTheTargetOfALink) {
    fs::remove(DOWN);
    fs::create_directory_symlink(OURS, DOWN);
    vexastats_dl_cleanup(&row);
    EXPECT_EQ(list_dir(OURS), (std::vector<std::string>{"empty", "file"}));
    fs::remove(DOWN);
    (void)log();

    put_files({{down("file"), "x"}, {down("full/file"), "x"}});
    fs::create_directory_symlink(OURS, down("link"));
    vexastats_dl_cleanup(&row);
    EXPECT_EQ(list_dir(DOWN), std::vector<std::string>{"full"});
    EXPECT_EQ(list_dir(OURS), (std::vector<std::string>{"empty", "file"}));
    std::string lines = log();
    EXPECT_NE(
        lines.find("I vexastatsd: vexastats_dl_cleanup: removed /data/vendor/vexa/down/7/file\n"),
        lines.npos)
        << lines;
}

TEST_F(Dload, DirectoryThatIsThereIsEnabled) {
    EXPECT_TRUE(vexastats_is_dl_enabled(&row));
    EXPECT_EQ(log(), "I vexastatsd: enabled /data/vendor/vexa/down/7\n");
    fs::remove(DOWN);
    EXPECT_FALSE(vexastats_is_dl_enabled(&row));
    EXPECT_FALSE(vexastats_is_dl_enabled(nullptr));
    vexastats_dl_cleanup(&row);
    vexastats_dl_cleanup(nullptr);
    EXPECT_EQ(log(),
              "I vexastatsd: disabled /data/vendor/vexa/down/7 \n"
              "E vexastatsd: vexastats_is_dl_enabled:invalid param\n"
              "E vexastatsd: vexastats_dl_cleanup: not exist\n"
              "E vexastatsd: vexastats_dl_cleanup:invalid param\n");
}

}  // namespace
