#include <dirent.h>
#include <errno.h>
#include <signal.h>

#include <functional>
#include <stdexcept>
#include <system_error>

#include "base/unique_handle.h"
#include "bench_phone.h"
#include "collectors/cpu/cpu_stats.h"
#include "collectors/cpu/readproc.h"
#include "framework/record/record.h"
#include "framework/time/stop.h"
#include "framework/time/wait.h"
#include "workloads.h"

namespace {

constexpr uint32_t ALL_CPUSET_CLASSES = 0xF;  // this machine keeps everything in the root cpuset

stop_flag g_stop;

// Calls `work` every `seconds` seconds until SIGTERM.
int pace(long seconds, const std::function<void()>& work) {
    if (stop_flag_open(&g_stop) != 0) throw std::runtime_error("no stop flag");
    struct sigaction action = {};
    action.sa_handler = [](int) { stop_flag_raise(&g_stop); };
    sigaction(SIGTERM, &action, nullptr);
    do {
        work();
    } while (vexastats_sleep_ms(seconds * 1000, g_stop));
    return 0;
}

class process_scan {
  public:
    process_scan() : proc_(opendir("/proc")) {
        if (!proc_) throw std::system_error(errno, std::generic_category(), "/proc");
        vexa_init_proc_tbl(&scanner_.table);
    }

    void forget() { vexa_release_proc_tbl(&scanner_.table); }

    void run() {
        rewinddir(proc_.get());
        vexa_inc_proc_tbl_tick(&scanner_.table);
        vexa_ps_readproc(&scanner_, proc_.get(), ALL_CPUSET_CLASSES);
    }

  private:
    unique_dir proc_;
    proc_scanner scanner_{};
};

class cpu_sampler {
  public:
    cpu_sampler() {
        bench_phone_enter();
        const std::string out = bench_env("BENCH_OUT");
        record_init_req req{
            .row = &row_, .dir = out.c_str(), .prefix = "cpustats.tmp", .discard = 1};
        sampler_.record.file = vexastats_record_init(&req);
        if (!sampler_.record.file) throw std::runtime_error("no record in " + out);
        stats_.cpu_count = read_cpu_count();
        if (stats_.cpu_count < 0) throw std::runtime_error("no cores in BENCH_TREE");
    }
    ~cpu_sampler() { vexastats_record_close(&sampler_.record); }

    void run() {
        if (prepare_cpu_stats(&stats_, &sampler_) != sample_result::TAKEN)
            throw std::runtime_error("no sample");
    }

  private:
    // A record that is never full: compressing it is another workload.
    collector_info row_{.name = "cpu_collector", .size = INT32_MAX, .hdr = {.client_id = 2}};
    sampling_collector sampler_{.row = &row_};
    cpu_stats stats_;
};

}  // namespace

int bench_scan(long n) {
    process_scan scan;
    for (long i = 0; i < n; ++i) scan.run();
    return 0;
}

int bench_scan_cold(long n) {
    process_scan scan;
    for (long i = 0; i < n; ++i) {
        scan.forget();
        scan.run();
    }
    return 0;
}

int bench_sample(long n) {
    cpu_sampler sampler;
    for (long i = 0; i < n; ++i) sampler.run();
    return 0;
}

int bench_pace_scan(long seconds) {
    process_scan scan;
    return pace(seconds, [&] { scan.run(); });
}

int bench_pace_sample(long seconds) {
    cpu_sampler sampler;
    return pace(seconds, [&] { sampler.run(); });
}
