#include <unistd.h>

#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "bench_phone.h"
#include "collectors/alog/alog_record.h"
#include "phone/enter.h"
#include "platform/log.h"
#include "workloads.h"

namespace {

// Another buffer than the one that the daemon logs into.
constexpr char LOG_BUFFER[] = "/dev/log/system";

constexpr size_t RECORD_LIMIT_BYTES = size_t{32} << 20;

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
    explicit log_capture(std::string dir) : dir_(std::move(dir)) {
        record_.row = &row_;
        if (stop_flag_open(&row_.stop) != 0) throw std::runtime_error("no stop flag");
        begin_record();
        if (alog_log_start(&record_, &reader_) != 0) throw std::runtime_error("no reader");
    }
    ~log_capture() {
        reader_.reset();
        vexastats_record_close(&record_.handle);
    }
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;

    void read_all(size_t entries) {
        reader_.reset(android_logger_list_open(LOG_ID_SYSTEM, 0, 0, 0));
        for (size_t i = 0; i < entries; ++i) {
            const int size = alog_log_read(&record_, &reader_);
            if (size < 1) throw std::runtime_error("no entry");
            bytes_ += static_cast<size_t>(size);
            if (bytes_ >= RECORD_LIMIT_BYTES) begin_record();
        }
    }

  private:
    void begin_record() {
        vexastats_record_close(&record_.handle);
        record_init_req req{
            .row = &row_, .dir = dir_.c_str(), .prefix = "alogstats.tmp", .discard = 1};
        record_.handle.file = vexastats_record_init(&req);
        if (!record_.handle.file) throw std::runtime_error("no record in " + dir_);
        bytes_ = 0;
    }

    std::string dir_;
    // A record that is never full: compressing it is another workload.
    collector_info row_{.name = "alog_collector", .size = INT32_MAX, .hdr = {.client_id = 501}};
    alog_record record_;
    unique_logger_list reader_;
    size_t bytes_ = 0;
};

}  // namespace

int bench_alog(long n) {
    const std::string in = bench_env("BENCH_IN");
    const std::string out = bench_env("BENCH_OUT");
    phone_options options;
    options.also_needed = {in, out};
    phone_enter(options);
    if (symlink(in.c_str(), LOG_BUFFER) != 0) {
        throw std::system_error(errno, std::generic_category(), LOG_BUFFER);
    }
    const size_t entries = count_entries(LOG_BUFFER);
    log_capture capture(out);
    for (long i = 0; i < n; ++i) capture.read_all(entries);
    return 0;
}
