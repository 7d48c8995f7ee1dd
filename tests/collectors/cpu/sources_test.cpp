// The readers of cores and zones against file trees, and the plain decisions about power.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "collectors/cpu/cpu_times.h"
#include "collectors/cpu/power_stats.h"
#include "collectors/cpu/thermal_stats.h"
#include "support/files.h"

namespace {

TEST(CpuCount, NumberBehindTheFirstDashPlusOneAndNothingAbsurd) {
    const struct {
        const char* text;
        int32_t count;
    } cases[] = {{"0-7\n", 8}, {"0-3,5-9", 4},       {"0", -1},
                 {"-7", -1},   {"0-", -1},           {"0--3", 4},
                 {"", -1},     {"0-1023", 1024},     {"0-1024", -1},
                 {"0-0", 1},   {"0-4294967295", -1}, {"0-99999999999999999999", -1}};
    for (const auto& c : cases) EXPECT_EQ(parse_cpu_possible(c.text), c.count) << c.text;
}

// Of four cores; user time of the first and the last.
TEST(CpuTimes, OfflineCoresLongLinesAndDamage) {
    const std::string cpu0 = "cpu  9 9 9 9 9 9 9 9\ncpu0 1 2 3 4 5 6 7 8 9\n";
    const struct {
        std::string text;
        int result;
        uint32_t user_0, user_3;
    } cases[] = {
        {cpu0 + "cpu1 1 1 1 1 1 1 1\ncpu2 1 1 1 1 1 1 1\ncpu3 8 1 1 1 1 1 4294967297\n", 0, 1, 8},
        {cpu0 + "cpu3 8 1 1 1 1 1 1\nintr 5\nctxt 6\n", 0, 1, 8},
        {cpu0 + "cpu4 8 1\ncpu77 1\nprocs\n", 0, 1, 0},
        // A line of 510 characters is one, a longer one is two.
        {cpu0 + std::string(510, 'i') + "\nx\ncpu3 8 1 1 1 1 1 1\n", 0, 1, 8},
        {cpu0 + std::string(511, 'i') + "\nx\ncpu3 8 1 1 1 1 1 1\n", 0, 1, 0},
        {cpu0 + "cpu3 8 1 1 1 1 1\nx\ny\n", -EINVAL, 1, 8},
        {cpu0 + "cpu3 8 1 1 1 1 1 1\nx\n", -EINVAL, 1, 8},
        {"", -EINVAL, 0, 0},
    };
    for (const auto& c : cases) {
        put_files({{"/proc/stat", c.text}});
        cpu_times slots[4] = {};
        EXPECT_EQ(read_cpu_times(slots, 4), c.result) << c.text;
        EXPECT_EQ(slots[0].user, c.user_0) << c.text;
        EXPECT_EQ(slots[3].user, c.user_3) << c.text;
    }
}

TEST(Thermal, UnreadableZonesAreLeftOutAndTextIsNoTemperature) {
    const std::string dir = "/sys/class/thermal/thermal_zone";
    std::filesystem::remove_all("/sys/class/thermal");
    put_files({{dir + "3/temp", "45000\n"},
               {dir + "3/type", "cpu-0-0-usr\n"},
               {dir + "4/type", "no temperature\n"},
               {dir + "5/temp", "1\n"},
               {dir + "6/temp", "hot\n"},
               {dir + "6/type", "cpu-0-0-usr\n"},
               {"/sys/class/thermal/cooling_device0/temp", "1\n"},
               {"/sys/class/thermal/cooling_device0/type", "fan\n"}});
    thermal_list list;
    ASSERT_EQ(get_thermal_stats(&list), 0);
    ASSERT_EQ(list.zones.size(), 2u);
    EXPECT_EQ(list.zones[0].temperature ^ list.zones[1].temperature, 45000 ^ TEMPERATURE_INVALID);
    EXPECT_EQ(std::string(list.names.data(), list.names.size()),
              std::string("cpu-0-0-usr\0cpu-0-0-usr\0", 24));
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
