// The modem statistics collector in the whole daemon: from a campaign to uploads, with a modem that
// behaves and one that does not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>

#include "campaign_text.h"
#include "mps_record.h"
#include "phone_control.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char DATA_DIR[] = "/mnt/vendor/persist/hlos_rfs/shared/vexa";
constexpr char CAMPAIGN[] = R"(entry {
  campaignId: 77 moduleId: 6 expiry { ExpType: 2 ExpValue: 4102444800 }
  enablementAndLogic { logic { mps {
    config { bsiBufferFetchIntSec: 600 lllDelaySecs: 30 }
    specs { collectionSpec: "collect" staticSpec: "static" lllSpec: "lll" }
  } } } })";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

class MpsScenario : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        for (const std::string& name : list_dir(DATA_DIR)) fs::remove(DATA_DIR + ("/" + name));
        opt_in(6);
        fs::create_directories(std::string(DOWN_DIR) + "/6");
        deliver(101, "cdf.dat", campaign_file_bytes(campaign_from_text(CAMPAIGN)));
    }
    void start_daemon() {
        fs::remove("/dev/log/main");
        daemon.emplace();
        ASSERT_TRUE(eventually_logged("campaign_mgr_main:Going into poll"));
    }
    static bool eventually_logged(const std::string& text, int times = 1) {
        return eventually([&] { return count(phone_log(), text) >= times; });
    }
    bool modem_eventually_says(const std::string& text, int times = 1) {
        return eventually([&] { return count(modem->output(), text) >= times; });
    }
    static int count(const std::string& text, const std::string& part) {
        int times = 0;
        for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++times;
        return times;
    }
    // The next upload that holds data.
    std::optional<mps_record> next_metric() {
        (void)eventually(
            [&] {
                for (const taken_upload& upload : take_uploads(6))
                    if (!upload.file.payload.empty())
                        taken.push_back(mps_record_decode(upload.file.payload));
                return !taken.empty();
            },
            milliseconds(60000));
        if (taken.empty()) return {};
        const mps_record first = taken.front();
        taken.erase(taken.begin());
        return first;
    }

    std::optional<modem_thread> modem{std::in_place};
    std::optional<daemon_process> daemon;
    std::vector<mps_record> taken;
};

TEST_F(MpsScenario, CampaignLeadsToUploadsThroughStopFlushAndRestart) {
    start_daemon();
    ASSERT_TRUE(eventually_logged("mps_main: MPS_EVENT_KBR_READY"));
    phone_tell_subscription("/", 1, 262, 7);
    const std::string started = "collection started: static 6 collection 7 context 0 lll 3";
    ASSERT_TRUE(modem_eventually_says(started)) << phone_log() << modem->output();
    EXPECT_TRUE(eventually_logged("Starting fetch timer for  600 secs"));
    modem->command("vexa buffer-full 1");
    const std::optional<mps_record> first = next_metric();
    ASSERT_TRUE(first);
    ASSERT_EQ(first->metrics.size(), 1u);
    const mps_metric& metric = first->metrics[0];
    EXPECT_EQ(first->campaign_id, 77u);
    EXPECT_EQ(first->client_id, 6u);
    EXPECT_EQ(first->major_version, 1u);
    EXPECT_EQ(metric.data_kind, 0u);
    EXPECT_EQ(metric.data.substr(0, 15), "hda_data_1.bin\n");
    EXPECT_EQ(metric.data.size(), 4096u);
    EXPECT_EQ(metric.start.collection_state, 2u);
    EXPECT_LE(metric.start.realtime_ms, metric.end.realtime_ms);
    ASSERT_TRUE(modem_eventually_says("LLL stop"));
    EXPECT_TRUE(eventually_logged("Starting ll delay timer for  30 secs"));

    phone_tell_roaming("/", true);
    ASSERT_TRUE(modem_eventually_says("stop and flush: field 16 1"));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(next_metric()->campaign_id, 77u);
    phone_tell_roaming("/", false);
    ASSERT_TRUE(modem_eventually_says(started, 2)) << phone_log();
    EXPECT_TRUE(daemon->stop());

    start_daemon();
    ASSERT_TRUE(eventually_logged("mps_main: MPS_EVENT_KBR_READY"));
    phone_tell_subscription("/", 1, 262, 7);
    ASSERT_TRUE(modem_eventually_says(started, 3)) << phone_log();
    EXPECT_TRUE(daemon->stop());
    EXPECT_EQ(list_dir(DATA_DIR).size(), 0u);
}

// A size that the kernel gives in kB, of the daemon.
long status_kb(pid_t pid, const std::string& field) {
    const std::string status = file_text("/.host/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(field);
    return at == status.npos ? 0 : std::stol(status.substr(at + field.size() + 1));
}

TEST_F(MpsScenario, MemoryOfLargeFilesComesBack) {
    start_daemon();
    ASSERT_TRUE(eventually_logged("mps_main: MPS_EVENT_KBR_READY"));
    modem->command("vexa auto off");
    const long before_kb = status_kb(daemon->pid(), "VmRSS:");
    const std::vector<size_t> sizes_mb =
        SANITIZED ? std::vector<size_t>{2} : std::vector<size_t>{50, 20, 20};
    for (const size_t mb : sizes_mb) {
        const size_t size = mb << 20;
        modem->command("vexa write data " + std::to_string(size));
        modem->command("vexa send-complete");
        const std::optional<mps_record> record = next_metric();
        ASSERT_TRUE(record) << phone_log();
        EXPECT_EQ(record->metrics[0].data.size(), size);
    }
    long after_kb = 0;
    const bool came_back = eventually([&] {
        after_kb = status_kb(daemon->pid(), "VmRSS:");
        return SANITIZED || after_kb < before_kb + 2000;  // a sanitizer keeps what is freed
    });
    printf("RSS %ld kB before, %ld kB after, %ld kB at most\n", before_kb, after_kb,
           status_kb(daemon->pid(), "VmHWM:"));
    EXPECT_TRUE(came_back);
    EXPECT_TRUE(daemon->stop());
}

TEST_F(MpsScenario, ModemThatIsAbsentGoesOrIsSilentHoldsNothingUpForLong) {
    modem.reset();
    start_daemon();
    ASSERT_TRUE(eventually_logged("kbr_handler: failed to init kbr. err:-5"));
    phone_tell_subscription("/", 1, 262, 7);
    ASSERT_TRUE(eventually_logged("mps_kbr_stop_flush_bsi: Failed to send STOPFlush err = -5"));
    EXPECT_TRUE(eventually_logged("mps_main: Wait on signal"));
    EXPECT_THAT(phone_log(), Not(HasSubstr("CL data not injected")));
    EXPECT_TRUE(daemon->stop(milliseconds(300)));

    modem.emplace();
    start_daemon();
    phone_tell_subscription("/", 1, 262, 7);
    ASSERT_TRUE(modem_eventually_says("collection started"));
    modem.reset();
    phone_tell_roaming("/", true);
    ASSERT_TRUE(eventually_logged("mps_kbr_stop_flush_bsi: Failed to send STOPFlush err = -5"));
    EXPECT_TRUE(daemon->stop(milliseconds(300)));

    modem.emplace();
    modem->command("vexa silent");
    phone_set_clock("speed=20");
    start_daemon();
    ASSERT_TRUE(modem_eventually_says("vexa: connected"));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(daemon->stop());
    const std::chrono::duration<double, std::milli> stopped =
        std::chrono::steady_clock::now() - begin;
    printf("stopped in %.0f ms, where the call takes at most 500\n", stopped.count());
}

}  // namespace
