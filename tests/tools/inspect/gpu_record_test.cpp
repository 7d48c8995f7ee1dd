#include "gpu_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "upload_writer.h"

using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

constexpr file_fields GPU_FILE = {.client_id = 1, .data_type = 1, .rec_version = 4};

// A sample of two levels, from the description of the format.
byte_vector gpu_sample(uint32_t stamp, int timezone_min = 0, uint64_t time = 1000) {
    byte_vector out;
    put_le(out, stamp, 4);
    if (stamp >> 31) put_le(out, static_cast<uint16_t>(timezone_min), 2);
    put_le(out, 37, 4);
    put_le(out, 257000000, 4);
    put_le(out, 2, 4);
    for (const uint64_t level : {uint64_t{710000000}, uint64_t{257000000}}) {
        put_le(out, level, 4);
        put_le(out, level == 257000000 ? time : 5, 8);
    }
    put_le(out, static_cast<uint32_t>(-2494000), 4);
    return out;
}

std::string refusal(const byte_vector& payload) {
    try {
        (void)gpu_record_decode(payload);
        return "accepted";
    } catch (const upload_error& error) {
        return error.what();
    }
}

}  // namespace

TEST(GpuRecord, SamplesWithAndWithoutZoneFollowEachOther) {
    const auto record = gpu_record_decode(gpu_sample(3610) + gpu_sample(0x80000000 | 3620, -570) +
                                          gpu_sample(3630, 0, uint64_t{1} << 40));
    ASSERT_EQ(record.samples.size(), 3u);
    EXPECT_EQ(record.samples[0].timezone_min, std::nullopt);
    EXPECT_EQ(record.samples[1].timezone_min, -570);
    EXPECT_EQ(record.samples[1].uptime_100ms, 3620u);
    EXPECT_EQ(record.samples[2].levels.at(1).time, uint64_t{1} << 40);
    EXPECT_EQ(record.samples[2].charge_counter_uah, -2494000);
}

TEST(GpuRecord, PayloadCutInsideASampleIsRefused) {
    const auto first = gpu_sample(3610);
    const auto payload = first + gpu_sample(0x80000000 | 3620, 60);
    for (size_t size = 1; size < payload.size(); size++) {
        const byte_vector cut(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(size));
        if (size == first.size())
            EXPECT_EQ(refusal(cut), "accepted");
        else
            EXPECT_THAT(refusal(cut), HasSubstr("payload offset ")) << size;
    }
}

TEST(GpuRecord, LevelCountThatLiesIsRefusedWhereItStands) {
    for (const uint32_t count : {1u, 3u, 0xFFFFFFFFu}) {
        auto payload = gpu_sample(3610);
        byte_vector field;
        put_le(field, count, 4);
        std::copy(field.begin(), field.end(), payload.begin() + 12);
        EXPECT_THAT(refusal(payload), HasSubstr("payload offset ")) << count;
    }
}

TEST(GpuRecord, FirstSampleDamagedByARewrittenFirstLineCostsOnlyThatSample) {
    for (const uint32_t stamp : {3610u, 0x80000000u | 3610u}) {
        const auto first = gpu_sample(stamp, 60);
        const auto payload = first + gpu_sample(3620) + gpu_sample(3630);
        for (size_t lost = 1; lost <= 15; lost++) {
            // The other half of the stamp and the zone then read as a stamp without zone.
            if (lost == 2 && stamp >> 31) continue;
            const byte_vector rest(payload.begin() + static_cast<ptrdiff_t>(lost), payload.end());
            const auto record = gpu_record_decode(rest);
            ASSERT_EQ(record.samples.size(), 2u) << lost;
            EXPECT_EQ(record.skipped_bytes, first.size() - lost);
        }
    }
    const auto record = gpu_record_decode(byte_vector{'0', '\n'} + gpu_sample(1));
    EXPECT_EQ(record.skipped_bytes, 2u);
    EXPECT_EQ(record.samples.size(), 1u);
}

TEST(GpuReport, ResidencyIsTheShareOfTheGrowth) {
    const auto file = upload_parse(upload(gpu_sample(3610) + gpu_sample(3620, 0, 4000), GPU_FILE));
    const auto text = upload_report("file", file, {});
    EXPECT_THAT(text, HasSubstr("GPU statistics"));
    EXPECT_THAT(text, ContainsRegex("23:13:21.0 +37 +257 +-2494.0"));
    EXPECT_THAT(text, ContainsRegex("710 +5 +.0 +0.0\n"));
    EXPECT_THAT(text, ContainsRegex("257 +4000 +.3000 +100.0\n"));
}

TEST(GpuJson, KeysAreThoseOfTheDescription) {
    const auto file = upload_parse(upload(gpu_sample(0x80000000 | 3610, 60), GPU_FILE));
    EXPECT_THAT(upload_json("f", file),
                HasSubstr(R"("records":[{"uptime_100ms":3610,"timezone_min":60,"busy_percent":37,)"
                          R"("clock_hz":257000000,"level_count":2,"levels":[)"
                          R"({"freq_hz":710000000,"time":5},{"freq_hz":257000000,"time":1000}],)"
                          R"("charge_counter_uah":-2494000}])"));
}
