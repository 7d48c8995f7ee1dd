// The phone that a test binary enters, and its tree.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "phone/phone_tree.h"
#include "support/files.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(PhoneEntry, ThePhonesPathsHideTheMachines) {
    EXPECT_EQ(read_file("/sys/devices/system/cpu/possible"), "0-7\n");
    EXPECT_THAT(list_dir("/data"), ElementsAre("vendor"));
    EXPECT_THAT(list_dir("/data/vendor/vexa"), ElementsAre("down", "up"));
    EXPECT_EQ(read_file("/dev/properties/ro.build.type"), "user");
    EXPECT_THAT(list_dir("/dev/log"), IsEmpty());
    EXPECT_TRUE(fs::is_fifo("/dev/ramdump_microdump_modem"));
}

TEST(PhoneEntry, TheProcessStillFindsItselfAndItsDevices) {
    EXPECT_THAT(read_file("/proc/self/stat").value_or(""), HasSubstr("(tools_test)"));
    EXPECT_TRUE(fs::exists("/proc/self/maps"));
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
    EXPECT_TRUE(std::ofstream("/dev/null") << "x" << std::flush);
    char random = 0;
    EXPECT_TRUE(std::ifstream("/dev/urandom").get(random));
    std::thread([] {}).join();
}

// A neighbour puts a link where the new value is written before it takes the old one's place.
TEST(PhoneTree, PropertyIsNotWrittenThroughALink) {
    const std::string link = "/dev/properties/.new." + std::to_string(getpid());
    fs::create_symlink("/data/elsewhere", link);
    EXPECT_THROW(phone_set_property("", "name", "value"), std::system_error);
    EXPECT_FALSE(fs::exists("/data/elsewhere"));
    fs::remove(link);
    phone_set_property("", "name", "value");
    EXPECT_EQ(read_file("/dev/properties/name"), "value");
}

TEST(PhoneEntry, PermissionsBindRootAsWell) {
    put_files({{"/data/closed/file", "x"}});
    ASSERT_EQ(chmod("/data/closed", 0), 0);
    EXPECT_EQ(open("/data/closed/file", O_RDONLY | O_CLOEXEC), -1);
    EXPECT_EQ(errno, EACCES);
    const int status = system("cat /data/closed/file 2>/dev/null");
    EXPECT_NE(status, 0) << "a started program must not have it back";
    ASSERT_EQ(chmod("/data/closed", 0700), 0);
    EXPECT_EQ(read_file("/data/closed/file"), "x");
}

}  // namespace
