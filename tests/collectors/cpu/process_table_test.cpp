// The process table against the walk that it stands for, and the process block's bytes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <random>
#include <string>
#include <vector>

#include "collectors/cpu/vexapslist.h"
#include "support/gzip.h"
#include "support/log.h"

namespace {

struct process {
    int32_t pid;
    uint64_t times[4];
    float load;
    uint8_t tick;
};

// The table the slow way, step by step.
struct literal_table {
    std::vector<process> processes;
    uint8_t tick = 0;

    void insert(process p) {
        p.tick = tick;
        p.load = 0;
        for (size_t at = 0; at < processes.size();) {
            process& known = processes[at];
            if (known.pid > p.pid) {
                processes.insert(processes.begin() + static_cast<ptrdiff_t>(at), p);
                return;
            }
            if (known.pid == p.pid) {
                update(&known, p);
                return;
            }
            if (((tick - known.tick + (tick < known.tick ? 2 : 0)) & 0xFF) >= 6) {
                processes.erase(processes.begin() + static_cast<ptrdiff_t>(at));
            } else {
                ++at;
            }
        }
        processes.push_back(p);
    }

    void update(process* known, const process& p) const {
        const int ticks = tick - known->tick;
        if (ticks == 0) return;
        uint64_t sum = 0;
        for (int i = 0; i < 4; ++i) sum += p.times[i] - known->times[i];
        const float value = static_cast<float>(sum) / static_cast<float>(ticks);
        const float old = known->load;
        known->load = value;
        if (old != 0) {
            const float past = old * std::bit_cast<float>(0x3E4CCCCC);
            const float present = value * std::bit_cast<float>(0x3F4CCCCD);
            known->load = past + present;
        }
        memcpy(known->times, p.times, sizeof p.times);
        known->tick = tick;
    }

    // The loads as they stand in a process block, with the PIDs as names.
    std::string text() const {
        std::string result;
        for (const process& p : processes) {
            const double load = std::clamp(static_cast<double>(p.load) * 500.0, 0.0, 65535.0);
            result += std::to_string(p.pid) + ":" + std::to_string(static_cast<int>(load)) + " ";
        }
        return result;
    }
};

struct block {
    std::string bytes;
    uint16_t count = 0;
};

struct ProcessTable : ::testing::Test {
    void SetUp() override { vexa_init_proc_tbl(&table); }
    void insert(int32_t pid, const uint64_t (&times)[4] = {0, 0, 0, 0},
                const std::string& name = "", uint32_t uid = 0) {
        unique_proc_entry entry = vexa_make_proc_entry(&table);
        entry->pid = pid;
        entry->uid = uid;
        entry->user_time = times[0];
        entry->system_time = times[1];
        entry->child_user_time = times[2];
        entry->child_system_time = times[3];
        const std::string text = name.empty() ? std::to_string(pid) : name;
        strcpy(entry->name, text.c_str());
        vexa_insert_proc_tbl_entry(&table, std::move(entry));
    }

    block write_block(network_list* network = nullptr) {
        block result;
        uint64_t size = 0, written = 0;
        EXPECT_EQ(vexaps_store_ps_info(table, nullptr, network, &result.count, &size, UINT64_MAX),
                  0);
        result.bytes.resize(size);
        EXPECT_EQ(vexaps_store_ps_info(table, reinterpret_cast<uint8_t*>(result.bytes.data()),
                                       network, &result.count, &written, size),
                  0);
        return result;
    }

    std::string table_text() {
        const block b = write_block();
        std::string result;
        for (size_t at = 0; at < b.bytes.size();) {
            const std::string name = b.bytes.c_str() + at;
            at += name.size() + 1;
            const int load =
                static_cast<uint8_t>(b.bytes[at]) | static_cast<uint8_t>(b.bytes[at + 1]) << 8;
            result += name + ":" + std::to_string(load) + " ";
            at += 51;
        }
        return result;
    }

    proc_table table;
};

TEST_F(ProcessTable, HoldsWhatTheWalkWouldForListingsInAnyOrder) {
    ::testing::internal::CaptureStdout();
    std::mt19937 random(3);
    literal_table literal;
    std::vector<process> alive;
    for (int scan = 0; scan < 6000; ++scan) {
        const unsigned steps = random() % 8 == 0 ? random() % 7 : 1;
        for (unsigned i = 0; i < steps; ++i) {
            ++literal.tick;
            vexa_inc_proc_tbl_tick(&table);
        }
        // Some processes come, some go, and some hide for a while.
        if (alive.size() < 30)
            alive.push_back({.pid = static_cast<int32_t>(1 + random() % 60),
                             .times = {},
                             .load = 0,
                             .tick = 0});
        if (random() % 3 == 0 && !alive.empty())
            alive.erase(alive.begin() + random() % alive.size());
        std::sort(alive.begin(), alive.end(),
                  [](const process& a, const process& b) { return a.pid < b.pid; });
        std::vector<process> listing;
        const unsigned hidden = random() % 4;
        for (process& p : alive) {
            for (uint64_t& time : p.times) time += random() % 10 == 0 ? random() % 3 : 0;
            if (random() % 4 >= hidden) listing.push_back(p);
            if (random() % 50 == 0 && !listing.empty())
                memset(listing.back().times, 0, sizeof p.times);
        }
        const unsigned order = random() % 4;
        if (order == 0) std::shuffle(listing.begin(), listing.end(), random);
        if (order == 1) std::reverse(listing.begin(), listing.end());
        for (const process& p : listing) {
            literal.insert(p);
            insert(p.pid, p.times);
            const bool known = std::any_of(literal.processes.begin(), literal.processes.end(),
                                           [&](const process& q) { return q.pid == p.pid + 1; });
            ASSERT_EQ(vexa_process_in_table(table, p.pid + 1), known ? 1 : 0);
        }
        ASSERT_EQ(table_text(), literal.text()) << "scan " << scan;
    }
    ::testing::internal::GetCapturedStdout();
}

TEST_F(ProcessTable, LoadIsSmoothedWithTheStatedWeights) {
    const uint64_t ticks[] = {0, 100, 100};
    for (const uint64_t time : ticks) {
        vexa_inc_proc_tbl_tick(&table);
        insert(7, {time, 0, 0, 0});
    }
    EXPECT_EQ(table_text(), "7:9999 ") << "100 * 0.19999999 is below 20";
    vexa_inc_proc_tbl_tick(&table);
    insert(7);  // its stat was gone: the times wrap around
    EXPECT_EQ(table_text(), "7:65535 ");
}

TEST_F(ProcessTable, MissingForFiveScansStaysAndForSixGoesWithTheNextLargerPid) {
    insert(5);
    insert(9);
    for (int scan = 1; scan <= 6; ++scan) {
        vexa_inc_proc_tbl_tick(&table);
        insert(9);
        EXPECT_EQ(vexa_process_in_table(table, 5), scan < 6 ? 1 : 0) << "scan " << scan;
    }
}

TEST_F(ProcessTable, OnlyAProcessBeforeAKnownOneIsAnnounced) {
    ::testing::internal::CaptureStdout();
    insert(30);
    insert(40);
    insert(20);
    vexa_inc_proc_tbl_tick(&table);
    insert(20, {0, 2, 0, 0}, "*");
    insert(30, {0, 0, 0, 0}, "*");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "New PID 20\nTick 1 PID 20 20 CPU 2\n");
}

TEST_F(ProcessTable, TracedNameCannotSteerTheTerminal) {
    ::testing::internal::CaptureStdout();
    insert(20, {0, 0, 0, 0}, "a\x1b[2J\n\x7f\u009b");
    vexa_inc_proc_tbl_tick(&table);
    insert(20, {0, 2, 0, 0});
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Tick 1 PID 20 a\\x1b[2J\\x0a\\x7f\\xc2\\x9b CPU 2\n");
}

// ---- The process block

network_list traffic(std::vector<network_node> nodes) {
    network_list list;
    for (const network_node& node : nodes) EXPECT_TRUE(list.nodes.push_back(node));
    return list;
}

TEST_F(ProcessTable, BlockReportsAUidsTrafficOnceAndNoRowsForTheLastProcess) {
    insert(1, {}, "ab", 10001);
    insert(2, {}, "c", 10001 + 65536);  // the same UID on 16 bits
    insert(3, {}, "d", 5);
    network_list network =
        traffic({{1, 10001, 0, 0x1234, 0x56}, {2, 5, 1, 7, 8}, {2, 10001, 1, 9, 0}});
    const block b = write_block(&network);
    EXPECT_EQ(b.count, 3);
    const std::string empty_row(24, '0');
    EXPECT_EQ(hex(b.bytes),
              "616200"
              "0000"
              "00"
              "01112700"
              "3412000056000000"
              "02112701"
              "0900000000000000" +
                  empty_row + empty_row +
                  "6300"
                  "0000"
                  "00"
                  "01112700"
                  "0000000000000000"
                  "02112701"
                  "0000000000000000" +
                  empty_row + empty_row +
                  "6400"
                  "0000"
                  "00" +
                  empty_row + empty_row + empty_row + empty_row);
    EXPECT_EQ(network.nodes[1].received, 0u) << "taken, though its row is not written";
}

TEST_F(ProcessTable, FifthNodeOfAUidIsLoggedAndLeftOut) {
    insert(1, {}, "a", 10077);
    insert(2, {}, "b", 3);
    network_list network = traffic({{1, 10077, 0, 1, 0},
                                    {2, 10077, 0, 2, 0},
                                    {3, 10077, 0, 3, 0},
                                    {1, 10077, 1, 4, 0},
                                    {2, 10077, 1, 5, 0},
                                    {3, 10077, 1, 6, 0}});
    write_block(&network);
    EXPECT_EQ(platform_test_log_count(">4 Entries in NW table for UID 10077"), 2u)
        << "sizing, writing";
    EXPECT_EQ(network.nodes[3].received, 0u);
    EXPECT_EQ(network.nodes[4].received, 5u);
}

TEST_F(ProcessTable, BlockNeverLeavesItsLimit) {
    insert(1, {}, "first");
    insert(2, {}, std::string(255, 'x'));
    network_list network = traffic({{1, 0, 0, 1, 1}});
    uint16_t count = 0;
    uint64_t size = 0;
    ASSERT_EQ(vexaps_store_ps_info(table, nullptr, nullptr, &count, &size, UINT64_MAX), 0);
    ASSERT_EQ(size, 5 + 255 + 2 * 52u);
    for (uint64_t limit = 0; limit <= size; ++limit) {
        std::vector<uint8_t> buffer(limit + 1, 0xAA);
        uint64_t written = 0;
        platform_test_clear_log();
        ASSERT_EQ(vexaps_store_ps_info(table, buffer.data(), &network, &count, &written, limit), 0);
        ASSERT_LE(written, limit);
        ASSERT_EQ(buffer[limit], 0xAA) << "limit " << limit;
        if (limit < 5 + 52) {
            ASSERT_THAT(log_text(), ::testing::HasSubstr(" Max " + std::to_string(limit)));
        }
    }
}

}  // namespace
