#define LOG_TAG "vexastatsd"

#include "collectors/cpu/vexapslist.h"

#include <errno.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <utility>

#include "base/little_endian.h"
#include "base/printable.h"
#include "base/standard_io.h"
#include "platform/log.h"

namespace {

constexpr size_t INITIAL_ROOM = 25;
constexpr int MAX_AGE_SCANS = 6;
constexpr float TRACED_LOAD = 0.5f;
constexpr size_t ROWS_PER_PROCESS = 4;
constexpr size_t ROWS_LEN = ROWS_PER_PROCESS * NETWORK_ROW_LEN;

// Weights of the past and of the present in the load. The first is one unit below 0.2: deliberate.
constexpr float OLD_LOAD_WEIGHT = std::bit_cast<float>(0x3E4CCCCCu);
constexpr float NEW_LOAD_WEIGHT = std::bit_cast<float>(0x3F4CCCCDu);

bool reserve(proc_table* table, size_t count) {
    if (count <= table->capacity) return true;
    const size_t wanted = std::max(count, table->capacity * 2);
    void* grown = realloc(table->slots, wanted * sizeof(proc_slot));
    if (!grown) return false;
    table->slots = static_cast<proc_slot*>(grown);
    table->capacity = wanted;
    return true;
}

// First slot of [0, count) whose PID is not below `pid`.
size_t lower_bound(const proc_table& table, int32_t pid, size_t count) {
    const proc_slot* found =
        std::lower_bound(table.slots, table.slots + count, pid,
                         [](const proc_slot& slot, int32_t wanted) { return slot.pid < wanted; });
    return static_cast<size_t>(found - table.slots);
}

// Scans since the entry was last updated. The extra 2 once the tick has wrapped around is
// deliberate.
int age_of(const proc_table& table, const vexa_proc_entry& entry) {
    const int wrapped = table.tick < entry.tick ? 2 : 0;
    return (table.tick - entry.tick + wrapped) & 0xFF;
}

// Finds the place of `pid`, and on the way removes the processes of smaller PID that are too old.
//
// With the PIDs 5, 7 and 9 in the table, of which 7 is too old, a scan that meets 8 first looks at
// 5 and 7, keeps 5 (aged = 1) and gives place 1, in front of 9. Meets it 6 next, it looks on from
// there, at nothing, since 8 stands there by now: place 1 again. Meets it 4 then, the place is one
// of those looked at already, and searched for in [0, aged): 0.
size_t age_up_to(proc_table* table, int32_t pid) {
    proc_slot* const slots = table->slots;
    if (table->aged > 0 && slots[table->aged - 1].pid >= pid) {
        return lower_bound(*table, pid, table->aged);
    }
    size_t kept = table->aged;
    size_t at = table->aged;
    for (; at < table->count && slots[at].pid < pid; ++at) {
        if (age_of(*table, *slots[at].entry) >= MAX_AGE_SCANS) {
            free(slots[at].entry);
        } else {
            slots[kept++] = slots[at];
        }
    }
    if (kept != at) {
        std::copy(slots + at, slots + table->count, slots + kept);
        table->count -= at - kept;
    }
    table->aged = kept;
    return kept;
}

// Traces a line on standard output, or does not: nobody may be waiting for it.
__attribute__((format(printf, 1, 2))) void trace(const char* format, ...) {
    char line[PRINTABLE_MAX_GROWTH * sizeof(vexa_proc_entry::name) + 128];
    va_list args;
    va_start(args, format);
    const int len = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (len > 0) standard_io_trace(line, std::min(static_cast<size_t>(len), sizeof line - 1));
}

void trace_load(const vexa_proc_entry& process, uint8_t tick) {
    // Not even an escape for every byte of a name makes a line too long.
    char name[PRINTABLE_MAX_GROWTH * sizeof process.name];
    const size_t len =
        printable_copy(name, sizeof name, process.name, strnlen(process.name, sizeof process.name));
    trace("Tick %u PID %" PRId32 " %.*s CPU %g\n", unsigned{tick}, process.pid,
          static_cast<int>(len), name, static_cast<double>(process.load));
}

void insert_at(proc_table* table, size_t at, unique_proc_entry entry) {
    if (!reserve(table, table->count + 1)) {
        table->spare = std::move(entry);
        return;
    }
    // Only a process that comes before a known one is announced: deliberate.
    if (at < table->count) trace("New PID %" PRId32 "\n", entry->pid);
    entry->load = 0;
    proc_slot* const end = table->slots + table->count;
    std::copy_backward(table->slots + at, end, end + 1);
    table->slots[at].pid = entry->pid;
    table->slots[at].entry = entry.release();
    ++table->count;
    if (at < table->aged) ++table->aged;
}

// The load of a process that had `before` and now has `now`. Times that ran backwards wrap around,
// and a tick that wrapped around gives a negative number of scans: both still give a finite number.
float new_load(const vexa_proc_entry& before, const vexa_proc_entry& now, int scans) {
    const uint64_t ticks = (now.user_time - before.user_time) +
                           (now.system_time - before.system_time) +
                           (now.child_user_time - before.child_user_time) +
                           (now.child_system_time - before.child_system_time);
    const float value = static_cast<float>(ticks) / static_cast<float>(scans);
    if (before.load == 0) return value;
    const float past = before.load * OLD_LOAD_WEIGHT;
    const float present = value * NEW_LOAD_WEIGHT;
    return past + present;
}

void update(vexa_proc_entry* known, const vexa_proc_entry& met, uint8_t tick) {
    const int scans = tick - known->tick;
    // Met twice in one scan: no time has passed that a load could refer to.
    if (scans == 0) return;
    known->load = new_load(*known, met, scans);
    if (known->load > TRACED_LOAD) trace_load(*known, tick);
    known->tick = tick;
    known->user_time = met.user_time;
    known->system_time = met.system_time;
    known->child_user_time = met.child_user_time;
    known->child_system_time = met.child_system_time;
}

// ---- The process block

// The nodes of the UID, at most as many as a process has rows.
struct taken_rows {
    network_node* nodes[ROWS_PER_PROCESS] = {};
    size_t count = 0;
};

taken_rows take_rows(network_list* network, uint32_t uid) {
    taken_rows rows;
    if (!network) return rows;
    for (network_node& node : network->nodes) {
        if (node.uid != static_cast<uint16_t>(uid)) continue;
        if (rows.count == ROWS_PER_PROCESS) {
            ALOGE(">4 Entries in NW table for UID %d", static_cast<int>(uid));
            break;
        }
        rows.nodes[rows.count++] = &node;
    }
    return rows;
}

uint16_t packed_load(float load) {
    return static_cast<uint16_t>(std::clamp(static_cast<double>(load) * 500.0, 0.0, 65535.0));
}

// Writes the rows and takes their traffic out of the list. `out` null: only the latter.
void put_rows(uint8_t* out, const taken_rows& rows) {
    for (size_t i = 0; i < rows.count; ++i) {
        if (out) out = network_row_put(out, *rows.nodes[i]);
        rows.nodes[i]->received = 0;
        rows.nodes[i]->transmitted = 0;
    }
}

// Sizes or writes one process behind *size bytes. Each field has its own margin to the limit, and a
// field that does not keep it is left out. With the exact size as the limit the margins are one
// byte too wide for the last process, whose rows stay the zeroes that the buffer holds: deliberate.
void store_process(uint8_t* buffer, const vexa_proc_entry& entry, const taken_rows& rows,
                   uint64_t* size, uint64_t limit) {
    const size_t name_len = strnlen(entry.name, sizeof entry.name - 1);
    if (buffer && *size < limit) {
        const size_t room = static_cast<size_t>(limit - *size);
        const size_t written = std::min(name_len, room - 1);
        memcpy(buffer + *size, entry.name, written);
        buffer[*size + written] = '\0';
    }
    *size += name_len + 1;

    const auto fits = [&](uint64_t margin) { return limit > margin && *size < limit - margin; };
    if (fits(sizeof(uint16_t))) {
        if (buffer) put_le(buffer + *size, packed_load(entry.load));
        *size += sizeof(uint16_t);
    }
    if (fits(sizeof(uint8_t))) {
        if (buffer) buffer[*size] = entry.cpuset;
        *size += sizeof(uint8_t);
    }
    const bool rows_fit = fits(ROWS_LEN);
    if (buffer) put_rows(rows_fit ? buffer + *size : nullptr, rows);
    if (rows_fit) *size += ROWS_LEN;
}

}  // namespace

void proc_table::clear() {
    for (size_t i = 0; i < count; ++i) free(slots[i].entry);
    free(std::exchange(slots, nullptr));
    spare.reset();
    count = capacity = aged = 0;
    tick = 0;
}

void vexa_init_proc_tbl(proc_table* table) {
    (void)reserve(table, INITIAL_ROOM);
}

void vexa_release_proc_tbl(proc_table* table) {
    table->clear();
}

void vexa_inc_proc_tbl_tick(proc_table* table) {
    ++table->tick;
    table->aged = 0;
}

unique_proc_entry vexa_make_proc_entry(proc_table* table) {
    if (!table->spare) {
        return unique_proc_entry(static_cast<vexa_proc_entry*>(calloc(1, sizeof(vexa_proc_entry))));
    }
    unique_proc_entry entry = std::move(table->spare);
    *entry = {};
    return entry;
}

void vexa_insert_proc_tbl_entry(proc_table* table, unique_proc_entry entry) {
    if (!entry) return;
    entry->tick = table->tick;
    const size_t at = age_up_to(table, entry->pid);
    if (at == table->count || table->slots[at].pid != entry->pid)
        return insert_at(table, at, std::move(entry));
    update(table->slots[at].entry, *entry, table->tick);
    table->spare = std::move(entry);
}

int vexa_process_in_table(const proc_table& table, int32_t pid) {
    const size_t at = lower_bound(table, pid, table.count);
    return at < table.count && table.slots[at].pid == pid ? 1 : 0;
}

int vexaps_store_ps_info(const proc_table& table, uint8_t* buffer, network_list* network,
                         uint16_t* count, uint64_t* size, uint64_t limit) {
    if (!count || !size) return -EINVAL;
    *count = 0;
    *size = 0;
    for (size_t i = 0; i < table.count && *count < UINT16_MAX; ++i) {
        const vexa_proc_entry& entry = *table.slots[i].entry;
        ++*count;
        store_process(buffer, entry, take_rows(network, entry.uid), size, limit);
        if (*size > limit) {
            ALOGE("Exceed PS Data Buf %zu Max %zu", static_cast<size_t>(*size),
                  static_cast<size_t>(limit));
            *size = limit;
            break;
        }
    }
    return 0;
}
