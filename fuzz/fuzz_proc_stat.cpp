// What the kernel says of one process, and the entry's way through the table into a process block.
// The first byte chooses which file the text is taken for.
#include <vector>

#include "collectors/cpu/readproc.h"
#include "collectors/cpu/vexapslist.h"
#include "fuzz_target.h"

namespace {

void parse(uint8_t file, std::string_view text, vexa_proc_entry* entry) {
    switch (file % 3) {
        case 0:
            parse_proc_stat(text, entry);
            break;
        case 1:
            parse_proc_status(text, entry);
            break;
        default:
            entry->cpuset = parse_proc_cpuset(text);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    proc_table table;
    for (int scan = 0; scan < 3; ++scan) {
        vexa_inc_proc_tbl_tick(&table);
        unique_proc_entry entry = vexa_make_proc_entry(&table);
        if (scan != 1) parse(data[0], text_of(data + 1, size - 1), entry.get());
        entry->pid = 1;
        vexa_insert_proc_tbl_entry(&table, std::move(entry));
    }
    uint16_t count = 0;
    uint64_t len = 0;
    vexaps_store_ps_info(table, nullptr, nullptr, &count, &len, UINT64_MAX);
    std::vector<uint8_t> block(len);
    vexaps_store_ps_info(table, block.data(), nullptr, &count, &len, block.size());
    if (count != 1 || len > block.size()) abort();
    return 0;
}
