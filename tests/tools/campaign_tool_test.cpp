// vexa-campaign as a program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "support/files.h"
#include "support/gzip.h"
#include "support/process.h"

namespace {

using testing::HasSubstr;

constexpr char TWO_CAMPAIGNS[] = R"(
entry {
  campaignId: 7 moduleId: 6 expiry { ExpType: 2 ExpValue: 1900000000 }
  enablementAndLogic {
    enablement {
      enablementType: 3 timeBasedEnablement { timeSlices: 0x3E000300 }
      mccMncEnablement { mcc: 262 mnc: [1, 2] } mccMncEnablement { mcc: 310 }
    }
    logic { mps { specs { collectionLogicID: 1 lllSpec: "a\000b" } } }
  }
}
entry {
  campaignId: 8 moduleId: 1 expiry { ExpType: 2 ExpValue: 1774748700 }
  enablementAndLogic {
    enablement { enablementType: 1 timeBasedEnablement { timeSlices: 0x0100000A } }
    logic { logic: "\377" }
  }
})";

class CampaignTool : public testing::Test {
  protected:
    CampaignTool() {
        char name[] = "/tmp/campaign_tool_test.XXXXXX";
        dir = std::string(mkdtemp(name)) + "/";
    }
    ~CampaignTool() override { std::filesystem::remove_all(dir); }

    // Standard output and error together. (The check for leaks needs this machine's /proc.)
    std::string run(const std::vector<std::string>& args, int expected_exit = 0) const {
        std::vector<std::string> argv = {program("vexa-campaign")};
        argv.insert(argv.end(), args.begin(), args.end());
        EXPECT_EQ(child_process(argv, dir + "out", {"ASAN_OPTIONS=detect_leaks=0"}).wait(),
                  expected_exit);
        return file_text(dir + "out");
    }
    std::string file(const std::string& name, const std::string& content) const {
        write_text_file(dir + name, content);
        return dir + name;
    }

    std::string dir;
};

TEST_F(CampaignTool, TextLeadsToBytesAndBack) {
    const std::string cdf = dir + "cdf.dat";
    run({"encode", file("in.textproto", TWO_CAMPAIGNS), "-o", cdf});
    const std::string first = file_text(cdf);
    EXPECT_EQ(hex(first.substr(0, 5)), "cdf1000a3e");
    EXPECT_THAT(hex(first),
                HasSubstr(hex(bytes("12 12 0a 10 12 0e 09 0100000000000000 42 03 610062"))));
    const std::string text = run({"decode", cdf});
    EXPECT_THAT(text, HasSubstr("lllSpec: \"a\\000b\""));
    run({"encode", file("again.textproto", text), "-o", cdf});
    EXPECT_EQ(file_text(cdf), first);
    // A stored campaign is the same without the heads.
    EXPECT_EQ(text.find(run({"decode", file("6-7-1.camp", first.substr(5, 0x3e))})), 0u);
}

TEST_F(CampaignTool, ExplainFollowsTheClockChange) {
    const std::string cdf = dir + "cdf.dat";
    run({"encode", file("in.textproto", TWO_CAMPAIGNS), "-o", cdf});
    const std::string said = run({"explain", cdf, "--tz", "CET-1CEST,M3.5.0,M10.5.0/3", "--from",
                                  "2026-03-27T00:00:00", "--days", "4"});
    EXPECT_THAT(said, HasSubstr("when    Monday to Friday, 08:00 to 10:00\n"
                                "  where   262-1, 262-2, all of 310\n"));
    EXPECT_THAT(said, HasSubstr("    Fri 2026-03-27 08:00 - Fri 2026-03-27 10:00\n"
                                "    Mon 2026-03-30 08:00 - Mon 2026-03-30 10:00\n"));
    // Hours 1 and 3 are one period on the Sunday without hour 2, which the expiry cuts short.
    EXPECT_THAT(said, HasSubstr("    Sun 2026-03-29 01:00 - Sun 2026-03-29 03:45\n"));
}

TEST_F(CampaignTool, ExplainWarnsOfWhatNeverRuns) {
    const std::string expiry = " expiry { ExpType: 2 ExpValue: 1900000000 } ";
    const std::string by_time =
        " enablementAndLogic { enablement { enablementType: 1 "
        "timeBasedEnablement { timeSlices: 255 } } } ";
    std::string networks;
    for (int i = 0; i < 11; i++) networks += "mccMncEnablement { mcc: 1 } ";
    const struct {
        std::string text;
        const char* warning;
    } cases[] = {
        {"moduleId: 1 campaignId: 1" + expiry + by_time, "it needs an hour and a week day"},
        {"moduleId: 1 campaignId: 1 expiry { ExpType: 2 ExpValue: 9 }", "it has expired"},
        {"moduleId: 1 campaignId: 1 expiry { ExpType: 1 }", "Only UTC is supported"},
        {"moduleId: 0 campaignId: 1" + expiry, "module 0 is not switched on"},
        {"moduleId: 1 campaignId: 4294967296" + expiry, "the low 32 bits of its id are 0"},
        {"moduleId: 1 campaignId: 1" + expiry + "enablementAndLogic { enablement { " + networks +
             "} }",
         "Exceeded Max number of MCC MNC Enablements"},
        {"moduleId: 1 campaignId: 1" + expiry +
             "enablementAndLogic { enablement { enablementType: 2 mccMncEnablement { mcc: 70000 } "
             "} }",
         "no phone is in one of its networks"},
        {"moduleId: 1 campaignId: 1" + expiry + "enablementAndLogic { logic { logic: \"" +
             std::string(32769, 'x') + "\" } }",
         "Too big campaign size"},
        {"moduleId: 1 campaignId: 1" + expiry + "} entry { moduleId: 1 campaignId: 2" + expiry,
         "campaign 2 is for the same module"},
    };
    for (const auto& [text, warning] : cases) {
        const std::string cdf = dir + "cdf.dat";
        run({"encode", file("in.textproto", "entry { " + text + " }"), "-o", cdf});
        EXPECT_THAT(run({"explain", cdf, "--from", "2026-11-23T08:00:00Z"}),
                    HasSubstr(std::string("warning: never runs")));
        EXPECT_THAT(file_text(dir + "out"), HasSubstr(warning));
    }
}

TEST_F(CampaignTool, DamageIsNamed) {
    const struct {
        std::string command, name, content, message;
    } cases[] = {
        {"decode", "cdf.dat", "text", "offset 0: no campaign file"},
        {"decode", "cdf.dat", bytes("cdf100 0a02 0807 0a05 08"), "offset 7: damaged, campaign 2"},
        {"decode", "x.camp", bytes("08"), "campaign 1 is damaged"},
        {"explain", "cdf.dat", "", "is empty"},
        {"encode", "in.textproto", "entry {\n  campaignid: 1 }", "line 2, column 13: "},
        {"encode", "in.textproto",
         "entry { enablementAndLogic { logic { logic: \"a\" mps { } } } }", "both logic and mps"},
    };
    for (const auto& [command, name, content, message] : cases) {
        std::vector<std::string> args = {command, file(name, content)};
        if (command == "encode") args.insert(args.end(), {"-o", dir + "new.dat"});
        const std::string said = run(args, 1);
        EXPECT_THAT(said, HasSubstr("vexa-campaign: " + dir + name + ": "));
        EXPECT_THAT(said, HasSubstr(message));
    }
    EXPECT_FALSE(std::filesystem::exists(dir + "new.dat"));
}

}  // namespace
