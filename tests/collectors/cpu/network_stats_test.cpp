// The traffic table against the linked list that it stands for.
#include "collectors/cpu/network_stats.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>

#include <list>
#include <random>
#include <string>
#include <vector>

#include "support/files.h"

namespace {

struct literal_node {
    network_node node;
    uint64_t total;
};

// "class/UID/set received+transmitted" of a node.
std::string text_of(const network_node& n) {
    return std::to_string(n.iface_class) + "/" + std::to_string(n.uid) + "/" +
           std::to_string(n.counter_set) + " " + std::to_string(n.received) + "+" +
           std::to_string(n.transmitted) + "\n";
}
std::string text_of(const network_list& list) {
    std::string text;
    for (const network_node& n : list.nodes) text += text_of(n);
    return text;
}

// The list the slow way, step by step.
std::string literal_result(const std::vector<network_node>& lines) {
    std::list<literal_node> list;
    for (const network_node& line : lines) {
        const uint64_t bytes = uint64_t{line.received} + line.transmitted;
        if (list.empty()) {
            list.push_back({line, bytes});
            continue;
        }
        auto at = list.begin();
        const auto is_same = [&] {
            return at->node.iface_class == line.iface_class && at->node.uid == line.uid &&
                   at->node.counter_set == line.counter_set;
        };
        while (!is_same() && std::next(at) != list.end() && std::next(at)->node.uid <= line.uid)
            ++at;
        if (is_same()) {
            at->node.received += line.received;
            at->node.transmitted += line.transmitted;
        } else {
            list.insert(std::next(at), {line, at->node.uid == line.uid ? at->total : 0});
        }
        for (literal_node& n : list)
            if (n.node.uid == line.uid) n.total += bytes;
    }
    std::vector<literal_node> sorted(list.begin(), list.end());
    std::string text;
    int run = 1;
    for (size_t at = 0; at < sorted.size(); ++at) {
        size_t largest = at;
        for (size_t i = at + 1; i < sorted.size(); ++i)
            if (sorted[i].total > sorted[largest].total) largest = i;
        std::swap(sorted[at], sorted[largest]);
        if (at > 0 && sorted[at].node.uid != sorted[at - 1].node.uid && ++run > 5) break;
        text += text_of(sorted[at].node);
    }
    return text;
}

TEST(NetworkTable, YieldsWhatTheLinkedListWould) {
    std::mt19937 random(1);
    const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    network_table table;
    for (int round = 0; round < 20000; ++round) {
        const uint32_t uids = 1 + below(12), spread = 1 + below(400), largest = 1 + below(6);
        std::vector<network_node> lines(below(40));
        ASSERT_EQ(network_table_begin(&table), 0);
        for (network_node& line : lines) {
            line = {.iface_class = static_cast<uint8_t>(1 + below(3)),
                    .uid = static_cast<uint16_t>(below(uids) * spread),
                    .counter_set = static_cast<uint8_t>(below(2)),
                    .received = below(50) == 0 ? UINT32_MAX : below(largest),
                    .transmitted = 1 + below(largest)};
            ASSERT_EQ(netstat_list_add(&table, line), 0);
        }
        network_list list;
        ASSERT_EQ(network_table_rank(&table, &list), 0);
        ASSERT_EQ(text_of(list), literal_result(lines)) << "round " << round;
    }
}

TEST(NetworkLine, NumbersAreWhatSscanfMakesOfThem) {
    for (const char* line :
         {"2 wlan0 0x0 10052 1 11 2 33 4", "2 rmnet0 0x0 65536 256 4294967296 x 4294967297",
          "  2\twlan0  0x0\t-1 -1 -1 - +7",
          "2 wlan0 0x0 18446744073709551616 1 99999999999999999999999 5 5",
          "2 a_name_of_just_thirty_one_chars 0x0 1 1 1 1 1",
          "2 a_name_of_thirty_two_characters_ 0x0 1 1 1 1 1", "2 wlan0 0x0 1a 1 1 1 1",
          "2 wlan0 0x0 12 - 1 1 1", "2 wlan0 0x0 12 1 - 1 1", "2 wlan0 0x0 12 1 1 1", "2 wlan0 0x0",
          "2 wlan0", "2", "", "   "}) {
        char iface[32] = "";
        network_node expected, found;
        const int values = sscanf(line, "%*s %31s %*s %hu%hhu%u%*s %u", iface, &expected.uid,
                                  &expected.counter_set, &expected.received, &expected.transmitted);
        EXPECT_EQ(parse_network_line(line, &found), values) << line;
        found.iface_class = 0;
        EXPECT_EQ(text_of(found), text_of(expected)) << line;
    }
}

}  // namespace
