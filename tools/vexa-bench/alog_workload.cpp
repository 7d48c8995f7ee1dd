#include <unistd.h>

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "bench_phone.h"
#include "collectors/alog/alog_record.h"
#include "endless_file.h"
#include "framework/time/clock.h"
#include "phone/enter.h"
#include "workloads.h"

namespace {

// Another buffer than the one that the daemon logs into.
constexpr char LOG_BUFFER[] = "/dev/log/system";

size_t count_entries(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    const std::string log{std::istreambuf_iterator<char>(stream), {}};
    size_t count = 0;
    for (size_t at = 0; at + sizeof(logger_entry) <= log.size(); ++count) {
        logger_entry entry;
        memcpy(&entry, log.data() + at, sizeof entry);
        at += size_t{entry.hdr_size} + entry.len;
    }
    if (count == 0) throw std::runtime_error("no log entries in " + path);
    return count;
}

class log_capture {
  public:
    explicit log_capture(const std::string& dir) : file_(dir + "/alogstats.tmp") {
        if (stop_flag_open(&row_.stop) != 0) throw std::runtime_error("no stop flag");
        campaign_.record.file = file_.stream();
        if (alog_log_start(&record_, &reader_) != 0) throw std::runtime_error("no reader");
    }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    void read_all(size_t entries) {
        reader_.reset(android_logger_list_open(LOG_ID_SYSTEM, 0, 0, 0));
        for (size_t i = 0; i < entries; ++i) {
            if (alog_log_read(&record_, &reader_) < 1) throw std::runtime_error("no entry");
        }
    }

  private:
    endless_file file_;
    // A record that is never full: compressing it is another workload.
    collector_info row_{.name = "alog_collector",
                        .size = INT32_MAX,
                        .compress_ratio = 0,
                        .hdr = {.client_id = 501, .realtime_ms = PLAUSIBLE_REAL_TIME_MS + 1}};
    timed_campaign campaign_{.row = &row_};
    alog_record record_{.campaign = &campaign_};
    unique_logger_list reader_;
};

}  // namespace

int bench_alog(long n) {
    const std::string in = bench_env("BENCH_IN");
    const std::string out = bench_env("BENCH_OUT");
    phone_options options;
    options.writable = {in, out};
    phone_enter(options);
    if (symlink(in.c_str(), LOG_BUFFER) != 0) {
        throw std::system_error(errno, std::generic_category(), LOG_BUFFER);
    }
    const size_t entries = count_entries(LOG_BUFFER);
    log_capture capture(out);
    for (long i = 0; i < n; ++i) capture.read_all(entries);
    return 0;
}
