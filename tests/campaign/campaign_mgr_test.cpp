// The campaign manager's thread where time cannot be driven: what races with it, what is large, and
// what it holds open. All else is told in tests/transcripts/campaign_*.
#include "campaign/campaign_mgr.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <thread>

#include "campaign/campaign_table.h"
#include "campaign/cdf_delivery.h"
#include "campaign/control_socket.h"
#include "platform_test.h"
#include "support/events.h"
#include "support/files.h"
#include "support/log.h"
#include "vexa-campaign/campaign_text.h"
#include "vexa-campaign/phone_control.h"

namespace fs = std::filesystem;

namespace {

constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/101";
constexpr char CDF[] = "/data/vendor/vexa/down/101/cdf.dat";
constexpr char DONE[] = "/data/vendor/vexastats/101/cdf.dat.done";
constexpr uint64_t LATER = PLATFORM_TEST_REAL_MS / 1000 + 1000;

std::string entry(uint64_t id, uint32_t module = 6) {
    return "entry { campaignId: " + std::to_string(id) + " moduleId: " + std::to_string(module) +
           " expiry { ExpType: 2 ExpValue: " + std::to_string(LATER) + " } }\n";
}

std::string cdf(const std::string& text) {
    return campaign_file_bytes(campaign_from_text(text));
}

std::string stored(uint32_t module, uint64_t id) {
    return campaign_file_name(module, id, LATER).data();
}

struct CampaignManager : testing::Test {
    CampaignManager() {
        for (const char* dir : {"/data/vendor/vexa", CAMPAIGN_DIR}) fs::remove_all(dir);
        for (const char* dir : {DOWN_DIR, CAMPAIGN_DIR, "/dev/socket/vexa"})
            fs::create_directories(dir);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        platform_test_set_clock(platform_test_clock::MANUAL);
    }
    ~CampaignManager() override { stop(); }

    void start(const char* until = "campaign_mgr_main:Going into poll\n") {
        thread = std::thread([] { campaign_mgr_main(nullptr); });
        EXPECT_TRUE(!until || platform_test_wait_log(until, EVENT_LIMIT.count())) << log_text();
        park();
    }
    void stop() {
        if (!thread.joinable()) return;
        pthread_kill(thread.native_handle(), SIGUSR1);
        thread.join();
    }
    static void park() { ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count())); }
    static void deliver(const std::string& file) {
        put_files({{std::string(CDF) + ".part", file}});
        fs::rename(std::string(CDF) + ".part", CDF);
    }
    static uint32_t active_id(uint32_t module = 6) {
        owned_bytes logic;
        uint32_t id = 0;
        campaign_mgr_get_campaign(module, &logic, &id);
        return id;
    }

    std::thread thread;
};

constexpr uint64_t COUNT = 20000;

// One campaign of module 1, whose file is written first, and many of module 6.
std::string large_file() {
    std::string file = cdf(entry(1, 1));
    for (uint64_t id = 1; id <= COUNT; ++id) file += cdf(entry(id)).substr(3);
    return file;
}

TEST_F(CampaignManager, FileThatComesWhileAnotherIsTakenInIsNotLost) {
    start();
    deliver(large_file());
    ASSERT_TRUE(platform_test_wait_log("CDF File Created waiting? 0\n", EVENT_LIMIT.count()));
    park();
    platform_test_advance_ms(1000);
    ASSERT_TRUE(wait_for_file(stored(1, 1)));
    deliver(cdf(entry(COUNT + 1)));
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    while (active_id() != COUNT + 1 || fs::exists(DONE)) {
        ASSERT_LT(std::chrono::steady_clock::now(), limit) << active_id();
        park();
        platform_test_advance_ms(100);
    }
}

TEST_F(CampaignManager, StopInTheMidstOfALargeFileLeavesItForTheNextStart) {
    put_files({{DONE, large_file()}});
    start(nullptr);
    platform_test_advance_ms(1000);
    ASSERT_TRUE(wait_for_file(stored(1, 1)));
    stop();
    EXPECT_TRUE(fs::exists(DONE) || fs::exists(stored(6, COUNT)));
    platform_test_clear_log();
    start(nullptr);
    platform_test_advance_ms(1000);
    ASSERT_TRUE(platform_test_wait_log("campaign_mgr_main:Going into poll\n", EVENT_LIMIT.count()));
    EXPECT_EQ(active_id(), COUNT);
    EXPECT_FALSE(fs::exists(DONE));
}

TEST_F(CampaignManager, FileThatIsTooLargeGoesUnread) {
    for (const size_t too_many : {0, 1}) {
        const std::string failed = std::string("Failed Reading CDF File ") + CDF + "!! Panic";
        put_files({{CDF, std::string((1 << 20) + too_many, 'x')}});
        start();
        EXPECT_EQ(platform_test_log_count(failed), too_many);
        stop();
    }
}

TEST_F(CampaignManager, ClientsLeaveNoDescriptorBehind) {
    const auto descriptors = [] { return list_dir("/.host/proc/self/fd").size(); };
    const size_t outside = descriptors();
    start();
    const size_t before = descriptors();
    for (size_t i = 0; i < 70; ++i) {
        const std::string messages[] = {"", "half", std::string(8, '\0'), "a whole header"};
        (void)phone_send_bytes("/", messages[i % 4]);
        park();
        platform_test_advance_ms(i % 7 == 0 ? 60000 : 10);
    }
    platform_test_advance_ms(60000);
    park();
    EXPECT_EQ(descriptors(), before);
    const unique_fd still_there = phone_send_bytes("/", "half");
    park();
    stop();
    EXPECT_EQ(descriptors(), outside + 1);
}

// A client that cannot be accepted is tried again a second later.
TEST_F(CampaignManager, LackOfDescriptorsIsSaid) {
    control_server server;
    ASSERT_EQ(control_socket_open(&server.listener), 0);
    const unique_fd client = phone_send_bytes("/", "half");
    rlimit usual = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none = {.rlim_cur = 0, .rlim_max = usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_TRUE(control_socket_receive(&server, true));
    EXPECT_FALSE(control_socket_act(&server));
    unique_fd second;
    cdf_watch watch;
    EXPECT_EQ(control_socket_open(&second), EMFILE);
    EXPECT_FALSE(cdf_watch_begin(&watch, stop_flag{}));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    size_t seen = 0;
    EXPECT_EQ(log_lines(&seen),
              "I vexastatsd: campaign_mgr_main:Socket file pollin\n"
              "E vexastatsd: Error while accepting connection err: Too many open files\n"
              "E vexastatsd: handleIncomingSocketMsg: Null client fd is passed\n"
              "E vexastatsd: Dailed to get socket: /dev/socket/vexa/vexa-campmgr-s.sockfd:-1 "
              "err:Too many open files\n"
              "E vexastatsd: campaign_mgr_main: failed inotify_init. err:24\n");
    pollfd fds[CONTROL_POLL_FDS];
    EXPECT_EQ(control_socket_watch(server, fds), PLATFORM_TEST_MONO_MS + 1000);
    EXPECT_EQ(fds[CONTROL_LISTENER].fd, -1);
    platform_test_advance_ms(1000);
    EXPECT_EQ(control_socket_watch(server, fds), INT64_MAX);
    EXPECT_EQ(fds[CONTROL_LISTENER].fd, server.listener.get());
}

}  // namespace
