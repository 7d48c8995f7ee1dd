// The diagnostic collector's thread against a scripted library: failures, and notifications. What
// it says and writes is told in tests/transcripts.
#include "collectors/diag/diag_collector.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <sstream>
#include <string>
#include <thread>

#include "collectors/diag/diag_notify.h"
#include "support/collector_phone.h"
#include "support/dialogue.h"

namespace {

constexpr char NO_SUPPORT[] = "diag: No current dci support\n";

struct DiagCollector : testing::Test, collector_phone {
    DiagCollector() : collector_phone(4) {
        put_files({{row->dl_cfg_file,
                    "clientid=4;size=1000000;campaign_id=7;campaign_duration_secs=600;"
                    "num_diag_masks=2;diag_mask=0xb0c0;diag_mask=0x1b0c1;\n"}});
    }
    static std::string calls() {
        std::string all;
        for (const std::string& call : platform_test_diag_calls()) all += call + ", ";
        return all;
    }
};

// The function of the library that fails, and with what; its errors, and what was called of it.
TEST_F(DiagCollector, FailureOfTheLibraryIsLoggedAndEverythingGivenBack) {
    const std::string cfg_text = file_text(row->dl_cfg_file);
    expect_dialogue("diag/library", [&](const std::string& question) {
        const size_t word = question.find(' ');
        put_files({{row->dl_cfg_file, cfg_text}});
        platform_test_script_diag(question.substr(0, word), std::stoi(question.substr(word)));
        start();
        stop();
        EXPECT_EQ(payloads(), std::vector<std::string>{""});
        std::string said;
        std::istringstream lines(log());
        for (std::string line; std::getline(lines, line);)
            if (line.starts_with("E ")) said += line + "\n";
        remove(own());
        remove(row->up_dir);
        renew();
        return said + calls() + "\n";
    });
}

TEST_F(DiagCollector, NotificationIsOnlyNotedByItsHandlerAndLoggedLater) {
    diag_notify_install();
    platform_test_script_diag("support", 1006);
    ASSERT_EQ(sigqueue(getpid(), 18, {.sival_int = 0x2}), 0);
    while (diag_last_signal() != 18) std::this_thread::yield();
    EXPECT_EQ(log(), "");
    notify_handler(18, nullptr, nullptr);
    diag_notify_log();
    EXPECT_EQ(log(),
              "I vexastatsd: diag: In notify_handler, signal 18 received from kernel, data is: 2\n"
              "E vexastatsd: diag: could not get support list, err: 1006\n"
              "I vexastatsd: diag: No current dci support\n"
              "I vexastatsd: diag: In notify_handler, signal 18 received from kernel, but no info "
              "value\n"
              "I vexastatsd: diag: No current dci support\n");
}

TEST_F(DiagCollector, NotificationFromBetweenTwoCampaignsIsLoggedOnceTheLibraryIsUp) {
    diag_notify_install();
    notify_handler(18, nullptr, nullptr);
    start();
    stop();
    EXPECT_EQ(platform_test_log_count(NO_SUPPORT), 1u);
    EXPECT_EQ(calls(),
              "init, register 2 0 18, config 5 1 45248 45249, stream 5, support, "
              "config 5 0 45248 45249, release 5, deinit, ");
}

// Between two looks the campaign sees to its buffers, its time and its stop.
TEST_F(DiagCollector, OneLookLogsAFewNotificationsAndLosesNone) {
    constexpr size_t FLOOD = 1000;
    diag_notify_install();
    for (size_t i = 0; i < FLOOD; ++i) notify_handler(18, nullptr, nullptr);
    diag_notify_log();
    EXPECT_GT(platform_test_log_count(NO_SUPPORT), 0u);
    EXPECT_LT(platform_test_log_count(NO_SUPPORT), 50u);
    pollfd more{.fd = diag_notify_fd(), .events = POLLIN, .revents = 0};
    while (poll(&more, 1, 0) == 1) diag_notify_log();
    EXPECT_EQ(platform_test_log_count(NO_SUPPORT), FLOOD);
}

}  // namespace
