// A sample's bytes, and the plain decisions behind it.
#include "collectors/cpu/cpu_sample.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "collectors/cpu/power_stats.h"
#include "support/gzip.h"

namespace {

std::string put(const cpu_sample& sample, size_t len) {
    std::string out(len, '?');
    uint8_t* begin = reinterpret_cast<uint8_t*>(out.data());
    EXPECT_EQ(cpu_sample_put(begin, sample), begin + len);
    return hex(out);
}

TEST(CpuSample, BytesOfEveryFieldInOrder) {
    const cpu_times times[2] = {{1, 2, 3, 4, 5, 6, 7}, {0x01020304, 0, 0, 0, 0, 0, 0xFFFFFFFF}};
    const int32_t frequencies[2] = {300000, -1};
    const network_node network[1] = {{NETWORK_RMNET, 10052, 1, 0x11223344, 0x55667788}};
    thermal_list thermal;
    ASSERT_EQ(thermal_list_add(&thermal, "cpu-0-0-usr", 11, 45000), 0);
    ASSERT_EQ(thermal_list_add(&thermal, "", 0, TEMPERATURE_INVALID), 0);
    const cpu_sample sample{.time_stamp = 0x80000010,
                            .timezone_min = -210,
                            .cpu_count = 2,
                            .times = times,
                            .frequencies_kHz = frequencies,
                            .charge_counter_uAh = -2,
                            .power_word = 0xFF21,
                            .thermal = &thermal,
                            .network = network,
                            .network_count = 1,
                            .process_count = 3};
    const std::string expected = bytes(
        "10000080 2eff 02000000"
        "01000000 02000000 03000000 04000000 05000000 06000000 07000000"
        "04030201 00000000 00000000 00000000 00000000 00000000 ffffffff"
        "e0930400 ffffffff feffffff 21ff 0200"
        "6370752d302d302d757372 00 c8af0000 00 efbeadde"
        "0100 02 4427 01 44332211 88776655 0300");
    EXPECT_EQ(cpu_sample_base_len(true, 2, thermal), 2 * 32 + 20 + 2 + 16 + 5u);
    EXPECT_EQ(put(sample, expected.size()), hex(expected));

    cpu_sample same_zone = sample;
    same_zone.time_stamp = 0x10;
    same_zone.network_count = 0;
    const size_t len = cpu_sample_base_len(false, 2, thermal);
    EXPECT_EQ(len, expected.size() - 2 - NETWORK_ROW_LEN);
    EXPECT_EQ(put(same_zone, len).substr(0, 16), "1000000002000000");
}

TEST(PowerWord, KeepsTheHighBrightnessBitsAndMarksWhatIsUnknown) {
    EXPECT_EQ(pack_power_word({.capacity_percent = 100, .charge_status = 1, .brightness = 255}),
              0xFF21);
    EXPECT_EQ(pack_power_word({}), 0xFC00 | 127 << 3);
    EXPECT_EQ(pack_power_word({.capacity_percent = -1, .charge_status = 4, .brightness = -1}),
              0xFC00 | 127 << 3 | 4);
    EXPECT_EQ(pack_power_word({.capacity_percent = 0, .brightness = 3}), 0);
}

TEST(PowerTrigger, FiresEveryThreeMinutesAndWhileCharging) {
    struct step {
        uint64_t now_ms;
        int32_t counter_uAh;
        bool snapshot;
    };
    const std::vector<std::vector<step>> cases = {
        {{1000, 500, false},
         {2000, 500, false},
         {180000, 500, false},
         {180001, 500, true},
         {360001, 500, false},
         {360002, 500, true}},
        // 301 mA over one second are 83.6 uAh: 84 is above it, 83 is not.
        {{1000, 0, false},
         {2000, 83, false},
         {3000, 167, true},
         {4000, 251, true},
         {5000, 251, false}},
        // Twice in a millisecond: no current is known, and the counter counts from there.
        {{1000, 0, false},
         {1000, 1000000, false},
         {2000, 1000000, false},
         {2000, INT32_MIN, false},
         {2001, INT32_MAX, true}},
    };
    for (const auto& steps : cases) {
        power_trigger trigger;
        for (const step& s : steps) {
            power_trigger_update(&trigger, s.now_ms, s.counter_uAh);
            EXPECT_EQ(trigger.snapshot, s.snapshot) << "at " << s.now_ms;
        }
    }
}

}  // namespace
