#define LOG_TAG "vexastatsd"

#include "collectors/microdump/microdump_collector.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "base/unique_handle.h"
#include "collectors/microdump/crash_record.h"
#include "collectors/microdump/timeout_file.h"
#include "framework/config/config.h"
#include "framework/config/dload.h"
#include "framework/record/record.h"
#include "framework/row/optout.h"
#include "framework/time/clock.h"
#include "framework/time/wait.h"
#include "framework/time/wait_dir.h"
#include "platform/log.h"

namespace {

constexpr char MONITOR[] = "microdump_monitor";
constexpr char DEVICE[] = "/dev/ramdump_microdump_modem";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/5";
constexpr char RECORD_FILE[] = "modem_microdumpstats.tmp";
constexpr char TIMEOUT_FILE[] = "timeout_microdumpstats.txt";
constexpr uint64_t PARAMS_LIFE_MS = days_ms(30);

// A writer that neither goes on nor leaves is through with its dump after this time: it must not
// hold back what it wrote for ever.
constexpr int64_t QUIET_LIMIT_MS = minutes_ms(1);

// Shortest time between two time-outs, whatever the configuration asks for, and the pause after
// anything else that would come back at once.
constexpr int64_t PAUSE_MS = 1000;

enum class dump_phase {
    NONE,        // the device is silent
    COLLECTING,  // the dump so far is in the crash record
    DRAINING,    // the crash record was full; the rest of the dump is read and forgotten
};

struct microdump_collector {
    collector_info* row = nullptr;
    record_handle record{};
    unique_fd device{};
    timeout_file upload_clock{.dir = RECORD_DIR, .name = TIMEOUT_FILE};
    bool clock_is_saved = false;  // its file holds what is in memory, or something newer
    bool timed_out = false;       // the last pass ended in a time-out
    dump_phase phase = dump_phase::NONE;
    uint64_t last_bytes_ms = 0;  // monotonic, when the dump under way delivered something
    crash_record dump{};
    uint64_t params_loaded_ms = 0;

    const stop_flag& stop() const { return row->stop; }
};

// ---- Start-up

// An old record is resumed also at the start: the wait for its upload goes on too.
bool open_record(microdump_collector* c) {
    const record_init_req req{.row = c->row, .dir = RECORD_DIR, .prefix = RECORD_FILE};
    return vexastats_record_reopen(req, &c->record);
}

void load_params(microdump_collector* c) {
    vexastats_wait_dir_ready(c->row->down_dir, &c->row->stop);
    const dload_req request{.client_id = static_cast<int32_t>(c->row->hdr.client_id),
                            .version = "1.0",
                            .key = "microdumpstats.cfg"};
    if (vexastats_dload_req(&request) != 0) ALOGE("%s: dload request failed\n", MONITOR);
    if (vexastats_init_params(c->row) != 0) {
        ALOGE("microdump init_params failed. use default value\n");
    }
    c->params_loaded_ms = vexastats_uptime_ms();
}

// Opens the device, in place of the open one if there is one: that is closed last, so that a writer
// never finds the device without a reader. Opening does not wait for a writer.
bool open_device(microdump_collector* c) {
    unique_fd device(open(DEVICE, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!device) return false;
    c->device = std::move(device);
    return true;
}

bool open_device_or_log(microdump_collector* c) {
    if (open_device(c)) return true;
    ALOGE("Unable to open %s. err:%d\n", DEVICE, errno);
    return false;
}

void start_upload_clock(microdump_collector* c) {
    c->clock_is_saved = timeout_file_init(&c->upload_clock, true) == 0;
    if (!c->clock_is_saved) {
        c->upload_clock.start_ms = vexastats_real_time_ms();
        ALOGE("timeout_file_init failed. Using current time value\n");
    }
    ALOGE("Time_started:%lu\n", static_cast<unsigned long>(c->upload_clock.start_ms));
}

bool start(microdump_collector* c) {
    vexastats_wait_optin(c->row);
    if (!c->row->enabled) return false;
    // Whatever needs a record that is not there tries again.
    if (!open_record(c)) ALOGE("failed to open record file for microdump collector\n");
    load_params(c);
    if (!open_device_or_log(c)) return false;
    start_upload_clock(c);
    return true;
}

// ---- The wait for the upload

void restart_upload_clock(microdump_collector* c) {
    c->upload_clock.start_ms = vexastats_real_time_ms();
    c->clock_is_saved = timeout_file_write_handler(c->upload_clock) == 0;
    ALOGE("Time_started: %lu\n", static_cast<unsigned long>(c->upload_clock.start_ms));
}

// Time left until the record is handed over. A clock that was set to before the start leaves none.
int64_t upload_wait_ms(const microdump_collector& c) {
    const uint64_t now_ms = vexastats_real_time_ms();
    const uint64_t start_ms = c.upload_clock.start_ms;
    uint64_t wait_ms = 0;
    if (now_ms >= start_ms && now_ms - start_ms < c.row->max_upload_wait_time) {
        wait_ms = c.row->max_upload_wait_time - (now_ms - start_ms);
    }
    // The system's poll takes no more.
    const int64_t bounded_ms = static_cast<int64_t>(std::min<uint64_t>(wait_ms, INT32_MAX));
    return c.timed_out ? std::max(bounded_ms, PAUSE_MS) : bounded_ms;
}

// Hands the record over. Returns false when the collector has to end.
bool hand_over(microdump_collector* c) {
    if (!c->row->enabled) {
        c->device.reset();
        c->phase = dump_phase::NONE;
    }
    vexastats_wait_dir_ready(c->row->up_dir, &c->row->stop);
    if (stop_flag_is_raised(c->stop())) return false;  // the next run hands it over
    if (!c->device && !open_device(c)) {
        ALOGE("Unable to open %s file", DEVICE);
        return false;
    }
    write_req req{.row = c->row, .handle = &c->record, .flags = WRITE_DROP};
    // No bytes, no count: it is 0 either way. A record that could not be handed over is still
    // there, and resumed.
    (void)vexastats_write_file(&req);
    if (!open_record(c)) ALOGE("failed to new open record file for microdump collector\n");
    return true;
}

bool end_upload_wait(microdump_collector* c) {
    // A roll-over that failed has taken the stream.
    if (!c->record.file) (void)open_record(c);
    if (vexastats_record_size(c->row) > 0 && !hand_over(c)) return false;
    restart_upload_clock(c);
    return true;
}

// ---- Dumps

void store_dump(microdump_collector* c) {
    if (!c->record.file) (void)open_record(c);
    write_req req{
        .row = c->row, .handle = &c->record, .data = c->dump.text, .len = c->dump.len, .flags = 0};
    const size_t count = vexastats_write_file(&req);
    if (req.rolled_over) restart_upload_clock(c);
    if (count == req.len) {
        (void)fsync(fileno(c->record.file.get()));
    } else {
        ALOGE("failed to write into microdump record file\n");
    }
}

void end_dump(microdump_collector* c) {
    if (c->phase == dump_phase::COLLECTING && c->row->enabled) store_dump(c);
    c->phase = dump_phase::NONE;
}

// Takes `len` bytes that were read into the dump's room.
void store_chunk(microdump_collector* c, size_t len) {
    crash_record_add_chunk(&c->dump, len);
    c->phase = dump_phase::COLLECTING;
    if (c->dump.room_len() > 0) return;
    store_dump(c);
    c->phase = dump_phase::DRAINING;
}

// Reads the device once. Returns what read(2) does.
ssize_t read_device(microdump_collector* c) {
    if (c->phase == dump_phase::DRAINING) {
        char forgotten[CRASH_RECORD_SIZE];
        return read(c->device.get(), forgotten, sizeof forgotten);
    }
    if (c->phase == dump_phase::NONE) {
        char crash_time[CRASH_TIME_SIZE];
        get_crashtime(crash_time);
        crash_record_begin(&c->dump, crash_time);
    }
    const ssize_t count = read(c->device.get(), c->dump.room(), c->dump.room_len());
    if (count > 0) store_chunk(c, static_cast<size_t>(count));
    return count;
}

// The owner withdrew consent: lets go of the device until it is given again.
bool wait_without_device(microdump_collector* c) {
    c->device.reset();
    c->phase = dump_phase::NONE;
    vexastats_wait_optin(c->row);
    return open_device_or_log(c);
}

// Reads what made the device ready. Returns false when the collector has to end.
bool handle_input(microdump_collector* c, short revents) {
    if (!c->row->enabled) return wait_without_device(c);

    const ssize_t count = read_device(c);
    if (count > 0) {
        c->last_bytes_ms = vexastats_mono_time_ms();
        return true;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR) && !(revents & (POLLERR | POLLHUP))) {
        return true;
    }
    end_dump(c);
    // A writer that has left is reported on this descriptor until the next one comes, on a new one
    // it is not. Anything else that is ready without a byte to give is given time.
    if (revents & POLLHUP) return open_device_or_log(c);
    vexastats_sleep_ms(PAUSE_MS, c->stop());
    return true;
}

// ---- The main loop

// Time left until a dump whose writer fell silent counts as whole.
int64_t quiet_wait_ms(const microdump_collector& c) {
    if (c.phase == dump_phase::NONE) return INT64_MAX;
    const uint64_t silent_ms = vexastats_mono_time_ms() - c.last_bytes_ms;
    return std::max<int64_t>(QUIET_LIMIT_MS - static_cast<int64_t>(silent_ms), 0);
}

// Returns whether the loop goes on.
bool run_pass(microdump_collector* c) {
    // Once a dump, not once a chunk. What could not be saved must not be undone by what stands in
    // the file.
    if (c->phase == dump_phase::NONE && c->clock_is_saved) {
        (void)timeout_file_init(&c->upload_clock, false);
    }

    const int64_t quiet_ms = quiet_wait_ms(*c);
    // The record is not handed over from under a dump that belongs into it.
    const int64_t upload_ms = c->phase == dump_phase::COLLECTING ? INT64_MAX : upload_wait_ms(*c);
    pollfd device{.fd = c->device.get(), .events = POLLIN, .revents = 0};
    const int ready = vexastats_poll(&device, 1, std::min(upload_ms, quiet_ms), c->stop());

    bool goes_on = true;
    c->timed_out = ready == 0 && upload_ms <= quiet_ms;
    if (ready < 0) {
        ALOGE("Failed Poll command \n");
        vexastats_sleep_ms(PAUSE_MS, c->stop());
    } else if (ready > 0) {
        goes_on = handle_input(c, device.revents);
    } else if (c->timed_out) {
        goes_on = end_upload_wait(c);
    } else {
        end_dump(c);
    }
    if (goes_on) vexastats_reload_params(c->row, &c->params_loaded_ms, PARAMS_LIFE_MS);
    return goes_on;
}

}  // namespace

int microdump_monitor(collector_info* row) {
    microdump_collector collector{.row = row};
    bool goes_on = start(&collector);
    while (goes_on && !stop_flag_is_raised(row->stop)) goes_on = run_pass(&collector);

    end_dump(&collector);
    stop_flag_raise(&row->stop);
    return 0;
}
