// The traffic table against the linked list that it stands for.
#include "collectors/cpu/network_stats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <chrono>
#include <list>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/files.h"
#include "support/log.h"

namespace {

using row =
    std::tuple<int, int, int, uint32_t, uint32_t>;  // class, UID, set, received, transmitted
constexpr char STATS_FILE[] = "/proc/net/xt_qtaguid/stats";
const std::string HEADER =
    "idx iface acct_tag_hex uid_tag_int cnt_set rx_bytes rx_packets tx_bytes\n";

struct literal_node {
    network_node node;
    uint64_t total;
};

// The list the slow way, step by step.
std::vector<row> literal_result(const std::vector<network_node>& lines) {
    std::list<literal_node> list;
    const auto same_uid = [](const literal_node& a, const network_node& b) {
        return a.node.uid == b.uid;
    };
    for (const network_node& line : lines) {
        const uint64_t bytes = uint64_t{line.received} + line.transmitted;
        if (list.empty()) {
            list.push_back({line, bytes});
            continue;
        }
        auto visited = list.begin();
        bool added = false;
        for (;;) {
            network_node& n = visited->node;
            if (n.iface_class == line.iface_class && n.uid == line.uid &&
                n.counter_set == line.counter_set) {
                n.received += line.received;
                n.transmitted += line.transmitted;
                added = true;
                break;
            }
            const auto next = std::next(visited);
            if (next == list.end() || next->node.uid > line.uid) break;
            visited = next;
        }
        if (!added)
            list.insert(std::next(visited), {line, same_uid(*visited, line) ? visited->total : 0});
        for (literal_node& n : list) {
            if (same_uid(n, line)) n.total += bytes;
        }
    }
    std::vector<literal_node> sorted(list.begin(), list.end());
    for (size_t at = 0; at < sorted.size(); ++at) {
        size_t largest = at;
        for (size_t i = at + 1; i < sorted.size(); ++i) {
            if (sorted[i].total > sorted[largest].total) largest = i;
        }
        std::swap(sorted[at], sorted[largest]);
    }
    std::vector<row> result;
    int run = 1;
    for (size_t i = 0; i < sorted.size(); ++i) {
        const network_node& n = sorted[i].node;
        result.emplace_back(n.iface_class, n.uid, n.counter_set, n.received, n.transmitted);
        if (i + 1 == sorted.size() || sorted[i + 1].node.uid == n.uid) continue;
        if (run == 5) break;
        ++run;
    }
    return result;
}

std::vector<row> rows_of(const network_list& list) {
    std::vector<row> rows;
    for (const network_node& n : list.nodes) {
        rows.emplace_back(n.iface_class, n.uid, n.counter_set, n.received, n.transmitted);
    }
    return rows;
}

TEST(NetworkTable, YieldsWhatTheLinkedListWould) {
    std::mt19937 random(1);
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    network_table table;
    for (int round = 0; round < 20000; ++round) {
        const uint32_t uids = 1 + below(12), spread = 1 + below(400), largest = 1 + below(6);
        std::vector<network_node> lines(below(40));
        for (network_node& line : lines) {
            line = {.iface_class = static_cast<uint8_t>(1 + below(3)),
                    .uid = static_cast<uint16_t>(below(uids) * spread),
                    .counter_set = static_cast<uint8_t>(below(2)),
                    .received = below(50) == 0 ? UINT32_MAX : below(largest),
                    .transmitted = 1 + below(largest)};
        }
        ASSERT_EQ(network_table_begin(&table), 0);
        for (const network_node& line : lines) ASSERT_EQ(netstat_list_add(&table, line), 0);
        network_list list;
        ASSERT_EQ(network_table_rank(&table, &list), 0);
        ASSERT_EQ(rows_of(list), literal_result(lines)) << "round " << round;
    }
}

TEST(NetworkTable, SixthUidIsDroppedWithAllItsNodesAndTheRestKept) {
    std::string text = HEADER + "2 lo 0x0 1 0 9 1 9 1\n3 wlan0 0x0 7 0 0 0 0 0\n";
    for (int uid = 1; uid <= 6; ++uid) {
        for (const char* iface : {"wlan0", "rmnet_data0", "r_rmnet_data1"}) {
            const std::string n = std::to_string(uid);
            text += "4 " + std::string(iface) + " 0x0 " + n + " 1 " + n + "00 1 0 1\n";
        }
    }
    put_files({{STATS_FILE, text}});
    network_table table;
    network_list list;
    ASSERT_EQ(get_network_stats(&table, &list), 0);
    ASSERT_EQ(list.nodes.size(), 15u);
    EXPECT_EQ(rows_of(list).front(), row(1, 6, 1, 600, 0));
    for (const network_node& node : list.nodes) EXPECT_NE(node.uid, 1);
}

TEST(NetworkTable, HundredThousandLinesOfTenThousandUidsInASecond) {
    std::mt19937 random(2);
    std::string text = HEADER;
    for (int i = 0; i < 100000; ++i) {
        char line[128];
        snprintf(line, sizeof line, "%d wlan%u 0x0 %lu %lu %lu 1 %lu 1 0 0 0 0 0 0 0 0 0 0 0 0\n",
                 i + 2, i % 3, 10000 + random() % 10000, random() % 2, random() % 5000,
                 random() % 5000);
        text += line;
    }
    put_files({{STATS_FILE, text}});
    network_table table;
    network_list list;
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(get_network_stats(&table, &list), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_GE(list.nodes.size(), 5u);
}

TEST(NetworkTable, DamagedTableYieldsNothing) {
    struct {
        const char* text;
        const char* logged;
    } const cases[] = {
        {"", "failed to read /proc/net/xt_qtaguid/stats\n"},
        {"header\n2 wlan0 0x0 1 0 5 5 5\n3 wlan0 0x0 1 0 5 5\n", "; line:3; ret:4\n"},
        {"header\n2 wlan0 0x0 1 0 5 5 5\n\n", "; line:3; ret:-1\n"},
        {"header\n2 an_interface_name_of_33_characters_ 0x0 1 0 5 5 5\n", "; line:2; ret:2\n"},
    };
    network_table table;
    network_list list;
    for (const auto& c : cases) {
        platform_test_clear_log();
        put_files({{STATS_FILE, c.text}});
        EXPECT_EQ(get_network_stats(&table, &list), -EINVAL);
        EXPECT_EQ(list.nodes.size(), 0u);
        EXPECT_THAT(log_text(), ::testing::HasSubstr(c.logged));
    }
    put_files({{STATS_FILE, "header only\n"}});
    EXPECT_EQ(get_network_stats(&table, &list), 0);
    EXPECT_EQ(list.nodes.size(), 0u);
}

TEST(NetworkLine, NumbersAreWhatSscanfMakesOfThem) {
    const char* const lines[] = {
        "2 wlan0 0x0 10052 1 11 2 33 4",
        "2 rmnet0 0x0 65536 256 4294967296 x 4294967297",
        "  2\twlan0  0x0\t-1 -1 -1 - +7",
        "2 wlan0 0x0 18446744073709551616 1 99999999999999999999999 5 5",
        "2 a_name_of_just_thirty_one_chars 0x0 1 1 1 1 1",
        "2 a_name_of_thirty_two_characters_ 0x0 1 1 1 1 1",
        "2 wlan0 0x0 1a 1 1 1 1",
        "2 wlan0 0x0 12 - 1 1 1",
        "2 wlan0 0x0",
        "2 wlan0",
        "2",
        "",
        "   ",
    };
    for (const char* line : lines) {
        char iface[32] = "";
        network_node expected, found;
        const int values = sscanf(line, "%*s %31s %*s %hu%hhu%u%*s %u", iface, &expected.uid,
                                  &expected.counter_set, &expected.received, &expected.transmitted);
        EXPECT_EQ(parse_network_line(line, &found), values) << line;
        EXPECT_EQ(
            std::tie(found.uid, found.counter_set, found.received, found.transmitted),
            std::tie(expected.uid, expected.counter_set, expected.received, expected.transmitted))
            << line;
    }
}

}  // namespace
