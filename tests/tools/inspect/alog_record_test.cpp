// The Android log record, decoded and shown.
#include "alog_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record_formats.h"
#include "upload_writer.h"

using testing::HasSubstr;

namespace {

constexpr file_fields ALOG{.client_id = 501, .rec_version = 1};

byte_vector title() {
    byte_vector out;
    put_text(out, "\nlogcat:\n");
    out.pop_back();
    return out;
}

byte_vector entry(std::string_view tag, std::string_view message, uint8_t priority = 4) {
    byte_vector out;
    put_le(out, 1 + tag.size() + 1 + message.size() + 1, 2);
    put_le(out, 28, 2);
    for (const uint32_t field : {4711u, 4712u, 1700000000u, 5678901u, 0u, 1000u})
        put_le(out, field, 4);
    put_le(out, priority, 1);
    put_text(out, tag);
    put_text(out, message);
    return out;
}

// Of an entry with 6000 bytes, the 5120 that a record holds.
byte_vector cut_entry() {
    byte_vector out = entry("big", std::string(5972 - 6, 'x'));
    out.resize(5120);
    return out;
}

std::string report(const byte_vector& payload, const report_options& options = {}) {
    return upload_report("file", upload_parse(upload(payload, ALOG)), options);
}

}  // namespace

TEST(AlogRecord, EntriesAreShownInThreadtimeFormInTheZoneOfTheRecord) {
    const std::string text = report(title() + entry("tag", "one\n") + entry("a.long.tag", "", 6) +
                                    entry("t\x1b", "two\nlines\x07\n", 99));
    EXPECT_THAT(text, HasSubstr("client    501 (Android log), record version 1"));
    EXPECT_THAT(text, HasSubstr("  entries   3, from the beginning of a campaign\n\n"
                                "11-14 23:13:20.005  4711  4712 I tag     : one\n"
                                "11-14 23:13:20.005  4711  4712 E a.long.tag: \n"
                                "11-14 23:13:20.005  4711  4712 ? t\\x1b   : two\n"
                                "11-14 23:13:20.005  4711  4712 ? t\\x1b   : lines\\x07\n"));
    EXPECT_THAT(report(entry("tag", "one") + entry("tag", "two"), {.max_rows = 1}),
                HasSubstr(": one\n  ... and 1 entries more\n"));
}

TEST(AlogRecord, JsonHasTheRawFields) {
    const std::string json = upload_json("f", upload_parse(upload(entry("t", "m\n"), ALOG)));
    EXPECT_THAT(json, HasSubstr(R"("records":[{"pid":4711,"tid":4712,"sec":1700000000,)"
                                R"("nsec":5678901,"log_id":0,"uid":1000,"priority":4,"tag":"t",)"
                                R"("message":"m\n","cut":false}])"));
}

TEST(AlogRecord, EntryThatWasCutDoesNotHideTheNextOne) {
    const auto record = alog_record_decode(cut_entry() + entry("t", "next"));
    ASSERT_EQ(record.entries.size(), 2u);
    EXPECT_TRUE(record.entries[0].cut);
    EXPECT_EQ(record.entries[0].message.size(), 5120u - 28 - 5);
    EXPECT_EQ(record.entries[1].message, "next");
}

TEST(AlogRecord, PayloadCutAtAnyByteIsRefusedUnlessAnEntryEndsThere) {
    const byte_vector first = title() + entry("tag", "one");
    const byte_vector whole = first + entry("tag", "two");
    for (size_t size = 0; size <= whole.size(); size++) {
        const byte_vector cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        const bool ends_whole =
            size == 0 || size == title().size() || size == first.size() || size == whole.size();
        if (ends_whole)
            EXPECT_NO_THROW(alog_record_decode(cut)) << size;
        else
            EXPECT_THROW(alog_record_decode(cut), upload_error) << size;
    }
}

TEST(AlogRecord, EntryWithoutItsTextsOrZeroBytesIsShownAsItIs) {
    byte_vector empty = entry("", "");
    empty.resize(28);
    empty[0] = 0;
    byte_vector tag_only = entry("tag", "");
    tag_only.resize(28 + 4);
    tag_only[0] = 4;
    const auto record = alog_record_decode(empty + tag_only);
    ASSERT_EQ(record.entries.size(), 2u);
    EXPECT_EQ(record.entries[1].tag, "tag");
    EXPECT_EQ(record.entries[1].message, "");
}

TEST(AlogRecord, StartThatTheLateClockOverwroteIsPassedOver) {
    byte_vector payload = title() + entry("tag", "lost") + entry("tag", "kept");
    const size_t kept_at = title().size() + entry("tag", "lost").size();
    std::fill_n(payload.begin(), 15, uint8_t{'7'});
    payload[14] = '\n';
    auto record = alog_record_decode(payload);
    EXPECT_EQ(record.skipped_bytes, kept_at);
    ASSERT_EQ(record.entries.size(), 1u);
    EXPECT_EQ(record.entries[0].message, "kept");

    byte_vector left_over = title();
    left_over.insert(left_over.begin(), {'3', '0', '\n'});
    record = alog_record_decode(left_over + entry("tag", "kept"));
    EXPECT_EQ(record.skipped_bytes, 3u);
    EXPECT_TRUE(record.begins_campaign);
}
