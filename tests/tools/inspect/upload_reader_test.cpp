// The file around the record: header and gzip stream.
#include "upload_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "record_formats.h"
#include "upload_writer.h"

using nlohmann::json;
using testing::HasSubstr;

namespace {

// Written out by another program from the format's description; docs/formats.md walks through it.
const byte_vector golden_file = from_hex(
    "00 00 00 07 00 00 00 35 00 00 00 02 01 00 00 00 06 00 00 01 8b cf e5 68 00 00 00 00 61 01 01 "
    "00"
    "00 00 00 00 05 7e 40 00 3c 00 00 00 00 00 00 00 00 00 00 00 01"
    "1f 8b 08 00 00 00 00 00 00 03 93 e2 63 68 b0 61 60 62 60 60 48 61 80 00 23 20 7e c1 cc c0 c0 "
    "05"
    "a4 19 81 18 24 17 05 95 d3 00 62 1f 16 06 06 56 28 1f 24 cf d0 25 cd f0 60 32 0b 43 43 88 1a "
    "c3"
    "a9 46 46 86 a4 c4 12 06 9e 6a 90 1c 63 9a 3a 63 87 30 03 c3 06 16 90 32 00 ed ca 3d 34 6a 00 "
    "00 00");

std::string refusal(const byte_vector& bytes, size_t max_payload = UPLOAD_PAYLOAD_MAX_BYTES) {
    try {
        (void)upload_json("file", upload_parse(bytes, max_payload));
        return "accepted";
    } catch (const upload_error& error) {
        return error.what();
    }
}

}  // namespace

TEST(UploadReader, GoldenFileIsReadFieldByField) {
    const auto expected = json::parse(R"({
        "file": "a.b", "header_version": 7, "header_len": 53, "client_id": 2, "data_type": 1,
        "rec_version": 6, "realtime_ms": 1700000000000, "payload_len": 97, "header_attr1": 1,
        "header_attr2": 1, "uptime_ms": 360000, "timezone_min": 60, "campaign_id": 0, "seq": 1,
        "payload_bytes": 106,
        "records": [{
            "uptime_100ms": 3610, "timezone_min": 60, "cpu_count": 2,
            "cpu_times_ticks": [[100, 0, 50, 1000, 10, 1, 2], [90, 0, 40, 1100, 5, 0, 1]],
            "cpu_freq_khz": [1804800, 300000], "charge_counter_uah": 2512000, "brightness": 128,
            "capacity_percent": 57, "charge_status": 2,
            "thermal_zones": [{"name": "bat", "temp_mdegc": 31500}],
            "network": [{"interface_class": 1, "uid": 10086, "counter_set": 1,
                         "rx_bytes": 5000, "tx_bytes": 1200}],
            "processes": []}]})");
    EXPECT_EQ(json::parse(upload_json("a.b", upload_parse(golden_file))), expected);
}

TEST(UploadReader, HeaderFieldsKeepTheirWidthAndSign) {
    const file_fields fields = {.client_id = 0x01020304,
                                .data_type = 255,
                                .rec_version = 0x80000001,
                                .realtime_ms = 0xFFFFFFFFFFFFFFFF,
                                .uptime_ms = 0x0102030405060708,
                                .timezone_min = -570};
    const auto header = upload_parse(upload({}, fields)).header;
    EXPECT_EQ(header.client_id, 0x01020304u);
    EXPECT_EQ(header.data_type, 255);
    EXPECT_EQ(header.rec_version, 0x80000001u);
    EXPECT_EQ(header.realtime_ms, 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(header.uptime_ms, 0x0102030405060708u);
    EXPECT_EQ(header.timezone_min, -570);
}

TEST(UploadReader, FileCutAtAnyByteIsRefusedWithAMessage) {
    for (size_t size = 0; size < golden_file.size(); size++) {
        const byte_vector cut(golden_file.begin(),
                              golden_file.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_THAT(refusal(cut), HasSubstr("offset ")) << size;
    }
}

TEST(UploadReader, FlippedHeaderBitIsRefusedWhereItCanBeChecked) {
    const auto is_checked = [](size_t at) { return at < 8 || at == 12 || (at >= 25 && at < 29); };
    for (size_t bit = 0; bit < 8 * UPLOAD_FILE_HEADER_BYTES; bit++) {
        auto file = golden_file;
        file[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        EXPECT_EQ(refusal(file) != "accepted", is_checked(bit / 8)) << "byte " << bit / 8;
    }
}

TEST(UploadReader, FlippedPayloadBitNeverChangesWhatIsRead) {
    const auto payload = upload_parse(golden_file).payload;
    for (size_t bit = 8 * UPLOAD_FILE_HEADER_BYTES; bit < 8 * golden_file.size(); bit++) {
        auto file = golden_file;
        file[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
        try {
            // Some bytes of a gzip header mean nothing to a reader.
            EXPECT_EQ(upload_parse(file).payload, payload) << bit / 8;
        } catch (const upload_error&) {
        }
    }
}

TEST(UploadReader, StreamThatDoesNotEndWhereTheFileEndsIsRefused) {
    const auto packed = gzip(sample());
    const auto plain = sample();
    struct {
        const char* what;
        byte_vector packed;
        const char* message;
    } const cases[] = {
        {"byte behind the stream", packed + byte_vector{0},
         "1 bytes follow the end of the gzip stream"},
        {"second gzip member", packed + packed, "bytes follow the end of the gzip stream"},
        {"stream without its trailer",
         {packed.begin(), packed.end() - 8},
         "the stream is cut short"},
        {"no gzip at all", plain, "offset 55: bad gzip stream: incorrect header check"},
        {"nothing", {}, "offset 53: bad gzip stream: the stream is cut short"},
    };
    for (const auto& c : cases)
        EXPECT_THAT(refusal(packed_upload(c.packed)), HasSubstr(c.message)) << c.what;
}

TEST(UploadReader, WrongChecksumOrLengthInTheTrailerIsRefused) {
    const auto packed = gzip(sample());
    for (const size_t from_end : {1u, 5u}) {
        auto broken = packed;
        broken[broken.size() - from_end] ^= 1;
        EXPECT_THAT(refusal(packed_upload(broken)), HasSubstr("bad gzip stream: incorrect"));
    }
}

TEST(UploadReader, PayloadThatUnpacksBeyondTheBoundIsRefusedAtTheBound) {
    const byte_vector zeros(100000);
    EXPECT_EQ(upload_parse(upload(zeros, {.client_id = 9}), zeros.size()).payload.size(),
              zeros.size());
    EXPECT_THAT(refusal(upload(zeros), zeros.size() - 1),
                HasSubstr("unpacks to more than 99999 bytes"));
}

TEST(UploadReader, RecordOfAnUnknownClientOrVersionIsShownInHex) {
    const byte_vector payload = {'a', 0, 0xFF};
    for (const file_fields& fields :
         {file_fields{.client_id = 77}, file_fields{.rec_version = 5}}) {
        const auto file = upload_parse(upload(payload, fields));
        const auto object = json::parse(upload_json("f", file));
        EXPECT_EQ(object["payload_hex"], "6100ff");
        EXPECT_EQ(object["records"], json::array());
        EXPECT_THAT(upload_report("f", file, {}), HasSubstr("61 00 ff"));
    }
}
