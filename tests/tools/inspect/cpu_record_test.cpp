// The CPU record, decoded and shown.
#include "cpu_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "record_formats.h"
#include "upload_writer.h"

using testing::ContainsRegex;
using testing::DoubleNear;
using testing::HasSubstr;
using testing::Not;
using testing::Optional;

namespace {

std::string refusal(const byte_vector& payload) {
    try {
        (void)cpu_record_decode(payload);
        return "accepted";
    } catch (const upload_error& error) {
        return error.what();
    }
}

std::string report(const byte_vector& payload, const report_options& options = {}) {
    return upload_report("file", upload_parse(upload(payload)), options);
}

const sample_fields with_network = {.network = {network_entry(2, 10001, 0, 7, 8)}};
const sample_fields with_processes = {
    .processes = {process_entry("init", 250, 3), process_entry("app", 5000, 2)}};

void overwrite(byte_vector* bytes, size_t at, uint32_t value, int width) {
    byte_vector field;
    put_le(field, value, width);
    std::copy(field.begin(), field.end(), bytes->begin() + static_cast<ptrdiff_t>(at));
}

}  // namespace

TEST(CpuRecord, SamplesOfDifferentLengthFollowEachOtherWithoutAGap) {
    const auto record =
        cpu_record_decode(sample(with_network) + sample(with_processes) + sample() +
                          sample({.stamp = 0x80000000 | 3612, .timezone_min = -570}));
    ASSERT_EQ(record.samples.size(), 4u);
    EXPECT_EQ(record.skipped_bytes, 0u);
    EXPECT_EQ(record.samples[0].network.at(0).uid, 10001);
    EXPECT_EQ(record.samples[1].processes.at(1).name, "app");
    EXPECT_EQ(record.samples[1].processes.at(1).load_x500, 5000);
    EXPECT_EQ(record.samples[2].timezone_min, std::nullopt);
    EXPECT_EQ(record.samples[3].uptime_100ms, 3612u);
    EXPECT_EQ(record.samples[3].timezone_min, -570);
}

TEST(CpuRecord, UnusedNetworkRowsOfAProcessAreNotTraffic) {
    const auto payload =
        sample({.processes = {process_entry("a", 1, 0, {network_entry(1, 10001, 1, 5, 6)}),
                              process_entry("b", 1, 0)}});
    const auto processes = cpu_record_decode(payload).samples.at(0).processes;
    ASSERT_EQ(processes.at(0).network.size(), 1u);
    EXPECT_EQ(processes[0].network[0].tx_bytes, 6u);
    EXPECT_TRUE(processes[1].network.empty());
}

TEST(CpuRecord, PayloadCutInsideASampleIsRefused) {
    const auto first = sample(with_network);
    const auto payload = first + sample(with_processes);
    for (size_t size = 1; size < payload.size(); size++) {
        const byte_vector cut(payload.begin(), payload.begin() + static_cast<ptrdiff_t>(size));
        if (size == first.size())
            EXPECT_EQ(refusal(cut), "accepted");
        else
            EXPECT_THAT(refusal(cut), HasSubstr("payload offset ")) << size;
    }
}

TEST(CpuRecord, CountThatLiesIsRefusedWhereItStands) {
    // In a sample for two CPUs with one zone named "bat" and nothing else.
    constexpr size_t cpus_at = 4, zones_at = 78, network_at = 88, processes_at = 90;
    struct {
        size_t at;
        int width;
        uint32_t value;
        const char* message;
    } const cases[] = {
        {cpus_at, 4, 0, "payload offset 4: cpu_count is 0"},
        {cpus_at, 4, 1, "payload offset "},
        {cpus_at, 4, 3, "payload offset "},
        {cpus_at, 4, 0xFFFFFFFF,
         "payload offset 4: cpu_count is 4294967295, but only 84 bytes follow"},
        {zones_at, 2, 2, "payload offset "},
        {zones_at, 2, 0xFFFF, "payload offset 78: the thermal zone count is 65535"},
        {network_at, 2, 1, "payload offset 88: the network entry count is 1"},
        {network_at, 2, 0xFFFF, "payload offset 88: the network entry count is 65535"},
        {processes_at, 2, 1, "payload offset 90: the process count is 1, but only 0 bytes follow"},
        {processes_at, 2, 0xFFFF, "payload offset 90: the process count is 65535"},
    };
    for (const auto& c : cases) {
        auto payload = sample();
        overwrite(&payload, c.at, c.value, c.width);
        EXPECT_THAT(refusal(payload), HasSubstr(c.message)) << "at " << c.at << ": " << c.value;
    }
}

TEST(CpuRecord, NameWithoutItsZeroByteIsRefused) {
    auto payload = sample({.processes = {process_entry(
                               "a", 0x0101, 1, std::vector<byte_vector>(4, byte_vector(12, 1)))}});
    payload[92 + 1] = 'b';
    EXPECT_THAT(refusal(payload),
                HasSubstr("payload offset 92: a process's name has no zero byte"));
}

TEST(CpuRecord, SampleWithAnotherCpuCountIsRefused) {
    const sample_fields one_cpu = {.times = {{1, 2, 3, 4, 5, 6, 7}}, .freq_khz = {1000}};
    EXPECT_THAT(refusal(sample() + sample(one_cpu)), HasSubstr("a sample with another CPU count"));
}

TEST(CpuRecord, FirstSampleOverwrittenByALongerFirstLineCostsOnlyThatSample) {
    for (const uint32_t stamp : {3610u, 0x80000000u | 3610u}) {
        const auto first = sample({.stamp = stamp, .timezone_min = 60});
        const auto payload = first + sample(with_network) + sample(with_processes);
        for (size_t lost = 1; lost <= 15; lost++) {
            // The other half of the stamp and the zone then read as a stamp without zone.
            if (lost == 2 && stamp >> 31) continue;
            const byte_vector rest(payload.begin() + static_cast<ptrdiff_t>(lost), payload.end());
            const auto record = cpu_record_decode(rest);
            ASSERT_EQ(record.samples.size(), 2u) << lost;
            EXPECT_EQ(record.skipped_bytes, first.size() - lost);
            EXPECT_EQ(record.samples[0].network.size(), 1u);
        }
    }
}

TEST(CpuRecord, EndOfALongerFirstLineInFrontOfTheSamplesIsSkipped) {
    const auto record = cpu_record_decode(byte_vector{'0', '\n'} + sample() + sample());
    EXPECT_EQ(record.skipped_bytes, 2u);
    EXPECT_EQ(record.samples.size(), 2u);
}

TEST(CpuLoad, IsTheBusyShareBetweenTwoSamples) {
    const auto percent = [](cpu_record_times before, cpu_record_times after) {
        return cpu_load_percent(before, after);
    };
    constexpr uint32_t near_wrap = 0xFFFFFFF0;
    // user nice system idle iowait irq softirq
    EXPECT_THAT(percent({{1, 1, 1, 1, 1, 1, 1}}, {{11, 1, 11, 51, 31, 1, 1}}),
                Optional(DoubleNear(20, 1e-9)));
    EXPECT_THAT(percent({{near_wrap, 0, 0, 9, 0, 0, 0}}, {{near_wrap + 32, 0, 0, 9, 0, 0, 0}}),
                Optional(DoubleNear(100, 1e-9)))
        << "counter that wraps";
    EXPECT_THAT(percent({{10, 0, 0, 50, 0, 0, 0}}, {{20, 0, 0, 49, 0, 0, 0}}),
                Optional(DoubleNear(100, 1e-9)))
        << "idle counter that steps back";
    EXPECT_EQ(percent({{5, 5, 5, 5, 5, 5, 5}}, {{5, 5, 5, 5, 5, 5, 5}}), std::nullopt)
        << "same tick";
    EXPECT_EQ(percent({}, {{5, 5, 5, 5, 5, 5, 5}}), std::nullopt) << "was offline";
    EXPECT_EQ(percent({{5, 5, 5, 5, 5, 5, 5}}, {}), std::nullopt) << "went offline";
}

TEST(CpuReport, LoadIsComputedFromTheRowAbove) {
    const std::vector<uint32_t> offline(7);
    const auto text =
        report(sample({.stamp = 3610, .times = {{100, 0, 0, 1000, 0, 0, 0}, offline}}) +
               sample({.stamp = 3620, .times = {{125, 0, 0, 1075, 0, 0, 0}, offline}}));
    EXPECT_THAT(text, ContainsRegex("23:13:21.0 +- +off"));
    EXPECT_THAT(text, ContainsRegex("23:13:22.0 +25 +off"));
}

TEST(CpuReport, TimesFollowAChangeOfTheTimeZone) {
    const auto text =
        report(sample({.stamp = 3610}) + sample({.stamp = 0x80000000 | 3620, .timezone_min = -90}) +
               sample({.stamp = 3630}));
    for (const char* time : {"23:13:21.0", "20:43:22.0", "20:43:23.0"})
        EXPECT_THAT(text, HasSubstr(time));
}

TEST(CpuReport, MarksForUnknownValuesAreNotShownAsValues) {
    const auto text = report(
        sample({.power = 0xFC00 | 127 << 3, .zones = {{"bat", static_cast<int32_t>(0xDEADBEEF)}}}));
    EXPECT_THAT(text, ContainsRegex("unknown +unknown +full or unknown"));
    EXPECT_THAT(text, ContainsRegex("bat +unknown"));
    EXPECT_THAT(text, Not(HasSubstr("559038")));
}

TEST(CpuReport, ProcessesComeByLoadInPerCentOfOneCpu) {
    // 10 scans' ticks times 500: a tenth of a CPU is 100 of 1000 ticks.
    const auto text = report(
        sample(
            {.processes = {process_entry("small", 500, 1), process_entry("large", 50000, 2),
                           process_entry("over the top", 65535, 0), process_entry("none", 0, 3)}}),
        {.max_processes = 3});
    EXPECT_THAT(
        text,
        ContainsRegex(
            ">13.1 +over the top +foreground\n +10.0 +large +top app\n +0.1 +small +background"));
    EXPECT_THAT(text, Not(HasSubstr("none  other")));
}

TEST(CpuReport, EmptyRowsOfLaterProcessesDoNotHideTheTrafficOfTheirUid) {
    const auto text = report(
        sample({.network = {network_entry(1, 10001, 1, 1000, 500)}}) +
        sample({.processes = {process_entry("a", 1, 0, {network_entry(1, 10001, 1, 1700, 600)}),
                              process_entry("b", 1, 0, {network_entry(1, 10001, 1, 0, 0)})}}));
    EXPECT_THAT(text, ContainsRegex("10001 +wlan +foreground +1700 +600 +.700 +.100"));
}

TEST(CpuReport, NameCannotSteerTheTerminal) {
    const auto text = report(sample({.processes = {process_entry("\x1b[2J\xffx", 1, 1)}}));
    EXPECT_THAT(text, HasSubstr("\\x1b[2J\\xffx"));
    EXPECT_THAT(text, Not(HasSubstr("\x1b")));
}

TEST(CpuReport, ThinnedTableKeepsTheFirstAndTheLastSample) {
    byte_vector payload;
    for (uint32_t i = 0; i < 50; i++) payload = payload + sample({.stamp = 3610 + i});
    const auto text = report(payload, {.max_rows = 3});
    for (const char* time : {"23:13:21.0", "23:13:23.4", "23:13:25.9"})
        EXPECT_THAT(text, HasSubstr(time));
    EXPECT_THAT(text, Not(HasSubstr("23:13:21.1")));
    EXPECT_THAT(report(payload, {.max_rows = 1}), HasSubstr("23:13:21.0"));
}

TEST(CpuJson, NameThatIsNotUtf8LeavesTheLineValid) {
    const auto payload = sample({.processes = {process_entry("a\xff", 1, 1)}});
    const auto object = nlohmann::json::parse(upload_json("f", upload_parse(upload(payload))));
    EXPECT_EQ(object["records"][0]["processes"][0]["name"], "a\uFFFD");
}

TEST(CpuJson, NameCannotSteerTheTerminal) {
    const std::string name = "\x1b[2J\x7f\u009b2J\u00e4";
    const auto line =
        upload_json(name, upload_parse(upload(sample({.processes = {process_entry(name, 1, 1)}}))));
    EXPECT_TRUE(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c < 0x7f; }));
    const auto object = nlohmann::json::parse(line);
    EXPECT_EQ(object["file"], name);
    EXPECT_EQ(object["records"][0]["processes"][0]["name"], name);
}
