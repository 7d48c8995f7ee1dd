#include "mps_record.h"

#include <gtest/gtest.h>

#include "record_json.h"
#include "upload_writer.h"

namespace {

const std::string HEADER = "0a09 08cd02 1006 1801 2002";
// Kind 2 with the bytes aa bb, begun at UTC-05:30, ended at UTC+01:00.
const std::string METRIC =
    "1a27 0a10 0802 1205 1001 20ca02 1880d095ffbc31"
    "     120d 0802 1202 203c 18e8d795ffbc31 1802 2202aabb";

TEST(MpsRecord, MessageIsShownFieldByField) {
    upload_file file;  // behind the end of an old first line, and with a field that nobody knows
    file.payload = from_hex("300a" + HEADER + "5801" + METRIC + "1201cc");
    EXPECT_EQ(
        record_json(mps_record_add_json, file),
        R"({"skipped_bytes":2,"records":[{"header":{"campaign_id":333,"client_id":6,)"
        R"("major_version":1,"minor_version":2},"raw_data_hex":["cc"],"metric_data":[{)"
        R"("start_time":{"collection_state":2,"timezone_min":-330,"realtime_ms":1700000000000},)"
        R"("end_time":{"collection_state":2,"timezone_min":60,"realtime_ms":1700000001000},)"
        R"("data_kind":2,"data_hex":"aabb"}]}]})");
}

TEST(MpsRecord, DamageIsFoundAtItsField) {
    const byte_vector cut = from_hex((HEADER + METRIC).substr(0, 60));
    EXPECT_THROW((void)mps_record_decode(cut), upload_error);
}

}  // namespace
