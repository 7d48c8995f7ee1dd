// The daemon on a disk that fills up: nothing torn in the dropbox, and it goes on when there is
// room.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char SMALL_DISK[] = "/data/vendor";

// Puts the phone's vendor data on a small file system of its own, and takes it off again.
class small_disk {
  public:
    explicit small_disk(const char* limit) {
        mounted_ = mount("small", SMALL_DISK, "tmpfs", MS_NOSUID | MS_NODEV, limit) == 0;
        fs::create_directories(UP_DIR);
        fs::create_directories(std::string(DOWN_DIR) + "/2");
    }
    ~small_disk() {
        if (mounted_) umount2(SMALL_DISK, MNT_DETACH);
    }
    small_disk(const small_disk&) = delete;
    small_disk& operator=(const small_disk&) = delete;

    bool mounted() const { return mounted_; }

  private:
    bool mounted_;
};

// Uses up what room there is; returns how to give it back.
void fill_bytes() {
    FILE* file = fopen("/data/vendor/filler", "w");
    char block[1024] = "";
    while (fwrite(block, 1, sizeof block, file) == sizeof block && fflush(file) == 0) continue;
    fclose(file);
}

void fill_inodes() {
    fs::create_directory("/data/vendor/fillers");
    for (int i = 0;; i++) {
        FILE* file = fopen(("/data/vendor/fillers/" + std::to_string(i)).c_str(), "w");
        if (!file) return;
        fclose(file);
    }
}

struct full_disk_case {
    const char* name;
    const char* limit;
    void (*fill)();
    const char* filler;
};

TEST(FullDisk, CollectorGoesOnWhenThereIsRoomAgain) {
    const full_disk_case cases[] = {
        {"bytes", "size=256k", fill_bytes, "/data/vendor/filler"},
        {"inodes", "nr_inodes=40", fill_inodes, "/data/vendor/fillers"},
    };
    for (const full_disk_case& c : cases) {
        SCOPED_TRACE(c.name);
        phone_reset();
        const small_disk disk(c.limit);
        ASSERT_TRUE(disk.mounted());
        deliver_quick_cpu_config(1500);
        opt_in(2);
        phone_set_clock("speed=100");
        daemon_process daemon;
        ASSERT_TRUE(eventually([] { return !take_uploads(2).empty(); })) << phone_log();
        for (int i = 0; i < 2; i++) {
            c.fill();
            ASSERT_TRUE(eventually([] {
                return phone_log().find("drbox\n") != std::string::npos ||
                       phone_log().find("failed to write file") != std::string::npos;
            })) << phone_log();
            EXPECT_NO_THROW(take_uploads(2));
            fs::remove_all(c.filler);
            fs::remove("/dev/log/main");
            EXPECT_TRUE(eventually([] { return !take_uploads(2).empty(); })) << phone_log();
        }
        EXPECT_TRUE(daemon.stop());
    }
}

}  // namespace
