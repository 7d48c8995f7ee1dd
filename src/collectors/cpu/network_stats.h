// Network traffic by interface class, UID and counter set, from the kernel's traffic accounting.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/grow_array.h"

// Interface classes of a network_node.
enum network_class : uint8_t {
    NETWORK_NONE = 0,
    NETWORK_WLAN = 1,     // "wlan..."
    NETWORK_RMNET = 2,    // "rmnet..."
    NETWORK_R_RMNET = 3,  // "r_rmnet..."
};

// Traffic of one UID on one class of interfaces.
struct network_node {
    uint8_t iface_class = NETWORK_NONE;
    uint16_t uid = 0;
    uint8_t counter_set = 0;  // 0 background, 1 foreground
    uint32_t received = 0;    // bytes, as transmitted
    uint32_t transmitted = 0;
};

// Bytes of a node in a sample, and the node written there: class, UID, set, received, transmitted.
inline constexpr size_t NETWORK_ROW_LEN = 12;
uint8_t* network_row_put(uint8_t* out, const network_node& node);

// The UIDs with the most traffic, most first.
struct network_list {
    grow_array<network_node> nodes{};
};

// The traffic table while it is read. It yields what a linked list would into which each node is
// inserted behind the last one of no larger UID, only that the first node never moves; but the
// place of a node is found through its UID at once.
//
// Traffic that comes for the UIDs 10131, 10010, 10131 (the other set) and 10020 gives nodes 0 to 3.
// Node 0 is the first one and in no group; the groups are 1: {10010: node 1}, 2: {10131: node 2}
// and 3: {10020: node 3}. UID 10010 is 0x271A: pages[page_of[0x27] - 1].groups[0x1A] is 1. Walking
// the pages upwards lists the nodes as the linked list has them: 0, 1, 3, 2.
struct network_table {
    // Nodes of one UID, in the order they came, but for the table's first node.
    struct group {
        uint64_t total = 0;  // bytes both ways
        uint32_t first = 0;  // index of a node
        uint32_t last = 0;
    };
    struct linked_node {
        network_node node{};
        uint32_t next = 0;  // index of the next node in the group; 0: none
    };
    // By the low byte of the UID: index of the group plus 1, or 0.
    struct group_page {
        uint32_t groups[256] = {};
    };
    struct total_of_node {
        uint64_t total = 0;
        uint32_t index = 0;
    };

    grow_array<linked_node> nodes{};
    uint64_t first_total = 0;  // of the first node, which belongs to no group
    grow_array<group> groups{};
    grow_array<group_page> pages{};
    uint32_t page_of[256] = {};  // by the high byte of the UID: index of the page plus 1, or 0
    uint32_t lowest_uid = UINT32_MAX;  // of all groups
    grow_array<total_of_node> ranking{};
};

// Reads the table into `list`, with `table` as its work space. Returns 0, or -EINVAL or -ENOMEM
// with an empty list. All failures are logged. Thread: the collector's.
int get_network_stats(network_table* table, network_list* list);

// The three steps of it. Each returns 0 or -ENOMEM.
int network_table_begin(network_table* table);
int netstat_list_add(network_table* table, const network_node& traffic);
int network_table_rank(network_table* table, network_list* list);

// Parses one line of the traffic table behind its header. Returns the number of values found (5 in
// a valid line), or -1 when the line ends before the first, as sscanf does. The class of a node of
// an interface that is not counted is NETWORK_NONE.
int parse_network_line(std::string_view line, network_node* traffic);
