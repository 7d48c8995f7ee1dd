// The walk over a listing of processes, and the texts that it meets there.
#include "collectors/cpu/readproc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char ROOT[] = "/data/proc";
constexpr uint32_t ALL_CLASSES = 0xF;

file_tree process(const std::string& pid, const std::string& cpuset, const std::string& cmdline,
                  unsigned uid = 0) {
    const std::string dir = ROOT + ("/" + pid + "/");
    return {{dir + "cpuset", cpuset},
            {dir + "cmdline", cmdline},
            {dir + "status", "Name:\tUid x\nState:\tS\nUid:\t" + std::to_string(uid) +
                                 "\t1\t1\t1\nUid:\t7\t7\t7\t7\n"},
            {dir + "stat", pid + " (comm" + pid + ") S 1 1 1 0 -1 4 5 6 7 8 10 20 30 40 20 0\n"}};
}

struct ReadProc : ::testing::Test {
    void SetUp() override {
        fs::remove_all(ROOT);
        fs::create_directories(ROOT);
    }

    void scan(uint32_t mask = ALL_CLASSES) {
        const unique_dir dir(opendir(ROOT));
        vexa_inc_proc_tbl_tick(&scanner.table);
        EXPECT_EQ(vexa_ps_readproc(&scanner, dir.get(), mask), 0);
    }

    // "name/class" of every process in the table.
    std::vector<std::string> found() {
        uint16_t count = 0;
        uint64_t size = 0;
        vexaps_store_ps_info(scanner.table, nullptr, nullptr, &count, &size, UINT64_MAX);
        std::vector<uint8_t> block(size);
        vexaps_store_ps_info(scanner.table, block.data(), nullptr, &count, &size, size);
        std::vector<std::string> names;
        const char* at = reinterpret_cast<const char*>(block.data());
        for (uint16_t i = 0; i < count; ++i) {
            const std::string name = at;
            names.push_back(name + "/" + std::to_string(at[name.size() + 3]));
            at += name.size() + 52;
        }
        return names;
    }

    proc_scanner scanner;
};

using names = std::vector<std::string>;

TEST_F(ReadProc, EveryClassAndWhereTheNameComesFrom) {
    const std::string long_name(300, 'n');
    put_files(process("10", "/foreground\n", std::string("org.example\0arg", 15), 10010));
    put_files(process("11", "/background\n", ""));
    put_files(process("12", "/system-background\n", long_name));
    put_files(process("13", "/top-app\n", std::string("\0x", 2)));
    put_files(process("14", "/other\n", "o"));
    put_files(process("15", "/\n", "p"));
    put_files({{std::string(ROOT) + "/16/stat", "16 (only stat) R 1"},
               {std::string(ROOT) + "/17/"},
               {std::string(ROOT) + "/uptime", "1"},
               {std::string(ROOT) + "/0/cmdline", "zero"}});
    scan(PROC_CLASSES_REPORTED);
    EXPECT_EQ(found(),
              (names{"org.example/0", "comm11/1", long_name.substr(0, 255) + "/1", "comm13/2"}));
    scan(ALL_CLASSES);
    EXPECT_EQ(found(), (names{"org.example/0", "comm11/1", long_name.substr(0, 255) + "/1",
                              "comm13/2", "o/3", "p/3", "only stat/3", "/3"}));
}

TEST_F(ReadProc, RootCpusetIsReadAgainOnceInThirtyTwoScansAndAlwaysFrom8192On) {
    put_files(process("4000", "/\n", "low"));
    put_files(process("8192", "/\n", "high"));
    scan();
    const uint64_t before = scanner.bitmap_hits;
    for (int i = 0; i < 32; ++i) scan();
    EXPECT_EQ(scanner.bitmap_hits - before, 31u);
}

TEST_F(ReadProc, MissingDirectoryEndsTheScanAndStillAgesTheBitmap) {
    put_files(process("4000", "/\n", "low"));
    scan();
    const uint64_t before = scanner.bitmap_hits;
    for (int i = 0; i < 32; ++i) EXPECT_EQ(vexa_ps_readproc(&scanner, nullptr, ALL_CLASSES), 0);
    scan();
    EXPECT_EQ(scanner.bitmap_hits, before);
}

TEST_F(ReadProc, KnownProcessKeepsItsNameWhenItTakesAnother) {
    put_files(process("10", "/top-app\n", "before"));
    scan();
    put_files(process("10", "/top-app\n", "after"));
    scan();
    EXPECT_EQ(found(), names{"before/2"});
}

TEST(ProcStat, NamesAndCutTextsOfEveryKind) {
    struct {
        std::string text;
        const char* name;
        char state;
        int32_t ppid;
        uint64_t user, child_system;
    } const cases[] = {
        {"7 (a b) S 2 3 4 5 -1 6 7 8 9 10 11 12 13 14 20\n", "a b", 'S', 2, 11, 14},
        {"7 ()) R 2 3 4 5 -1 6 7 8 9 10 11 12 13 14", ")", 'R', 2, 11, 14},
        {"7 ((x) R 1) D 2 3 4 5 -1 6 7 8 9 10 11 12 13 14 ", "(x) R 1", 'D', 2, 11, 14},
        {"7 () S -2 3 4 5 -1 6 7 8 9 10 18446744073709551616 12 13 -1 ", "", 'S', -2, UINT64_MAX,
         UINT64_MAX},
        {"7 (cut) S 2 3 4 5 -1 6 7 8 9 10 11 12 13", "cut", 'S', 2, 11, 0},
        {"7 (cut) S 2 3 4 5 -1 6 7 8 9 10", "cut", 'S', 2, 0, 0},
        {"7 (cut) S 2 x", "cut", 'S', 2, 0, 0},
        {"7 (cut) S", "cut", 'S', 0, 0, 0},
        {"7 (cut) ", "cut", '\0', 0, 0, 0},
        {"7 (cut)", "cut", '\0', 0, 0, 0},
        {"7 (cut", "", '\0', 0, 0, 0},
        {")(", "", '\0', 0, 0, 0},
        {"", "", '\0', 0, 0, 0},
    };
    for (const auto& c : cases) {
        vexa_proc_entry entry = {};
        parse_proc_stat(c.text, &entry);
        EXPECT_STREQ(entry.name, c.name) << c.text;
        EXPECT_EQ(entry.state, c.state) << c.text;
        EXPECT_EQ(entry.ppid, c.ppid) << c.text;
        EXPECT_EQ(entry.user_time, c.user) << c.text;
        EXPECT_EQ(entry.child_system_time, c.child_system) << c.text;
    }
    vexa_proc_entry named = {};
    named.name[0] = 'a';
    parse_proc_stat("7 (comm) S 2", &named);
    EXPECT_STREQ(named.name, "a") << "already named";
}

}  // namespace
