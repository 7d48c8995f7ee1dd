// The diagnostic collector's thread against the real framework and a scripted library.
#include "collectors/diag/diag_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "collectors/diag/diag_buffers.h"
#include "collectors/diag/diag_campaign.h"
#include "collectors/diag/diag_notify.h"
#include "collectors/diag/diag_session.h"
#include "framework/config.h"
#include "framework/optout.h"
#include "platform/diag.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/4";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/4";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/4";
constexpr char LOCAL[] = "/data/vendor/vexastats/4/.diagstats.cfg";
constexpr char DOWNLOADED[] = "/data/vendor/vexa/down/4/diagstats.cfg";
constexpr int64_t NOW_S = PLATFORM_TEST_REAL_MS / 1000;

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
        diag_campaign_reset();
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
    // Starts a campaign of 600 seconds and waits until its packets can come.
    void start_campaign() {
        write_text_file(DOWNLOADED, config(7, 600));
        start();
        wait_log("Starting Diag Campaign 7 : Stop Time " + std::to_string(NOW_S + 600) +
                 ", CurrTime " + std::to_string(NOW_S));
    }
    static std::vector<std::string> payloads() {
        std::vector<std::string> found;
        for (const std::string& name : list_dir(UP_DIR)) {
            found.push_back(gunzip(file_text(UP_DIR + ("/" + name)).substr(53)));
        }
        return found;
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

TEST_F(DiagCollector, CampaignRunsFromItsFileToTheUploadAndReleasesTheLibrary) {
    start_campaign();
    EXPECT_EQ(file_text(LOCAL),
              "#diag_collector config file. Version: 1.2\n"
              "clientid=4;size=1000000;campaign_id=7;campaign_duration_secs=600;num_diag_masks=2;"
              "diag_mask=0xb0c0;diag_mask=0x1b0c1;\nActive Campaign=7;Stop Time=" +
                  std::to_string(NOW_S + 600) + ";");
    // 45248 and 45249: of each code the low 16 bits.
    EXPECT_THAT(platform_test_diag_calls(),
                ElementsAre("init", "register 2 0 18", "config 5 1 45248 45249", "stream 5"));
    for (char c : {'a', 'b', 'c', 'd'}) {
        ASSERT_TRUE(platform_test_diag_packet(std::string(70000, c)));
    }
    ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
    platform_test_set_real_ms((NOW_S + 600) * 1000);
    wait_log("Stopping Diag Campaign 7 : Stop Time " + std::to_string(NOW_S + 600));
    ASSERT_TRUE(wait_for_change({UP_DIR}, [] { return !list_dir(UP_DIR).empty(); }));
    stop();
    // "c" did not fit any more, "d" is left in the other buffer.
    EXPECT_THAT(payloads(), ElementsAre(std::string(70000, 'a') + std::string(70000, 'b')));
    EXPECT_THAT(platform_test_diag_calls(),
                ElementsAre("config 5 0 45248 45249", "release 5", "deinit"));
    EXPECT_THAT(log_text(), HasSubstr("Stop Processing DIAG Packets: Curr Time " +
                                      std::to_string(NOW_S + 600) + " Thread Stat: FALSE"));
    EXPECT_FALSE(platform_test_diag_packet("late"));
}

TEST_F(DiagCollector, StopInACampaignHandsTheRecordOverAndKeepsTheCampaign) {
    start_campaign();
    // The library's thread waits for room when the stop comes, half of the times.
    for (int round = 0; round < 2; ++round) {
        std::thread library([&] {
            for (int i = 0; i < 6; ++i) platform_test_diag_packet(std::string(140000, 'a'));
        });
        if (round == 0) library.join();
        diag_dci_exit(SIGTERM);
        if (round == 1) library.join();
        thread.join();
        EXPECT_EQ(diag_last_signal(), SIGTERM);
        EXPECT_EQ(list_dir(UP_DIR).size(), 1u);
        EXPECT_THAT(file_text(LOCAL), HasSubstr("Active Campaign=7;Stop Time=1700000600;"));
        fs::remove_all(UP_DIR);
        fs::create_directories(UP_DIR);
        row.stop.raised = 0;
        eventfd_t ignored = 0;
        eventfd_read(row.stop.fd, &ignored);
        platform_test_clear_log();
        start();
        wait_log("Starting Diag Campaign 7 : Stop Time " + std::to_string(NOW_S + 600) +
                 ", CurrTime " + std::to_string(NOW_S));
    }
}

TEST_F(DiagCollector, EveryWaitEndsOnTheExitHookAlone) {
    const struct {
        const char* log;
        void (*prepare)();
    } cases[] = {
        {"DIAGSTATS: Waiting on /data/vendor/vexa/down/4/diagstats.cfg", [] {}},
        {"diag_monitor_set_cfg_dload_req: dload request failed\n",
         [] { fs::create_directories(DOWN_DIR + std::string("/4-1.0-diagstats.cfg.req")); }},
        {"failed to open record file for diag collector\n",
         [] {
             fs::remove_all(RECORD_DIR);
             write_text_file(RECORD_DIR, "");
         }},
        {"wait until /data/vendor/vexa/down/4 is ready\n", [] { fs::remove_all(DOWN_DIR); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.log);
        c.prepare();
        start();
        wait_log(c.log);
        diag_dci_exit(SIGHUP);
        wait_log("DIAG monitor exit\n");
        EXPECT_TRUE(payloads().empty()) << "there was no campaign";
        restart();
    }
}

TEST_F(DiagCollector, FailureOfTheLibraryIsLoggedAndEverythingGivenBack) {
    const struct {
        const char* function;
        int result;
        const char* log;
        const char* last_call;
    } cases[] = {
        {"init", 0, " Diag_LSM_Init() Failed\n", "deinit"},
        {"register", 1002, " Couldn't register DCI Client ID -1, Err 1002\n", "deinit"},
        {"config", 1003, "Client 5 #Masks 2 Mask: 0xb0c0 , 0xb0c1 , ", "deinit"},
        {"stream", 1004, " Unable to initialize stream, err: 1004\n", "deinit"},
        {"release", 1005, " Error releasing DCI connection, 1005\n", "deinit"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.function);
        platform_test_script_diag(c.function, c.result);
        if (std::string(c.function) == "release") {
            start_campaign();
            diag_dci_exit(SIGTERM);
        } else {
            write_text_file(DOWNLOADED, config(7, 600));
            start();
        }
        wait_log(c.log);
        ASSERT_TRUE(wait_for_change({UP_DIR}, [] { return list_dir(UP_DIR).size() == 1; }));
        stop();
        EXPECT_EQ(platform_test_diag_calls().back(), c.last_call);
        EXPECT_FALSE(g_diag_campaign.masks);
        // The list is gone, its count has stayed.
        EXPECT_EQ(diag_cfg_update_handler(&row), 0);
        EXPECT_THAT(file_text(LOCAL), HasSubstr("num_diag_masks=2;\nActive Campaign=7;"));
        EXPECT_EQ(diag_monitor_diag_init(), 0);
        EXPECT_THAT(platform_test_diag_calls(), ::testing::Contains("config 5 1"));
        diag_monitor_diag_deinit();
        restart();
    }
}

TEST_F(DiagCollector, RecordThatCannotBeWrittenEndsTheThread) {
    write_text_file(DOWNLOADED, config(7, 600));
    start();
    wait_log("Starting Diag Campaign 7 : Stop Time " + std::to_string(NOW_S + 600) + ", CurrTime " +
             std::to_string(NOW_S));
    fs::remove_all(UP_DIR);  // a hand-over fails
    for (int i = 0; i < 40 && platform_test_diag_packet(std::string(140000, char(rand()))); ++i) {
    }
    stop();
    EXPECT_THAT(log_text(), HasSubstr("Thread Stat: TRUE"));
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
        {0x30006, 0x2, 1001,
         "30006\ndiag: DIAG_STATUS_OPEN on DIAG_CON_MPSS\ndiag: Modem supports DCI\n"},
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
    platform_test_clear_log();
    notify_handler(18, nullptr, nullptr);
    diag_notify_log();
    EXPECT_THAT(log_text(), HasSubstr("signal 18 received from kernel, but no info value\n"));
}

TEST_F(DiagCollector, NotificationInACampaignIsLoggedAtOnce) {
    start_campaign();
    ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
    ASSERT_EQ(kill(getpid(), SIGCONT), 0);
    wait_log("diag: No current dci support\n");
}

TEST_F(DiagCollector, FileIsTakenWithTheMessagesOfThisCollector) {
    write_text_file(DOWNLOADED, config(7, 600) + "Active Campaign=-1;Stop Time=0;");
    g_diag_campaign.id = 5;
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(log_text(),
              "Ret 18 Client Id 4 Size 1000000 Campaign ID 7 Duration 600 Seconds "
              "NumDiagMasks 2\nDiag Mask[0]=0xb0c0\nDiag Mask[1]=0x1b0c1\n");
    EXPECT_EQ(g_diag_campaign.id, 7);
    // The running campaign's file is ignored without a word, size and codes included.
    platform_test_clear_log();
    write_text_file(DOWNLOADED,
                    "clientid=4;size=5;campaign_id=7;campaign_duration_secs=1;num_diag_masks=0;\n");
    EXPECT_EQ(vexastats_init_params(&row), 0);
    EXPECT_EQ(log_text(), "");
    EXPECT_EQ(row.size, 1000000);
}

}  // namespace
