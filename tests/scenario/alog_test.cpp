// Stops of the whole daemon while its log collector waits for log entries, in real time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "scenario/daemon_process.h"
#include "scenario/uploads.h"

using ::testing::HasSubstr;

namespace {

constexpr int CLIENT = 501;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int STOPS = 20;
#else
constexpr int STOPS = 100;
#endif

TEST(AlogTest, StopNeverHangsAroundTheBlockingRead) {
    std::mt19937 rnd(501);
    phone_reset();
    opt_in(CLIENT);
    deliver(CLIENT, "alogstats.cfg",
            "clientid=501;size=65536;campaign_id=7;campaign_duration_secs=10800;num_alog_masks=0;");
    for (int i = 0; i < STOPS; ++i) {
        SCOPED_TRACE(i);
        std::filesystem::remove("/dev/log/main");
        daemon_process daemon({"VEXA_TEST_WINDOW_US=" + std::to_string(rnd() % 4 * 500)});
        const bool reading = rnd() % 4 != 0;
        if (reading) {
            ASSERT_TRUE(eventually_logged("alog_active_campaign_remaining_time"));
        }
        usleep(rnd() % 2000);
        constexpr int SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};
        if (rnd() % 3 == 0) daemon.signal(SIGNALS[rnd() % 3]);
        daemon.signal(SIGNALS[rnd() % 3]);
        const std::optional<int> status = daemon.wait(SCENARIO_LIMIT);
        ASSERT_TRUE(status) << "it hangs:\n" << phone_log();
        if (reading) {
            ASSERT_EQ(*status, 0);
            EXPECT_THAT(phone_log(), HasSubstr("Thread Stat: TRUE"));
        }
        for (const taken_upload& upload : take_uploads(CLIENT)) {
            const std::string text(upload.file.payload.begin(), upload.file.payload.end());
            EXPECT_THAT(text, Not(HasSubstr("Waking up")));
        }
    }
}

}  // namespace
