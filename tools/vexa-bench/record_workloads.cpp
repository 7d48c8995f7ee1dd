#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_phone.h"
#include "framework/record/hand_over.h"
#include "framework/record/record.h"
#include "framework/record/record_file.h"
#include "workloads.h"

namespace {

std::string file_content(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::string content{std::istreambuf_iterator<char>(stream), {}};
    if (content.empty()) throw std::runtime_error("nothing in " + path);
    return content;
}

// A record whose uploads go to BENCH_OUT/up.
class bench_record {
  public:
    bench_record() : dir_(bench_env("BENCH_OUT")), up_dir_(dir_ + "/up") {
        (void)mkdir(up_dir_.c_str(), 0700);
        row_.up_dir = up_dir_.c_str();
        snprintf(row_.rec_fname, sizeof row_.rec_fname, "%s/cpustats.tmp", dir_.c_str());
    }

    void begin() {
        record_init_req req{
            .row = &row_, .dir = dir_.c_str(), .prefix = "cpustats.tmp", .resume = 0, .discard = 1};
        handle_.file = vexastats_record_init(&req);
        if (!handle_.file) throw std::runtime_error("no record in " + dir_);
    }

    void append(std::string_view data) {
        write_req req{.row = &row_,
                      .handle = &handle_,
                      .data = data.data(),
                      .len = data.size(),
                      .flags = WRITE_BEGIN_NEW,
                      .rolled_over = 0};
        if (vexastats_write_file(&req) != data.size()) throw std::runtime_error("append failed");
    }

    // Makes the file `path` the record and drops it.
    void drop_copy_of(const std::string& path) {
        if (link(path.c_str(), record_path().c_str()) != 0)
            throw std::runtime_error("no link to " + path);
        snprintf(row_.rec_fname, sizeof row_.rec_fname, "%s", record_path().c_str());
        row_.hdr.realtime_ms++;
        handle_.file = record_open(record_path().c_str());
        if (!handle_.file) throw std::runtime_error("no record");
        (void)fseek(handle_.file.get(), 0, SEEK_END);
        if (move_to_dropbox(&row_, &handle_, false) != 0) throw std::runtime_error("drop failed");
    }

    std::string record_path() const { return dir_ + "/cpustats.tmp"; }

    // Writes one record file of `data` beside the record.
    std::string keep(size_t index, std::string_view data) const {
        std::string path = dir_ + "/kept." + std::to_string(index);
        std::ofstream stream(path, std::ios::binary);
        stream << "Version=6 Realtime=1700000000000 Uptime=1 Timezone=0\n" << data;
        return path;
    }

  private:
    std::string dir_;
    std::string up_dir_;
    collector_info row_{.name = "cpu_collector", .hdr = {.client_id = 2, .rec_version = 6}};
    record_handle handle_;
};

}  // namespace

int bench_drop(long n) {
    const std::string in = file_content(bench_env("BENCH_IN"));
    const size_t record_len = strtoul(bench_env("BENCH_REC").c_str(), nullptr, 10);
    if (record_len == 0) throw std::runtime_error("BENCH_REC is no length");
    bench_record record;
    unlink(record.record_path().c_str());
    std::vector<std::string> kept;
    for (size_t at = 0; at < in.size(); at += record_len) {
        kept.push_back(record.keep(kept.size(), std::string_view(in).substr(at, record_len)));
    }
    for (long i = 0; i < n; ++i) {
        for (const std::string& path : kept) record.drop_copy_of(path);
    }
    for (const std::string& path : kept) unlink(path.c_str());
    return 0;
}

int bench_append(long n) {
    const std::string in = file_content(bench_env("BENCH_IN"));
    bench_record record;
    record.begin();
    for (long i = 0; i < n; ++i) {
        for (size_t at = 0; at + 2 <= in.size();) {
            const size_t len = static_cast<uint8_t>(in[at]) |
                               static_cast<size_t>(static_cast<uint8_t>(in[at + 1])) << 8;
            record.append(std::string_view(in).substr(at + 2, len));
            at += 2 + len;
        }
    }
    return 0;
}
