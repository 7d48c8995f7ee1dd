// What a neighbour may have put under a name instead of a file.
#include "base/open_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "base/file_io.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

const fs::path DIR = "/data/vendor/neighbour";
constexpr off_t LIMIT = 8;

int error_of(const unique_fd& fd) {
    return fd ? 0 : errno;
}

TEST(OpenFile, OnlyARegularFileWithinItsBoundIsOpened) {
    put_files({{DIR / "file", "12345678"}, {DIR / "long", "123456789"}, {DIR / "twice", "1"}});
    fs::create_hard_link(DIR / "twice", DIR / "second_name");
    fs::create_symlink("file", DIR / "link");
    fs::create_directory(DIR / "directory");
    ASSERT_EQ(mkfifo((DIR / "fifo").c_str(), 0600), 0);
    const struct {
        const char* name;
        int regular;   // errno of open_regular and open_update, 0: opened
        int outsider;  // of open_outsider
        int fresh;     // of open_new
    } rows[] = {
        {"file", 0, 0, EEXIST},           {"long", EFBIG, EFBIG, EEXIST},
        {"twice", 0, EMLINK, EEXIST},     {"link", ELOOP, ELOOP, EEXIST},
        {"fifo", EINVAL, EINVAL, EEXIST}, {"none", ENOENT, ENOENT, 0},
    };
    for (const auto& [name, regular, outsider, fresh] : rows) {
        SCOPED_TRACE(name);
        const std::string path = DIR / name;
        EXPECT_EQ(error_of(open_regular(path.c_str(), LIMIT)), regular);
        EXPECT_EQ(error_of(open_update(path.c_str(), LIMIT)), regular);
        EXPECT_EQ(error_of(open_outsider(DIR.c_str(), name, LIMIT)), outsider);
        EXPECT_EQ(error_of(open_new(path.c_str(), 0600)), fresh);
    }
    EXPECT_EQ(error_of(open_regular((DIR / "directory").c_str(), LIMIT)), EINVAL);

    fs::create_directory_symlink(DIR, "/data/vendor/linked");
    EXPECT_EQ(error_of(open_outsider("/data/vendor/linked", "file", LIMIT)), ELOOP);

    EXPECT_EQ(error_of(open_emptied((DIR / "link").c_str(), 0600)), ELOOP);
    EXPECT_EQ(file_text(DIR / "file"), "12345678") << "nothing is emptied before it is known";
    EXPECT_EQ(error_of(open_emptied((DIR / "file").c_str(), 0600)), 0);
    EXPECT_EQ(file_text(DIR / "file"), "");

    const unique_fd fifo = open_text_at(-1, (DIR / "fifo").c_str());
    char byte;
    EXPECT_LE(read_full(fifo.get(), &byte, 1), 0) << "nothing, and at once";
}

}  // namespace
