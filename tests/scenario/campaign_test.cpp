// A campaign's life in the whole daemon: delivered, switched on and off, restarted, expired.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "campaign.pb.h"
#include "scenario/daemon_process.h"
#include "scenario/driven_scenario.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;

namespace {

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

// When the module was switched, 256 on and 512 off.
std::string events(const driven_result& run) {
    const std::string lines = run.lines_with("Setting event ");
    return std::regex_replace(lines, std::regex(" .*event"), "");
}

TEST(CampaignScenario, CampaignRunsInItsHourAtHomeUntilItExpires) {
    phone_reset();
    put_files({{SCRIPT_DIR + std::string("cdf"), ten_o_clock_campaign()}});
    const driven_result first = play(R"(
mkdir data/vendor/vexa/down/101
at 1s deliver down/101/cdf.dat < cdf
at 10s tell sub 1 262 7
at 20s tell roaming 1
at 30s tell roaming 0
at 40m tell roaming 0
)",
                                     "real=2024-03-05T10:20:00Z boot=100", {"TZ=UTC0"});
    EXPECT_EQ(first.exit_code, 0);
    EXPECT_EQ(events(first),
              "10:20:10.000 512\n10:20:10.000 256\n"
              "10:20:20.000 512\n"
              "10:20:30.000 512\n10:20:30.000 256\n"
              "11:00:00.000 512\n");
    EXPECT_THAT(first.transcript, HasSubstr("/101/6-77-1709643600.camp 600\n"));
    EXPECT_THAT(first.transcript, Not(HasSubstr("/cdf.dat 6")));

    // It survives the restart, but not its expiry, also for a clock that goes back. A message
    // begins the wait for the expiry anew.
    fs::remove("/dev/log/main");
    const driven_result second = play(R"(
at 10s tell sub 1 262 7
at 2h5m clock real=2024-03-05T10:59:00Z
at 2h5m tell roaming 0
)",
                                      "real=2024-03-05T10:59:00Z boot=200", {"TZ=UTC0"});
    EXPECT_EQ(second.exit_code, 0);
    EXPECT_EQ(events(second), "10:59:10.000 512\n10:59:10.000 256\n13:00:10.000 512\n");
    EXPECT_THAT(second.transcript, HasSubstr("/101/6-77-1709643600.camp 600\n"));
}

TEST(CampaignScenario, SignalOfTheManagerNeverEndsTheDaemon) {
    phone_reset();
    const driven_result run = play("at 1s signal USR1\nat 2s optin 2\nat 3s signal TERM\n");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_EQ(run.lines_with("Campaign Manager Main Thread Exit").substr(0, 12), "22:13:21.000");
    EXPECT_EQ(run.lines_with("cpu_collector enabled").substr(0, 12), "22:13:22.000");
}

}  // namespace
