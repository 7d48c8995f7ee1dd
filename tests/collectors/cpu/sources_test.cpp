// The readers of cores, thermal zones and power against file trees, and the text helpers under
// them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "collectors/cpu/cpu_times.h"
#include "collectors/cpu/power_stats.h"
#include "collectors/cpu/thermal_stats.h"
#include "support/files.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;

namespace {

TEST(CpuCount, NumberBehindTheFirstDashPlusOneAndNothingAbsurd) {
    struct {
        const char* text;
        int32_t count;
    } const cases[] = {{"0-7\n", 8},
                       {"0-3,5-9", 4},
                       {"0", -1},
                       {"-7", -1},
                       {"0-", -1},
                       {"0--3", 4},
                       {"", -1},
                       {"0-1023", 1024},
                       {"0-1024", -1},
                       {"0-4294967295", -1},
                       {"0-99999999999999999999", -1}};
    for (const auto& c : cases) EXPECT_EQ(parse_cpu_possible(c.text), c.count) << c.text;

    put_files({{"/sys/devices/system/cpu/possible", "0\n"}});
    EXPECT_EQ(read_cpu_count(), -1);
    EXPECT_THAT(log_text(), HasSubstr("Invalid file format. err:"));
    EXPECT_THAT(log_text(), HasSubstr("failed to get number of cpus\n"));
}

struct stat_case {
    std::string text;
    int result;
    uint32_t user_0, user_3;
    const char* logged;
};

TEST(CpuTimes, OfflineCoresLongLinesAndDamage) {
    const std::string cpu0 = "cpu  9 9 9 9 9 9 9 9\ncpu0 1 2 3 4 5 6 7 8 9\n";
    const stat_case cases[] = {
        {cpu0 + "cpu1 1 1 1 1 1 1 1\ncpu2 1 1 1 1 1 1 1\ncpu3 8 1 1 1 1 1 4294967297\n", 0, 1, 8,
         ""},
        {cpu0 + "cpu3 8 1 1 1 1 1 1\nintr 5\nctxt 6\n", 0, 1, 8, ""},
        {cpu0 + "cpu4 8 1\ncpu77 1\nprocs\n", 0, 1, 0, ""},
        {cpu0 + std::string(600, 'i') + "\ncpu3 8 1 1 1 1 1 1\n", 0, 1, 8, ""},
        {cpu0 + std::string(1100, 'i') + "\ncpu3 8 1 1 1 1 1 1\n", 0, 1, 0,
         ""},  // three lines of it
        {cpu0 + "cpu3 8 1 1 1 1 1\nx\ny\n", -EINVAL, 1, 8, "Invalid stat file format. err:"},
        {cpu0 + "cpu3 8 1 1 1 1 1 1\nx\n", -EINVAL, 1, 8, "failed to read /proc/stat\n"},
        {"", -EINVAL, 0, 0, "failed to read /proc/stat\n"},
    };
    for (const stat_case& c : cases) {
        put_files({{"/proc/stat", c.text}});
        platform_test_clear_log();
        cpu_times slots[4] = {};
        EXPECT_EQ(read_cpu_times(slots, 4), c.result) << c.text;
        EXPECT_EQ(slots[0].user, c.user_0) << c.text;
        EXPECT_EQ(slots[3].user, c.user_3) << c.text;
        EXPECT_THAT(log_text(), HasSubstr(c.logged));
    }
}

TEST(Thermal, UnreadableZonesAreLeftOutAndTextIsNoTemperature) {
    fs::remove_all("/sys/class/thermal");
    thermal_list list;
    EXPECT_NE(get_thermal_stats(&list), 0);
    EXPECT_EQ(log_text(), "get_thermal_stats: failed to open thermal zone. err:2\n");
    platform_test_clear_log();
    put_files({{"/sys/class/thermal/thermal_zone3/temp", "45000\n"},
               {"/sys/class/thermal/thermal_zone3/type", "cpu-0-0-usr\n"},
               {"/sys/class/thermal/thermal_zone4/type", "no temperature\n"},
               {"/sys/class/thermal/thermal_zone5/temp", "1\n"},
               {"/sys/class/thermal/thermal_zone6/temp", "hot\n"},
               {"/sys/class/thermal/thermal_zone6/type", "cpu-0-0-usr\n"},
               {"/sys/class/thermal/cooling_device0/temp", "1\n"}});
    ASSERT_EQ(get_thermal_stats(&list), 0);
    ASSERT_EQ(list.zones.size(), 2u);
    EXPECT_EQ(list.zones[0].temperature ^ list.zones[1].temperature, 45000 ^ TEMPERATURE_INVALID);
    EXPECT_EQ(std::string(list.names.data(), list.names.size()),
              std::string("cpu-0-0-usr\0cpu-0-0-usr\0", 24));
    EXPECT_THAT(
        log_text(),
        HasSubstr("failed to open /sys/class/thermal/thermal_zone4/temp. err:2\n"
                  "get_thermal_stats: failed to read /sys/class/thermal/thermal_zone4/temp\n"));
    EXPECT_THAT(
        log_text(),
        HasSubstr("get_thermal_stats: failed to read /sys/class/thermal/thermal_zone5/type\n"));

    for (int i = 0; i < 700; ++i) {
        const std::string dir = "/sys/class/thermal/thermal_zone" + std::to_string(100 + i) + "/";
        put_files({{dir + "temp", std::to_string(i)}, {dir + "type", "zone"}});
    }
    ASSERT_EQ(get_thermal_stats(&list), 0);
    EXPECT_EQ(list.zones.size(), 702u);
}

TEST(Power, EachMissingSourceHasItsMarkAndItsMessage) {
    const file_tree all = {{"/sys/class/power_supply/bms/charge_counter", "2873000\n"},
                           {"/sys/class/power_supply/battery/capacity", "87\n"},
                           {"/sys/class/power_supply/battery/status", "Not charging\n"},
                           {"/sys/class/leds/lcd-backlight/brightness", "143\n"}};
    const char* const messages[] = {"f: failed to read bms cc\n",
                                    "f: failed to read battery level\n",
                                    "f: failed to read chg status\n", ""};
    fs::remove_all("/sys/class/backlight");
    put_files({{"/sys/class/backlight/panel0-backlight/brightness", "9\n"}});
    for (size_t missing = 0; missing <= all.size(); ++missing) {
        put_files(all);
        if (missing < all.size()) fs::remove(all[missing].path);
        platform_test_clear_log();
        const power_values values = read_power_values("f");
        EXPECT_EQ(values.charge_counter_uAh, missing == 0 ? 0 : 2873000);
        EXPECT_EQ(values.capacity_percent, missing == 1 ? 127 : 87);
        EXPECT_EQ(values.charge_status, missing == 2 ? 0u : 3u);
        EXPECT_EQ(values.brightness, missing == 3 ? 9 : 143);
        if (missing == all.size()) break;
        EXPECT_THAT(log_text(), HasSubstr(messages[missing]));
    }
    fs::remove_all("/sys/class/backlight");
    fs::remove_all("/sys/class/leds");
    EXPECT_EQ(read_power_values("f").brightness, 1020);
    EXPECT_THAT(log_text(), HasSubstr("f: failed to read backlight level\n"));
}

}  // namespace
