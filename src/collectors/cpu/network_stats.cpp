#define LOG_TAG "vexastatsd"

#include "collectors/cpu/network_stats.h"

#include <errno.h>
#include <fcntl.h>

#include <algorithm>
#include <utility>

#include "base/line_reader.h"
#include "base/little_endian.h"
#include "base/open_file.h"
#include "base/text_cursor.h"
#include "platform/log.h"

namespace {

constexpr char TRAFFIC_FILE[] = "/proc/net/xt_qtaguid/stats";
constexpr size_t IFACE_MAX_LEN = 31;
constexpr int VALUES_IN_LINE = 5;
constexpr int MAX_UID_RUNS = 5;

struct class_prefix {
    std::string_view prefix;
    network_class value;
};
constexpr class_prefix CLASS_PREFIXES[] = {
    {"wlan", NETWORK_WLAN}, {"rmnet", NETWORK_RMNET}, {"r_rmnet", NETWORK_R_RMNET}};

network_class class_of_iface(std::string_view name) {
    for (const class_prefix& row : CLASS_PREFIXES) {
        if (name.starts_with(row.prefix)) return row.value;
    }
    return NETWORK_NONE;
}

bool same_key(const network_node& a, const network_node& b) {
    return a.iface_class == b.iface_class && a.uid == b.uid && a.counter_set == b.counter_set;
}

void add_traffic(network_node* to, const network_node& traffic) {
    to->received += traffic.received;
    to->transmitted += traffic.transmitted;
}

uint64_t bytes_of(const network_node& node) {
    return uint64_t{node.received} + node.transmitted;
}

network_table::group* find_group(network_table* table, uint16_t uid) {
    const uint32_t page = table->page_of[uid >> 8];
    if (page == 0) return nullptr;
    const uint32_t group = table->pages[page - 1].groups[uid & 0xFF];
    return group == 0 ? nullptr : &table->groups[group - 1];
}

// What the totals of a UID start from that has no node behind the first one yet.
uint64_t initial_total(const network_table& table, uint16_t uid) {
    // Its node comes right behind the first one when no lower UID stands between, and only then
    // learns of a total that the first node has for the same UID: deliberate.
    const bool follows_first = table.lowest_uid > uid;
    return follows_first && table.nodes[0].node.uid == uid ? table.first_total : 0;
}

// Returns null when there is no memory.
network_table::group* make_group(network_table* table, uint16_t uid) {
    uint32_t& page = table->page_of[uid >> 8];
    if (page == 0) {
        if (!table->pages.push_back({})) return nullptr;
        page = static_cast<uint32_t>(table->pages.size());
    }
    if (!table->groups.push_back({.total = initial_total(*table, uid)})) return nullptr;
    table->pages[page - 1].groups[uid & 0xFF] = static_cast<uint32_t>(table->groups.size());
    table->lowest_uid = std::min<uint32_t>(table->lowest_uid, uid);
    return &table->groups[table->groups.size() - 1];
}

network_node* find_node(network_table* table, const network_table::group& group,
                        const network_node& key) {
    for (uint32_t at = group.first; at != 0; at = table->nodes[at].next) {
        if (same_key(table->nodes[at].node, key)) return &table->nodes[at].node;
    }
    return nullptr;
}

// Appends a node to its UID's group. Returns false when there is no memory.
bool append_node(network_table* table, network_table::group* group, const network_node& traffic) {
    const auto index = static_cast<uint32_t>(table->nodes.size());
    if (!table->nodes.push_back({.node = traffic})) return false;
    if (group->first == 0) {
        group->first = index;
    } else {
        table->nodes[group->last].next = index;
    }
    group->last = index;
    return true;
}

// A UID's nodes, in the order they came. There is room for them.
void list_group(network_table* table, const network_table::group& group) {
    for (uint32_t at = group.first; at != 0; at = table->nodes[at].next)
        (void)table->ranking.push_back({.total = group.total, .index = at});
}

// The nodes in the list's order: the first one, then by UID.
bool list_nodes(network_table* table) {
    table->ranking.clear();
    if (table->nodes.size() == 0) return true;
    if (!table->ranking.reserve(table->nodes.size())) return false;
    (void)table->ranking.push_back({.total = table->first_total, .index = 0});
    for (const uint32_t page : table->page_of) {
        if (page == 0) continue;
        for (const uint32_t number : table->pages[page - 1].groups)
            if (number != 0) list_group(table, table->groups[number - 1]);
    }
    return true;
}

// Swaps the largest total to the front of [from, end); of equal ones the earliest. None is above
// `ceiling`.
void select_largest(network_table::total_of_node* from, const network_table::total_of_node* end,
                    uint64_t ceiling) {
    network_table::total_of_node* largest = from;
    uint64_t total = from->total;
    for (auto* at = from + 1; at < end && total != ceiling; ++at) {
        if (at->total <= total) continue;
        largest = at;
        total = at->total;
    }
    std::swap(*from, *largest);
}

// Reads and adds all lines behind the header.
int add_all_lines(line_reader* reader, network_table* table) {
    std::string_view line;
    for (int number = 2; line_reader_next(reader, sizeof reader->bytes, &line); ++number) {
        network_node traffic;
        const int values = parse_network_line(line, &traffic);
        if (values != VALUES_IN_LINE) {
            ALOGE("Invalid stat file format. err:%d; line:%d; ret:%d\n", errno, number, values);
            return -EINVAL;
        }
        if (traffic.iface_class == NETWORK_NONE || bytes_of(traffic) == 0) continue;
        if (const int result = netstat_list_add(table, traffic); result != 0) {
            ALOGE("%s: failed to add list. err:%d\n", "get_network_stats", result);
            return result;
        }
    }
    return 0;
}

int read_table(network_table* table) {
    line_reader reader(open_text_at(AT_FDCWD, TRAFFIC_FILE));
    if (!reader.fd) {
        ALOGE("failed to open %s. err:%d\n", TRAFFIC_FILE, errno);
        return -EINVAL;
    }
    std::string_view header;
    if (!line_reader_next(&reader, sizeof reader.bytes, &header)) {
        ALOGE("failed to read %s\n", TRAFFIC_FILE);
        return -EINVAL;
    }
    if (network_table_begin(table) != 0) {
        ALOGE("%s: failed to alloc list head\n", "get_network_stats");
        return -ENOMEM;
    }
    return add_all_lines(&reader, table);
}

}  // namespace

uint8_t* network_row_put(uint8_t* out, const network_node& node) {
    out = put_le(out, node.iface_class);
    out = put_le(out, node.uid);
    out = put_le(out, node.counter_set);
    out = put_le(out, node.received);
    return put_le(out, node.transmitted);
}

// "%*s %31s %*s %hu%hhu%u%*s %u": index, interface, tag, UID, counter set, received bytes and
// packets, transmitted bytes.
int parse_network_line(std::string_view line, network_node* traffic) {
    text_cursor text(line);
    std::string_view iface;
    if (!skip_word(&text) || !scan_word(&text, IFACE_MAX_LEN, &iface)) return -1;
    traffic->iface_class = class_of_iface(iface);
    if (!skip_word(&text) || !scan_narrow(&text, &traffic->uid)) return 1;
    if (!scan_narrow(&text, &traffic->counter_set)) return 2;
    if (!scan_narrow(&text, &traffic->received)) return 3;
    if (!skip_word(&text) || !scan_narrow(&text, &traffic->transmitted)) return 4;
    return VALUES_IN_LINE;
}

int network_table_begin(network_table* table) {
    table->nodes.clear();
    table->groups.clear();
    table->pages.clear();
    for (uint32_t& page : table->page_of) page = 0;
    table->lowest_uid = UINT32_MAX;
    return table->nodes.reserve(1) ? 0 : -ENOMEM;
}

int netstat_list_add(network_table* table, const network_node& traffic) {
    const uint64_t bytes = bytes_of(traffic);
    if (table->nodes.size() == 0) {
        (void)table->nodes.push_back({.node = traffic});
        table->first_total = bytes;
        return 0;
    }
    network_node& first = table->nodes[0].node;
    const bool is_first = same_key(first, traffic);
    const bool of_first_uid = first.uid == traffic.uid;
    network_table::group* group = find_group(table, traffic.uid);
    if (is_first) {
        add_traffic(&first, traffic);
    } else if (network_node* known = group ? find_node(table, *group, traffic) : nullptr) {
        add_traffic(known, traffic);
    } else {
        if (!group) group = make_group(table, traffic.uid);
        if (!group || !append_node(table, group, traffic)) {
            ALOGE("%s: failed to alloc new node\n", __func__);
            return -ENOMEM;
        }
    }
    if (group) group->total += bytes;
    if (of_first_uid) table->first_total += bytes;
    return 0;
}

// A selection sort by the UIDs' totals that goes no further than the fifth run of one UID.
int network_table_rank(network_table* table, network_list* list) {
    list->nodes.clear();
    if (!list_nodes(table)) return -ENOMEM;
    int runs = 0;
    uint64_t ceiling = UINT64_MAX;
    for (auto* at = table->ranking.begin(); at < table->ranking.end(); ++at) {
        select_largest(at, table->ranking.end(), ceiling);
        ceiling = at->total;
        const network_node& node = table->nodes[at->index].node;
        const size_t listed = list->nodes.size();
        const bool new_run = listed == 0 || node.uid != list->nodes[listed - 1].uid;
        if (new_run && ++runs > MAX_UID_RUNS) break;
        if (!list->nodes.push_back(node)) return -ENOMEM;
    }
    return 0;
}

int get_network_stats(network_table* table, network_list* list) {
    list->nodes.clear();
    int result = read_table(table);
    if (result == 0) result = network_table_rank(table, list);
    if (result != 0) list->nodes.clear();
    return result;
}
