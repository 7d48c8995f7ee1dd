// A campaign's life in the whole daemon: delivered, switched on and off, restarted, expired.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "campaign.pb.h"
#include "phone_control.h"
#include "scenario/daemon_process.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char STORED[] = "/data/vendor/vexastats/101";
constexpr char START[] = "Setting event 256";
constexpr uint64_t EXPIRY_S = 1709643600;  // 2024-03-05T13:00:00Z, a Tuesday

// Module 6, at ten o'clock on every day.
std::string ten_o_clock_campaign() {
    vexa::CampaignDescriptionMap map;
    vexa::CampaignDescriptionEntry* entry = map.add_entry();
    entry->set_campaignid(77);
    entry->set_moduleid(6);
    entry->mutable_expiry()->set_exptype(2);
    entry->mutable_expiry()->set_expvalue(EXPIRY_S);
    auto* enablement = entry->mutable_enablementandlogic()->mutable_enablement();
    enablement->set_enablementtype(1);
    enablement->mutable_timebasedenablement()->set_timeslices(0x7F000000 | 1u << 10);
    return std::string("\xCD\xF1\x00", 3) + map.SerializeAsString();
}

// The order of start and stop events in the log since the last call.
std::string new_events() {
    static size_t seen = 0;
    const std::string log = phone_log();
    if (log.size() < seen) seen = 0;
    std::string events;
    for (size_t at = log.find("Setting event ", seen); at != std::string::npos;
         at = log.find("Setting event ", at + 1)) {
        events += log.compare(at, strlen(START), START) == 0 ? "+" : "-";
    }
    seen = log.size();
    return events;
}

TEST(CampaignScenario, CampaignRunsInItsHourAtHomeUntilItExpires) {
    phone_reset();
    fs::create_directories(std::string(DOWN_DIR) + "/101");
    phone_set_clock("real=2024-03-05T10:20:00Z boot=100");
    const std::string file = std::string(STORED) + "/6-77-" + std::to_string(EXPIRY_S) + ".camp";
    {
        daemon_process daemon({"TZ=UTC0"});
        ASSERT_TRUE(eventually_logged("campaign_mgr_main:Going into poll"));
        deliver(101, "cdf.dat", ten_o_clock_campaign());
        ASSERT_TRUE(eventually([&] { return fs::exists(file); })) << phone_log();
        ASSERT_TRUE(
            eventually([&] { return !fs::exists(std::string(DOWN_DIR) + "/101/cdf.dat"); }));
        EXPECT_EQ(new_events(), "") << "no subscription is known yet";
        phone_tell_subscription("/", 1, 262, 7);
        EXPECT_EQ(new_events(), "-+");
        phone_tell_roaming("/", true);
        EXPECT_EQ(new_events(), "-");
        phone_tell_roaming("/", false);
        EXPECT_EQ(new_events(), "-+");
        phone_set_clock("real=2024-03-05T11:00:00Z boot=100");
        EXPECT_EQ(new_events(), "");
        phone_tell_roaming("/", false);
        EXPECT_EQ(new_events(), "-") << "its hour is over";
        EXPECT_TRUE(daemon.stop());
    }
    fs::remove("/dev/log/main");
    phone_set_clock("real=2024-03-05T10:59:00Z boot=200");
    daemon_process daemon({"TZ=UTC0"});
    ASSERT_TRUE(eventually_logged("campaign_mgr_main:Going into poll"));
    phone_tell_subscription("/", 1, 262, 7);
    EXPECT_EQ(new_events(), "-+") << "it did not survive the restart";
    // Again and again: a jump that comes just before the wait begins does not end it.
    int boot_s = 0;
    ASSERT_TRUE(eventually([&] {
        boot_s += 100000;
        phone_set_clock("real=2024-03-05T13:00:00Z boot=" + std::to_string(boot_s));
        return new_events() == "-";
    })) << phone_log();
    phone_set_clock("real=2024-03-05T10:59:00Z boot=" + std::to_string(boot_s));
    phone_tell_roaming("/", false);
    EXPECT_EQ(new_events(), "") << "it is gone, also for a clock that goes back";
    EXPECT_TRUE(fs::exists(file));
    EXPECT_TRUE(daemon.stop());
}

TEST(CampaignScenario, SignalOfTheManagerNeverEndsTheDaemon) {
    phone_reset();
    daemon_process daemon;
    ASSERT_TRUE(eventually_logged("wait until /data/vendor/vexa/down/101 is ready"));
    daemon.signal(SIGUSR1);
    ASSERT_TRUE(eventually_logged("Campaign Manager Main Thread Exit"));
    opt_in(2);
    EXPECT_TRUE(eventually_logged("cpu_collector enabled"));
    EXPECT_TRUE(daemon.stop());
}

}  // namespace
