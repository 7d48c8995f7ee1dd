// The walk over a listing of processes, and the texts that it meets there.
#include "collectors/cpu/readproc.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/files.h"

namespace {

constexpr char ROOT[] = "/data/proc/";
constexpr uint32_t ALL_CLASSES = 0xF;

struct ReadProc : testing::Test {
    ReadProc() { std::filesystem::remove_all(ROOT); }

    static void run(const std::string& pid, const std::string& cpuset, const std::string& cmdline,
                    const std::string& uid = "0") {
        const std::string dir = ROOT + pid + "/";
        put_files(
            {{dir + "cpuset", cpuset},
             {dir + "cmdline", cmdline},
             {dir + "status",
              "Name:\tUid x\nState:\tS\nUid:\t" + uid + "\t1\t1\t1\nUid:\t7\t7\t7\t7\n"},
             {dir + "stat", pid + " (comm" + pid + ") S 1 1 1 0 -1 4 5 6 7 8 10 20 30 40 20 0\n"}});
    }
    void scan(uint32_t mask = ALL_CLASSES) {
        const unique_dir dir(opendir(ROOT));
        vexa_inc_proc_tbl_tick(&scanner.table);
        EXPECT_EQ(vexa_ps_readproc(&scanner, dir.get(), mask), 0);
    }
    // "PID name/class uid" of every process in the table.
    std::string found() const {
        std::string text;
        for (size_t i = 0; i < scanner.table.count; ++i) {
            const vexa_proc_entry& e = *scanner.table.slots[i].entry;
            text += std::to_string(e.pid) + " " + e.name + "/" + std::to_string(e.cpuset) + " " +
                    std::to_string(e.uid) + "\n";
        }
        return text;
    }

    proc_scanner scanner;
};

TEST_F(ReadProc, EveryClassAndWhereTheNameComesFrom) {
    const std::string long_name(300, 'n');
    run("10", "/foreground\n", std::string("org.example\0arg", 15), "10010");
    run("11", "/background\n", "", "4294967295");
    run("12", "/system-background\n", long_name);
    run("13", "/top-app\n", std::string("\0x", 2));
    run("14", "/other\n", "o");
    run("15", "/\n", "p", "1000");
    put_files({{ROOT + std::string("16/stat"), "16 (only stat) R 1"},
               {ROOT + std::string("17/")},
               {ROOT + std::string("uptime"), "1"},
               {ROOT + std::string("0/cmdline"), "zero"}});
    scan(PROC_CLASSES_REPORTED);
    const std::string reported = "10 org.example/0 10010\n11 comm11/1 4294967295\n12 " +
                                 long_name.substr(0, 255) + "/1 0\n13 comm13/2 0\n";
    EXPECT_EQ(found(), reported);
    run("10", "/foreground\n", "another name", "5");
    scan();
    EXPECT_EQ(found(), reported + "14 o/3 0\n15 p/3 1000\n16 only stat/3 0\n17 /3 0\n");
}

TEST_F(ReadProc, RootCpusetIsReadAgainOnceInThirtyTwoScansAndAlwaysFrom8192On) {
    run("7", "/\n", "first");
    run("8191", "/\n", "last");
    run("8192", "/\n", "high");
    scan();
    EXPECT_EQ(scanner.entries, 5u);
    const uint64_t before = scanner.bitmap_hits;
    for (int i = 0; i < 32; ++i) scan();
    EXPECT_EQ(scanner.bitmap_hits - before, 2 * 31u);
    // What a missing directory leaves undone, the bitmap forgets all the same.
    const uint64_t hits = scanner.bitmap_hits;
    for (int i = 0; i < 32; ++i) EXPECT_EQ(vexa_ps_readproc(&scanner, nullptr, ALL_CLASSES), 0);
    scan();
    EXPECT_EQ(scanner.bitmap_hits, hits);
}

}  // namespace
