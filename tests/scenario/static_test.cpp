// The static collector in the whole daemon, with a modem: from consent to the uploaded records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "modem/wire.h"
#include "scenario/daemon_process.h"
#include "scenario/driven_scenario.h"
#include "support/files.h"

using ::testing::HasSubstr;

namespace {

TEST(StaticScenario, ItemsLevelAndStatusAreUploaded) {
    phone_reset();
    const std::string text =
        std::string("\x06kzor,bvrx-power-on") + '\0' + "p@SID0 Power-on reason: KPD" + '\0';
    put_files({{"/dev/log/kernel", wire_integer(text.size(), 2) + wire_integer(28, 2) +
                                       std::string(24, '\0') + text}});
    const driven_result run = play(R"(
modem up
modem imsa active 1 2
modem imsa status 1 - 3 4 5 6
optin 3
deliver down/3/aoststats.cfg clientid=3;interval=30
at 50s write data/vendor/vexa/shared/3/wvstats.tmp L3
at 55s modem imsa status 1 2 3 4 5 6
at 55s modem imsa indicate
at 90s signal TERM
)");
    EXPECT_EQ(run.exit_code, 0);
    for (const char* part :
         {"static information), record version 1, data type 3",
          "     - CONFIG_HZ=100\n     - CONFIG_NR_CPUS=8\n",
          "  power_cycles\n     - pmic_name: p\n       event: power-on\n       reason: KPD\n",
          "            \"apps\": \"LA.UM.8.1-01200\"\n",
          "imsa: get active subscriptions\nimsa: bind subscription 1\nimsa: get service status\n"
          "imsa: indications wanted: 0 1 10\n",
          "    - 51000\n    - L3\n  ims service status\n    - [51000, 1, 0, 3, 4, 5, 6]\n"
          "    - [56000, 1, 2, 3, 4, 5, 6]\n"})
        EXPECT_THAT(run.transcript, HasSubstr(part));
}

}  // namespace
