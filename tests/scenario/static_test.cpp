// The static collector in the whole daemon, with a modem: from consent to the uploaded records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>

#include "modem/wire.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "scenario/uploads.h"
#include "static_record.h"
#include "support/files.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace {

constexpr int CLIENT = 3;

// The sections of the next upload.
std::map<std::string, std::string> wait_for_upload() {
    std::vector<taken_upload> uploads;
    EXPECT_TRUE(eventually([&] { return !(uploads = take_uploads(CLIENT)).empty(); }))
        << phone_log();
    std::map<std::string, std::string> sections;
    for (const taken_upload& upload : uploads) {
        EXPECT_EQ(upload.file.header.data_type, 3);
        for (const static_section& section : static_record_decode(upload.file.payload))
            sections[section.title] += section.text;
    }
    return sections;
}

TEST(StaticScenario, ItemsLevelAndStatusAreUploaded) {
    phone_reset();
    opt_in(CLIENT);
    fs::create_directories(DOWN_DIR + std::string("/3"));
    modem_thread modem;
    const std::string text =
        std::string("\x06kzor,bvrx-power-on") + '\0' + "p@SID0 Power-on reason: KPD" + '\0';
    put_files({{"/dev/log/kernel", wire_integer(text.size(), 2) + wire_integer(28, 2) +
                                       std::string(24, '\0') + text}});
    deliver(CLIENT, "aoststats.cfg", "clientid=3;interval=30\n");
    phone_set_clock("speed=20");
    modem.command("imsa active 1 2");
    modem.command("imsa status 1 - 3 4 5 6");
    daemon_process daemon;
    auto sections = wait_for_upload();
    EXPECT_THAT(sections["kernel_config"], HasSubstr(" - CONFIG_HZ=100\n - CONFIG_NR_CPUS=8\n"));
    EXPECT_EQ(sections["power_cycles"], " - pmic_name: p\n   event: power-on\n   reason: KPD\n");
    EXPECT_THAT(sections["ver_info.txt"], HasSubstr("        \"apps\": \"LA.UM.8.1-01200\"\n"));

    put_files({{"/data/vendor/vexa/shared/3/wvstats.tmp", "L3"}});
    ASSERT_TRUE(eventually([&] {
        return modem.output().find("imsa: indications wanted: 0 1 10\n") != std::string::npos;
    })) << phone_log();
    EXPECT_THAT(modem.output(), HasSubstr("imsa: get active subscriptions\n"
                                          "imsa: bind subscription 1\n"
                                          "imsa: get service status\n"));
    modem.command("imsa status 1 2 3 4 5 6");
    modem.command("imsa indicate");
    std::string status, level;
    ASSERT_TRUE(eventually([&] {
        sections = wait_for_upload();
        level += sections["widevine security level"] + sections[""];
        status += sections["ims service status"];
        return status.find(", 1, 2, 3, 4, 5, 6]\n") != std::string::npos;
    })) << phone_log();
    EXPECT_THAT(level, MatchesRegex("- [0-9]+\n- L3\n(.|\n)*"));
    EXPECT_THAT(status, HasSubstr(", 1, 0, 3, 4, 5, 6]\n"));

    EXPECT_TRUE(daemon.stop());
}

}  // namespace
