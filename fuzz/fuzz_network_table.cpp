// Lines of the kernel's traffic table.
#include "collectors/cpu/network_stats.h"
#include "fuzz_target.h"

namespace {

int runs_of_uid(const network_list& list) {
    int runs = 0;
    for (size_t i = 0; i < list.nodes.size(); ++i) {
        if (i == 0 || list.nodes[i].uid != list.nodes[i - 1].uid) ++runs;
    }
    return runs;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view rest = text_of(data, size);
    network_table table;
    if (network_table_begin(&table) != 0) return 0;
    while (!rest.empty()) {
        const std::string line = take_line(&rest);
        network_node traffic;
        if (parse_network_line(line, &traffic) != 5 || traffic.iface_class == NETWORK_NONE)
            continue;
        netstat_list_add(&table, traffic);
    }
    network_list list;
    if (network_table_rank(&table, &list) != 0) return 0;
    check(runs_of_uid(list) <= 5 && list.nodes.size() <= table.nodes.size());
    return 0;
}
