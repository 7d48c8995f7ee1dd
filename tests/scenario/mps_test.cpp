// What large files cost the modem statistics collector. All else is told in
// tests/transcripts/mps_*.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "mps_record.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace {

constexpr char DATA_FILE[] = "/mnt/vendor/persist/hlos_rfs/shared/vexa/hda_data_1.bin";

// The largest file that is taken, of bytes that do not compress, needs memory once and not for
// long.
TEST(MpsScenario, MemoryForLargeFilesIsBoundedAndComesBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps what is freed";
#endif
    phone_reset();
    std::filesystem::create_directories(std::string(DOWN_DIR) + "/6");
    opt_in(6);
    modem_thread modem;
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("mps_main: MPS_EVENT_KBR_READY"));
    const auto memory_kb = [&](const std::string& key) {
        const std::string status =
            file_text("/.host/proc/" + std::to_string(daemon.pid()) + "/status");
        return std::stol(status.substr(status.find(key) + key.size()));
    };
    const long before_kb = memory_kb("VmRSS:");
    std::mt19937 random;
    for (const size_t mb : {16, 10, 10}) {
        std::string bytes(mb << 20, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        write_text_file(DATA_FILE, bytes);
        modem.command("vexa send-complete");
        EXPECT_TRUE(eventually([&] {
            const auto uploads = take_uploads(6);
            return !uploads.empty() &&
                   mps_record_decode(uploads.back().file.payload).metrics.size() == 1;
        }));
    }
    EXPECT_TRUE(eventually([&] { return memory_kb("VmRSS:") < before_kb + 2000; }));
    EXPECT_LT(memory_kb("VmHWM:"), before_kb + 20000) << "one copy of the largest file";
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
