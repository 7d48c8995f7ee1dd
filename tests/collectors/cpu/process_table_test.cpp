// The process table against the walk that it stands for, and the process block's bytes.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <bit>
#include <random>
#include <string>
#include <vector>

#include "collectors/cpu/vexapslist.h"
#include "support/gzip.h"
#include "support/log.h"

namespace {

struct process {
    int32_t pid = 0;
    std::array<uint64_t, 4> times{};
    float load = 0;
    uint8_t tick = 0;
};

// The table the slow way, step by step.
struct literal_table {
    std::vector<process> processes;
    uint8_t tick = 0;

    void insert(process p) {
        p.tick = tick;
        auto at = processes.begin();
        while (at != processes.end() && at->pid < p.pid) {
            const int age = tick - at->tick + (tick < at->tick ? 2 : 0);
            at = (age & 0xFF) >= 6 ? processes.erase(at) : at + 1;
        }
        if (at == processes.end() || at->pid != p.pid) {
            processes.insert(at, p);
        } else if (const int ticks = tick - at->tick; ticks != 0) {
            uint64_t sum = 0;
            for (size_t i = 0; i < 4; ++i) sum += p.times[i] - at->times[i];
            const float value = static_cast<float>(sum) / static_cast<float>(ticks);
            const float past = at->load * std::bit_cast<float>(0x3E4CCCCC);
            const float present = value * std::bit_cast<float>(0x3F4CCCCD);
            p.load = at->load == 0 ? value : past + present;
            *at = p;
        }
    }
    std::string text() const {
        std::string all;
        for (const process& p : processes)
            all += std::to_string(p.pid) + ":" + std::to_string(p.load) + " ";
        return all;
    }
};

struct ProcessTable : testing::Test {
    ProcessTable() {
        vexa_init_proc_tbl(&table);
        testing::internal::CaptureStdout();
    }
    ~ProcessTable() override {
        const std::string text = traced();
        if (HasFailure()) fputs(text.c_str(), stdout);
    }
    std::string traced() {
        return std::exchange(is_captured, false) ? testing::internal::GetCapturedStdout() : "";
    }
    void scan() { vexa_inc_proc_tbl_tick(&table); }
    void insert(const process& p, const std::string& name = {}, uint32_t uid = 0) {
        unique_proc_entry entry = vexa_make_proc_entry(&table);
        entry->pid = p.pid;
        entry->uid = uid;
        entry->user_time = p.times[0];
        entry->system_time = p.times[1];
        entry->child_user_time = p.times[2];
        entry->child_system_time = p.times[3];
        strcpy(entry->name, (name.empty() ? std::to_string(p.pid) : name).c_str());
        vexa_insert_proc_tbl_entry(&table, std::move(entry));
    }
    std::string block(network_list* network = nullptr) const {
        uint16_t count = 0;
        uint64_t size = 0, written = 0;
        EXPECT_EQ(vexaps_store_ps_info(table, nullptr, network, &count, &size, UINT64_MAX), 0);
        std::string bytes(size, '\0');
        EXPECT_EQ(vexaps_store_ps_info(table, reinterpret_cast<uint8_t*>(bytes.data()), network,
                                       &count, &written, size),
                  0);
        EXPECT_EQ(written, count == 0 ? 0 : size - 4 * NETWORK_ROW_LEN)
            << "the last process has no rows";
        EXPECT_EQ(count, table.count);
        return bytes;
    }
    std::string text() const {
        std::string all;
        for (size_t i = 0; i < table.count; ++i)
            all += std::to_string(table.slots[i].pid) + ":" +
                   std::to_string(table.slots[i].entry->load) + " ";
        return all;
    }

    proc_table table;
    bool is_captured = true;
};

TEST_F(ProcessTable, HoldsWhatTheWalkWouldForListingsInAnyOrder) {
    std::mt19937 random(3);
    literal_table literal;
    std::vector<process> alive;
    for (int round = 0; round < 6000; ++round) {
        const unsigned steps = random() % 8 == 0 ? random() % 7 : 1;
        literal.tick = static_cast<uint8_t>(literal.tick + steps);
        for (unsigned i = 0; i < steps; ++i) scan();
        // Some processes come, some go, and some hide for a while.
        if (alive.size() < 30) alive.push_back({.pid = static_cast<int32_t>(1 + random() % 60)});
        if (random() % 3 == 0) alive.erase(alive.begin() + random() % alive.size());
        std::sort(alive.begin(), alive.end(),
                  [](const process& a, const process& b) { return a.pid < b.pid; });
        std::vector<process> listing;
        const unsigned hidden = random() % 4;
        for (process& p : alive) {
            for (uint64_t& time : p.times) time += random() % 10 == 0 ? random() % 3 : 0;
            if (random() % 4 >= hidden) listing.push_back(p);
            if (random() % 50 == 0 && !listing.empty()) listing.back().times = {};
        }
        const unsigned order = random() % 4;
        if (order == 0) std::shuffle(listing.begin(), listing.end(), random);
        if (order == 1) std::reverse(listing.begin(), listing.end());
        for (const process& p : listing) {
            literal.insert(p);
            insert(p);
            const bool known = std::any_of(literal.processes.begin(), literal.processes.end(),
                                           [&](const process& q) { return q.pid == p.pid + 1; });
            ASSERT_EQ(vexa_process_in_table(table, p.pid + 1), known ? 1 : 0);
        }
        ASSERT_EQ(text(), literal.text()) << "round " << round;
    }
}

TEST_F(ProcessTable, ProcessBeforeAKnownOneAndAHighLoadAreTracedAndSteerNoTerminal) {
    for (const int32_t pid : {30, 40, 20})
        insert({.pid = pid}, pid == 30 ? "a\x1b[2J\n\x7f\u009b" : "b");
    scan();
    insert({.pid = 20, .times = {1}});
    insert({.pid = 30, .times = {0, 2}}, "*");
    scan();
    insert({.pid = 40, .times = {0, 0, 0, 1}});  // 0.5 is not enough
    EXPECT_EQ(traced(),
              "New PID 20\nTick 1 PID 20 b CPU 1\n"
              "Tick 1 PID 30 a\\x1b[2J\\x0a\\x7f\\xc2\\x9b CPU 2\n");
}

// ---- The process block

TEST_F(ProcessTable, BlockReportsAUidsTrafficOnceAndNoRowsForTheLastProcess) {
    insert({.pid = 1}, "ab", 10001);
    insert({.pid = 2}, "c", 10001 + 65536);  // the same UID on 16 bits
    insert({.pid = 3}, "d", 5);
    scan();
    insert({.pid = 1, .times = {3}});
    insert({.pid = 2, .times = {132}});
    network_list network;
    for (const network_node& node :
         {network_node{1, 10001, 0, 0x1234, 0x56}, {2, 5, 1, 7, 8}, {2, 10001, 1, 9, 0}})
        ASSERT_TRUE(network.nodes.push_back(node));
    const std::string no_rows(48, '\0');
    EXPECT_EQ(hex(block(&network)),
              hex(bytes("616200 dc05 00 01112700 34120000 56000000 02112701 09000000 00000000") +
                  no_rows.substr(24) +
                  bytes("6300 ffff 00 01112700 00000000 00000000 02112701 00000000 00000000") +
                  no_rows.substr(24) + bytes("6400 0000 00") + no_rows));
    EXPECT_EQ(network.nodes[1].received, 0u) << "taken, though its row is not written";
}

TEST_F(ProcessTable, FifthNodeOfAUidIsLoggedAndLeftOut) {
    insert({.pid = 1}, "a", 10077);
    insert({.pid = 2}, "b", 3);
    network_list network;
    for (uint8_t i = 0; i < 6; ++i)
        ASSERT_TRUE(
            network.nodes.push_back({static_cast<uint8_t>(i % 3 + 1), 10077, 0, i + 1u, 0}));
    block(&network);
    const std::string said = "E vexastatsd: >4 Entries in NW table for UID 10077\n";
    size_t seen = 0;
    EXPECT_EQ(log_lines(&seen), said + said) << "sizing, writing";
    EXPECT_EQ(network.nodes[3].received, 0u);
    EXPECT_EQ(network.nodes[4].received, 5u);
}

TEST_F(ProcessTable, BlockNeverLeavesItsLimit) {
    insert({.pid = 1}, "first");
    insert({.pid = 2}, std::string(255, 'x'));
    const std::string whole = block();
    ASSERT_EQ(whole.size(), 5 + 255 + 2 * 52u);
    uint16_t count = 0;
    EXPECT_EQ(vexaps_store_ps_info(table, nullptr, nullptr, &count, nullptr, 1), -EINVAL);
    uint64_t written = 0;
    EXPECT_EQ(vexaps_store_ps_info(table, nullptr, nullptr, nullptr, &written, 1), -EINVAL);
    for (uint64_t limit = 0; limit <= whole.size(); ++limit) {
        std::vector<uint8_t> buffer(limit + 1, 0xAA);
        size_t seen = platform_test_log().size();
        ASSERT_EQ(vexaps_store_ps_info(table, buffer.data(), nullptr, &count, &written, limit), 0);
        ASSERT_LE(written, limit);
        ASSERT_EQ(buffer[limit], 0xAA) << "limit " << limit;
        const std::string said = "E vexastatsd: Exceed PS Data Buf ";
        const std::string found = log_lines(&seen);
        ASSERT_EQ(found.substr(0, said.size()), limit < 5 + 52 + 256 ? said : "") << limit;
        ASSERT_TRUE(limit != 0 || found == said + "6 Max 0\n") << found;
    }
}

}  // namespace
