// What a neighbour may have put under a name instead of a file.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "base/file_io.h"
#include "base/open_file.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char DIR[] = "/data/vendor/neighbour";
constexpr off_t LIMIT = 8;

std::string in_dir(const std::string& name) {
    return std::string(DIR) + "/" + name;
}

class OpenFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(DIR);
        fs::create_directories(DIR);
        put_files({{in_dir("file"), "12345678"}});
        put_files({{in_dir("long"), "123456789"}});
        put_files({{in_dir("twice"), "1"}});
        fs::create_hard_link(in_dir("twice"), in_dir("second_name"));
        fs::create_symlink(in_dir("file"), in_dir("link"));
        fs::create_directory_symlink(DIR, "/data/vendor/linked");
        fs::create_directory(in_dir("directory"));
        ASSERT_EQ(mkfifo(in_dir("fifo").c_str(), 0600), 0);
    }
    void TearDown() override { fs::remove("/data/vendor/linked"); }
};

int error_of(const unique_fd& fd) {
    return fd ? 0 : errno;
}

TEST_F(OpenFileTest, OnlyARegularFileWithinItsBoundIsOpened) {
    const struct {
        const char* name;
        int regular;   // errno of open_regular, 0: opened
        int outsider;  // the same of open_outsider
    } rows[] = {
        {"file", 0, 0},           {"long", EFBIG, EFBIG},        {"twice", 0, EMLINK},
        {"link", ELOOP, ELOOP},   {"directory", EINVAL, EINVAL}, {"fifo", EINVAL, EINVAL},
        {"none", ENOENT, ENOENT},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(error_of(open_regular(in_dir(row.name).c_str(), LIMIT)), row.regular) << row.name;
        EXPECT_EQ(error_of(open_outsider(DIR, row.name, LIMIT)), row.outsider) << row.name;
    }
}

TEST_F(OpenFileTest, ALinkedDirectoryIsNotEntered) {
    EXPECT_EQ(error_of(open_outsider("/data/vendor/linked", "file", LIMIT)), ELOOP);
}

TEST_F(OpenFileTest, AFifoInPlaceOfATextGivesNothingAndDoesNotWait) {
    const unique_fd fd = open_text_at(-1, in_dir("fifo").c_str());
    char byte;
    EXPECT_LE(read_full(fd.get(), &byte, 1), 0);
}

}  // namespace
