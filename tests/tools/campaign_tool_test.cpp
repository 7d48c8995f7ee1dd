// vexa-campaign as a program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <tuple>

#include "support/files.h"
#include "support/gzip.h"
#include "support/process.h"

namespace {

using testing::HasSubstr;

constexpr char EXPIRY[] = "campaignId: 1 moduleId: 1 expiry { ExpType: 2 ExpValue: 1774748700 }";

class CampaignTool : public testing::Test {
  protected:
    ~CampaignTool() override { std::filesystem::remove_all(dir); }

    // Standard output and error together. (The check for leaks needs this machine's /proc.)
    std::string run(std::vector<std::string> args, int expected_exit = 0) const {
        args.insert(args.begin(), program("vexa-campaign"));
        EXPECT_EQ(child_process(args, dir + "out", {"ASAN_OPTIONS=detect_leaks=0"}).wait(),
                  expected_exit);
        return file_text(dir + "out");
    }
    std::string file(const std::string& name, const std::string& content) const {
        write_text_file(dir + name, content);
        return dir + name;
    }
    // What the phone makes of this entry.
    std::string explain(const std::string& entry) const {
        run({"encode", file("in.textproto", "entry { " + entry + " }"), "-o", dir + "cdf.dat"});
        return run({"explain", dir + "cdf.dat", "--tz", "CET-1CEST,M3.5.0,M10.5.0/3", "--from",
                    "2026-03-27T00:00:00", "--days", "4"});
    }

    char name_[32] = "/tmp/campaign_tool_test.XXXXXX";
    std::string dir = std::string(mkdtemp(name_)) + "/";
};

TEST_F(CampaignTool, EndlessOrLargeInputIsRefused) {
    for (const char* command : {"decode", "explain"}) {
        EXPECT_THAT(run({command, "/dev/zero"}, 1), HasSubstr("neither a regular file nor a pipe"));
    }
    const std::string large = file("large", std::string((size_t{1} << 20) + 1, ' '));
    EXPECT_THAT(run({"encode", large, "-o", dir + "cdf.dat"}, 1),
                HasSubstr("is larger than 1048576 bytes"));
}

TEST_F(CampaignTool, TextLeadsToBytesAndBack) {
    const std::string cdf = dir + "cdf.dat";
    run({"encode",
         file("in.textproto",
              "entry { moduleId: 6 enablementAndLogic { logic { mps { specs "
              "{ collectionLogicID: 1 lllSpec: \"a\\000b\" } } } } }"),
         "-o", cdf});
    const std::string expected =
        bytes("cdf100 0a18 1006 2214 1212 0a10 120e 090100000000000000 4203610062");
    EXPECT_EQ(file_text(cdf), expected);
    const std::string text = run({"decode", cdf});
    EXPECT_THAT(text, HasSubstr("lllSpec: \"a\\000b\""));
    EXPECT_EQ(text, run({"decode", file("6-7-1.camp", expected.substr(5))}));
    run({"encode", file("again.textproto", text), "-o", cdf});
    EXPECT_EQ(file_text(cdf), expected);
}

TEST_F(CampaignTool, ExplainFollowsTheRules) {
    const std::string sunday = explain(
        std::string(EXPIRY) +
        "enablementAndLogic { enablement { enablementType: 3 timeBasedEnablement { timeSlices: "
        "0x0100000A } mccMncEnablement { mcc: 262 mnc: [1, 2] } mccMncEnablement { mcc: 310 } } }");
    // Hours 1 and 3 are one period when the clock is put forward; the expiry cuts it short.
    EXPECT_THAT(sunday,
                HasSubstr("where   262-1, 262-2, all of 310\n  note    the phone keeps only the "
                          "first of these networks\n  expires Sun 2026-03-29 03:45\n"
                          "    Sun 2026-03-29 01:00 - Sun 2026-03-29 03:45\n\n"));
    const std::string inner = std::string(EXPIRY) + "enablementAndLogic { ";
    const std::tuple<std::string, const char*> rows[] = {
        {inner + "enablement { enablementType: 1 timeBasedEnablement { timeSlices: 255 } } }",
         "it needs an hour and a week day"},
        {inner + "logic { logic: \"" + std::string(32769, 'x') + "\" } }", "Too big campaign size"},
        {"campaignId: 1 moduleId: 7", "Wrong Module Id"},
        {"campaignId: 1 moduleId: 1 expiry { ExpType: 1 }", "Only UTC is supported"},
        {EXPIRY + std::string("} entry { ") + EXPIRY, "campaign 2 is for the same module"},
    };
    for (const auto& [entry, warning] : rows) {
        EXPECT_THAT(explain(entry), testing::ContainsRegex(std::string("never runs.*") + warning));
    }
}

TEST_F(CampaignTool, DamageIsNamed) {
    const std::tuple<std::string, std::string, std::string, const char*> rows[] = {
        {"decode", "cdf.dat", "text", "offset 0: no campaign file"},
        {"decode", "cdf.dat", bytes("cdf100 0a02 0807 0a05 08"), "offset 7: damaged, campaign 2"},
        {"decode", "x.camp", bytes("08"), "campaign 1 is damaged"},
        {"explain", "cdf.dat", "", "is empty"},
        {"encode", "in.textproto", "entry {\n  campaignid: 1 }", "line 2, column 13: "},
    };
    for (const auto& [command, name, content, message] : rows) {
        std::vector<std::string> args = {command, file(name, content)};
        if (command == "encode") args.insert(args.end(), {"-o", dir + "new.dat"});
        EXPECT_THAT(run(args, 1), HasSubstr("vexa-campaign: " + dir + name + ": " + message));
    }
    EXPECT_FALSE(std::filesystem::exists(dir + "new.dat"));
}

}  // namespace
