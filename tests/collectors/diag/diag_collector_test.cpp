// The diagnostic collector's thread against the real framework and a scripted library.
#include "collectors/diag/diag_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>

#include "collectors/diag/diag_campaign.h"
#include "collectors/diag/diag_notify.h"
#include "collectors/diag/diag_session.h"
#include "framework/row/optout.h"
#include "platform/diag.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/4";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/4";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/4";
constexpr char LOCAL[] = "/data/vendor/vexastats/4/.diagstats.cfg";
constexpr char DOWNLOADED[] = "/data/vendor/vexa/down/4/diagstats.cfg";

std::string config(int id, int duration_s, const std::string& third_line = "") {
    return "clientid=4;size=1000000;campaign_id=" + std::to_string(id) +
           ";campaign_duration_secs=" + std::to_string(duration_s) +
           ";num_diag_masks=2;diag_mask=0xb0c0;diag_mask=0x1b0c1;\n" + third_line;
}

class DiagCollector : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::remove_all(dir);
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::create_directories(dir);
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
        platform_test_set_clock(platform_test_clock::MANUAL);
    }
    void TearDown() override {
        stop();
        if (row.stop.fd >= 0) close(row.stop.fd);
    }

    void start() {
        thread = std::thread([this] { diag_monitor(&row); });
    }
    void stop() {
        row.running = 1;
        optout_context context{.table = &row, .count = 1};
        optout_stop_rows(&context);
        if (thread.joinable()) thread.join();
    }
    void restart() {  // as after a start of the daemon in an empty phone
        TearDown();
        row.stop.raised = 0;
        row.stop.fd = -1;
        platform_test_reset();
        SetUp();
    }
    static void wait_log(const std::string& text) {
        ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text << "\n"
                                                                       << log_text();
    }
    collector_info row{.name = "diag_collector",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .cfg_file = LOCAL,
                       .dl_cfg_file = DOWNLOADED,
                       .hdr = {.client_id = 4},
                       .cfg_read_handler = diag_cfg_handler,
                       .cfg_update_handler = diag_cfg_update_handler};
    std::thread thread;
};

TEST_F(DiagCollector, FailureOfTheLibraryIsLoggedAndEverythingGivenBack) {
    const struct {
        const char* function;
        int result;
        const char* log;
    } cases[] = {
        {"init", 0, " Diag_LSM_Init() Failed\n"},
        {"register", 1002, " Couldn't register DCI Client ID -1, Err 1002\n"},
        {"config", 1003, "Client 5 #Masks 2 Mask: 0xb0c0 , 0xb0c1 , "},
        {"stream", 1004, " Unable to initialize stream, err: 1004\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.function);
        platform_test_script_diag(c.function, c.result);
        write_text_file(DOWNLOADED, config(7, 600));
        start();
        wait_log(c.log);
        ASSERT_TRUE(wait_for_change({UP_DIR}, [] { return list_dir(UP_DIR).size() == 1; }));
        stop();
        EXPECT_EQ(platform_test_diag_calls().back(), "deinit");
        restart();
    }
}

// The list goes with the session, its count stays.
TEST_F(DiagCollector, CampaignWithoutItsListStillCountsItAndIsAskedForWithout) {
    timed_campaign campaign{.kind = &DIAG_CAMPAIGN, .row = &row};
    row.state = &campaign;
    write_text_file(DOWNLOADED, config(7, 600));
    diag_cfg_handler(unique_file(fopen(DOWNLOADED, "re")).get(), &row);
    ASSERT_TRUE(campaign.state.masks);
    diag_session session;
    for (const char* config_call : {"config 5 1 45248 45249", "config 5 1"}) {
        EXPECT_EQ(diag_monitor_diag_init(&session, campaign), 0);
        EXPECT_THAT(platform_test_diag_calls(), ::testing::Contains(config_call));
        diag_monitor_diag_deinit(&session, &campaign);
        EXPECT_FALSE(campaign.state.masks);
    }
    EXPECT_EQ(diag_cfg_update_handler(&row), 0);
    EXPECT_THAT(file_text(LOCAL), HasSubstr("num_diag_masks=2;\nActive Campaign=7;"));
}

TEST_F(DiagCollector, NotificationsAreDecodedInAHandlerThatOnlyNotesThem) {
    const struct {
        int value;
        uint16_t list;
        int result;
        const char* log;
    } cases[] = {
        {0x10002, 0xf, 1001,
         "10002\ndiag: DIAG_STATUS_OPEN on DIAG_CON_MPSS\ndiag: Modem supports DCI\n"
         "diag: ADSP supports DCI\ndiag: WCN supports DCI\ndiag: APPS supports DCI\n"},
        {0x20004, 0, 1001,
         "20004\ndiag: DIAG_STATUS_CLOSED on DIAG_CON_ADSP\ndiag: No current dci support\n"},
        {0x20008, 0x1, 1001,
         "20008\ndiag: DIAG_STATUS_CLOSED on unknown peripheral\ndiag: APPS supports DCI\n"},
        {0x2, 0, 1006,
         "2\ndiag: could not get support list, err: 1006\ndiag: No current dci support\n"},
    };
    diag_notify_install();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        platform_test_clear_log();
        platform_test_set_diag_support_list(c.list);
        platform_test_script_diag("support", c.result);
        sigval value = {};
        value.sival_int = c.value;
        ASSERT_EQ(sigqueue(getpid(), 18, value), 0);
        while (diag_last_signal() != 18) std::this_thread::yield();
        EXPECT_EQ(log_text(), "");
        diag_notify_log();
        EXPECT_EQ(log_text(), "diag: In notify_handler, signal 18 received from kernel, data is: " +
                                  std::string(c.log));
        diag_set_last_signal(0);
    }
}

TEST_F(DiagCollector, NotificationFromBetweenTwoCampaignsIsLoggedOnceTheLibraryIsUp) {
    diag_notify_install();
    notify_handler(18, nullptr, nullptr);
    write_text_file(DOWNLOADED, config(7, 600));
    start();
    wait_log("diag: No current dci support\n");
    stop();
    const std::vector<std::string> calls = platform_test_diag_calls();
    const auto at = [&](const std::string& function) {
        return std::find_if(calls.begin(), calls.end(),
                            [&](const std::string& call) { return call.starts_with(function); }) -
               calls.begin();
    };
    EXPECT_LT(at("init"), at("support"));
}

// Between two looks the campaign sees to its buffers, its time and its stop.
TEST_F(DiagCollector, OneLookLogsAFewNotificationsAndLosesNone) {
    constexpr size_t FLOOD = 1000;
    constexpr char LINE[] = "diag: No current dci support\n";
    diag_notify_install();
    for (size_t i = 0; i < FLOOD; ++i) notify_handler(18, nullptr, nullptr);
    diag_notify_log();
    EXPECT_GT(platform_test_log_count(LINE), 0u);
    EXPECT_LT(platform_test_log_count(LINE), 50u);
    pollfd more{.fd = diag_notify_fd(), .events = POLLIN, .revents = 0};
    while (poll(&more, 1, 0) == 1) diag_notify_log();
    EXPECT_EQ(platform_test_log_count(LINE), FLOOD);
}

TEST_F(DiagCollector, PacketsThatComeWithoutConsentReachNoFile) {
    for (const bool back_at_the_end : {true, false}) {
        SCOPED_TRACE(back_at_the_end);
        write_text_file(DOWNLOADED, config(7, 600));
        start();
        wait_log("Starting Diag Campaign 7 : Stop Time 1700000600, CurrTime 1700000000");
        ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
        const auto give = [](char fill) {
            // Two fit a buffer; the third hands it over and is dropped.
            for (int i = 0; i < 3; ++i) {
                ASSERT_TRUE(platform_test_diag_packet(std::string(70000, fill)));
            }
        };
        give('a');
        fs::remove_all(UP_DIR);
        row.enabled = 0;
        give('b');
        if (back_at_the_end) {
            fs::create_directories(UP_DIR);
            row.enabled = 1;
            give('c');
        }
        stop();
        if (back_at_the_end) {
            const std::vector<std::string> uploads = list_dir(UP_DIR);
            ASSERT_EQ(uploads.size(), 1u);
            EXPECT_TRUE(gunzip(file_text(UP_DIR + ("/" + uploads[0])).substr(53)) ==
                        std::string(140000, 'a') + std::string(140000, 'c'));
        } else {
            EXPECT_THAT(list_dir(UP_DIR), ::testing::IsEmpty());
            EXPECT_THAT(list_dir(RECORD_DIR), ::testing::ElementsAre(".diagstats.cfg"));
        }
        restart();
    }
}

// The upload cannot be made beside the record, as on a full disk: that ends the thread, and the
// next start hands over what the record holds.
TEST_F(DiagCollector, RollOverThatFailsLeavesTheRecordToTheNextStart) {
    write_text_file(DOWNLOADED,
                    "clientid=4;size=1000;campaign_id=7;campaign_duration_secs=600;"
                    "num_diag_masks=1;diag_mask=0xb0c0;\n");
    start();
    wait_log("Starting Diag Campaign 7 : Stop Time 1700000600, CurrTime 1700000000");
    const auto give = [](char fill) {
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(platform_test_diag_packet(std::string(70000, fill)));
        }
    };
    give('a');
    ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
    fs::permissions(RECORD_DIR, fs::perms::owner_read | fs::perms::owner_exec);
    give('b');
    wait_log("process_incoming_pkt: failed to write file. cnt:0\n");
    wait_log("DIAG monitor exit\n");
    thread.join();
    row.stop.raised = 0;
    fs::permissions(RECORD_DIR, fs::perms::owner_all);
    start();
    const auto uploaded = [] {
        std::string all;
        for (const std::string& name : list_dir(UP_DIR))
            all += gunzip(file_text(UP_DIR + ("/" + name)).substr(53));
        return all;
    };
    EXPECT_TRUE(wait_for_change({UP_DIR}, [&] { return uploaded() == std::string(140000, 'a'); }));
}

}  // namespace
