#include "mps_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "upload_writer.h"

using testing::HasSubstr;

namespace {

const std::string HEADER = "0a09 08cd02 1006 1801 2002";
// Kind 2 with the bytes aa bb, begun at UTC-05:30, ended at UTC+01:00.
const std::string METRIC =
    "1a27 0a10 0802 1205 1001 20ca02 1880d095ffbc31"
    "     120d 0802 1202 203c 18e8d795ffbc31 1802 2202aabb";

upload_file file_of(const std::string& hex) {
    upload_file file;
    file.header.client_id = 6;
    file.payload = from_hex(hex);
    return file;
}

TEST(MpsRecord, MessageIsShownFieldByField) {
    // Behind the end of an old first line, and with a field that nobody knows.
    const upload_file file = file_of("300a" + HEADER + "5801" + METRIC + "1201cc");
    json_object object;
    mps_record_add_json(file, &object);
    EXPECT_EQ(
        object.dump(),
        R"({"skipped_bytes":2,"records":[{"header":{"campaign_id":333,"client_id":6,)"
        R"("major_version":1,"minor_version":2},"raw_data_hex":["cc"],"metric_data":[{)"
        R"("start_time":{"collection_state":2,"timezone_min":-330,"realtime_ms":1700000000000},)"
        R"("end_time":{"collection_state":2,"timezone_min":60,"realtime_ms":1700000001000},)"
        R"("data_kind":2,"data_hex":"aabb"}]}]})");
    const std::string report = mps_record_report(file, {});
    EXPECT_THAT(report, HasSubstr("campaign  333\n  service   version 1.2\n"));
    EXPECT_THAT(report, HasSubstr("LLL data, 2 bytes\n    start   2023-11-14 16:43:20.000 -05:30"));
}

TEST(MpsRecord, DamageIsFoundAtItsField) {
    const std::string whole = HEADER + METRIC;
    const size_t header_len = from_hex(HEADER).size();
    for (size_t len = 1; len < from_hex(whole).size(); ++len) {
        upload_file file = file_of(whole);
        file.payload.resize(len);
        if (len == header_len) continue;
        try {
            (void)mps_record_decode(file.payload);
            ADD_FAILURE() << len;
        } catch (const upload_error& error) {
            EXPECT_EQ(error.offset(), len < header_len ? 0 : header_len) << len;
        }
    }
}

}  // namespace
