// Kills the daemon at random moments while records roll over: what stands in the dropbox is whole
// at every moment, no sequence number comes twice, and every next start works.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "scenario/daemon_process.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

struct seen_uploads {
    std::set<uint32_t> numbers;
    size_t torn = 0;  // the kill came in the middle of a write: the last sample is cut

    void take() {
        for (const taken_upload& upload : take_uploads(2)) {
            ASSERT_TRUE(numbers.insert(upload.file.header.seq).second)
                << "number " << upload.file.header.seq << " comes twice";
            try {
                (void)upload.cpu();
            } catch (const upload_error&) {
                torn++;
            }
        }
    }
};

TEST(KillStorm, DropboxIsWholeAndNumbersNeverRepeat) {
    phone_reset();
    fs::create_directories(std::string(DOWN_DIR) + "/2");
    opt_in(2);
    phone_set_clock("speed=100");
    std::mt19937 rnd(7);
    seen_uploads seen;
    const int kills = storm_rounds(20);
    for (int i = 0; i < kills; i++) {
        SCOPED_TRACE(testing::Message() << "kill " << i);
        if (i % 10 == 0) deliver_quick_cpu_config(1500);
        const size_t before = seen.numbers.size();
        daemon_process daemon;
        // The start works: it hands over what the last run left or something of its own.
        ASSERT_TRUE(eventually([&] {
            seen.take();
            return seen.numbers.size() > before || testing::Test::HasFatalFailure();
        })) << phone_log();
        usleep(rnd() % 100000);
        daemon.signal(SIGKILL);
        ASSERT_TRUE(daemon.wait(milliseconds(3000)));
        seen.take();
        if (HasFatalFailure()) return;
    }
    printf("%d kills: %zu whole upload files, the last sample cut in %zu\n", kills,
           seen.numbers.size(), seen.torn);
    EXPECT_LT(seen.torn, static_cast<size_t>(kills));
    // Nothing piles up beside the record: its file, the number, the configuration.
    for (const std::string& name : list_dir(std::string(STATS_DIR) + "/2")) {
        EXPECT_TRUE(name == "cpustats.tmp" || name == "cpustats.seq" || name == ".cpustats.cfg" ||
                    name == "cpustats.seq.new" || name == ".cpustats.cfg.new" ||
                    name.starts_with("cpustats.1"))
            << name;
    }
}

}  // namespace
