#include "diag_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record_json.h"
#include "upload_writer.h"

using testing::HasSubstr;

namespace {

const char PACKETS[] =
    "1300 c0b0 0807060504030201 01000000 aabbcc"  // 19 bytes, three behind the header
    "1000 c1b0 0000000000000000 02000000";

upload_file file_of(const byte_vector& payload) {
    upload_file file;
    file.header.client_id = 4;
    file.payload = payload;
    return file;
}

TEST(DiagRecord, PacketsFollowEachOtherByTheirLengths) {
    const upload_file file = file_of(from_hex(PACKETS));
    EXPECT_EQ(record_json(diag_record_add_json, file),
              R"({"records":[{"offset":0,"length":19,"log_code":45248,)"
              R"("time_stamp":72623859790382856,"sequence":1,"data_hex":"aabbcc"},)"
              R"({"offset":19,"length":16,"log_code":45249,"time_stamp":0,"sequence":2,)"
              R"("data_hex":""}]})");
    const std::string report = diag_record_report(file, {.max_rows = 1});
    EXPECT_THAT(report, HasSubstr("0xb0c0"));
    EXPECT_THAT(report, HasSubstr("and 1 more\n"));
    EXPECT_THAT(report, HasSubstr("13 00 c0 b0"));
}

}  // namespace
