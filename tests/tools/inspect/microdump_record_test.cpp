#include "microdump_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "upload_writer.h"

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr file_fields DUMP_FILE = {.client_id = 5, .data_type = 2, .rec_version = 2};

byte_vector payload_of(const std::string& text) {
    return {text.begin(), text.end()};
}

const std::string SEPARATOR = "--1522738393043\n";
const std::string FIRST = SEPARATOR + "Crash Time: 2023-11-14 22:13:20 +0000\nline one\nline two\n";
const std::string SECOND = SEPARATOR + "Crash Time: Error in getting crashtime\n\n";

std::string refusal(const std::string& text) {
    try {
        (void)microdump_record_decode(payload_of(text));
        return "accepted";
    } catch (const upload_error& error) {
        return error.what();
    }
}

}  // namespace

TEST(MicrodumpRecord, DumpsAreSplitAtSeparatorsThatBeginALine) {
    const auto record = microdump_record_decode(payload_of(
        SEPARATOR + "Crash Time: now\ntext with " + SEPARATOR + "in it\n" + SECOND + FIRST));
    ASSERT_EQ(record.dumps.size(), 3u);
    EXPECT_EQ(record.dumps[0].text, "text with " + SEPARATOR + "in it\n");
    EXPECT_EQ(record.dumps[1].crash_time, "Error in getting crashtime");
    EXPECT_EQ(record.dumps[1].text, "\n");
    EXPECT_EQ(record.dumps[2].text, "line one\nline two\n");
    EXPECT_TRUE(microdump_record_decode({}).dumps.empty());
}

TEST(MicrodumpRecord, PayloadThatEndsElsewhereThanAtALineOfADumpIsRefused) {
    const std::string all = FIRST + SECOND;
    const size_t text_begins = FIRST.find("line one");
    for (size_t size = 1; size < all.size(); size++) {
        const bool whole_line = all[size - 1] == '\n' && size > text_begins;
        // The separator of the second dump, cut behind its newline, is a line of the first as well.
        const bool second_header = size > FIRST.size() && size < all.size();
        if (whole_line && !second_header)
            EXPECT_EQ(refusal(all.substr(0, size)), "accepted") << size;
        else
            EXPECT_THAT(refusal(all.substr(0, size)), HasSubstr("payload offset ")) << size;
    }
}

TEST(MicrodumpRecord, SeparatorDamagedByARewrittenFirstLineCostsNoDump) {
    for (size_t lost = 1; lost <= 15; lost++) {
        const auto record = microdump_record_decode(payload_of((FIRST + SECOND).substr(lost)));
        EXPECT_EQ(record.skipped_bytes, 16 - lost);
        ASSERT_EQ(record.dumps.size(), 2u);
        EXPECT_EQ(record.dumps[0].crash_time, "2023-11-14 22:13:20 +0000");
    }
    const auto record = microdump_record_decode(payload_of("0\n" + FIRST));
    EXPECT_EQ(record.skipped_bytes, 2u);
    EXPECT_EQ(record.dumps.size(), 1u);
    EXPECT_THAT(refusal("damage\n" + FIRST), HasSubstr("payload offset 0: no separator"));
}

TEST(MicrodumpReport, DumpIsShownLineByLineAndCannotSteerTheTerminal) {
    const auto file =
        upload_parse(upload(payload_of(SEPARATOR + "Crash Time: now\nok\n\x1b[2J\n"), DUMP_FILE));
    const auto text = upload_report("file", file, {});
    EXPECT_THAT(text, HasSubstr("  Crash at now\n    ok\n    \\x1b[2J\n"));
    EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

TEST(MicrodumpJson, TextThatIsNotUtf8LeavesTheLineValid) {
    const auto file =
        upload_parse(upload(payload_of(SEPARATOR + "Crash Time: now\na\xff\n"), DUMP_FILE));
    const auto object = nlohmann::json::parse(upload_json("f", file));
    EXPECT_EQ(object["records"][0]["crash_time"], "now");
    EXPECT_EQ(object["records"][0]["text"], "a\uFFFD\n");
}
