#include "bench_record.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "bench_data.h"

namespace fs = std::filesystem;

namespace {

void require(bool done, const char* what) {
    if (done) return;
    fprintf(stderr, "benchmark failed to %s\n", what);
    exit(1);
}

}  // namespace

bench_record::bench_record(const std::string& name)
    : stats_dir_(bench_dir() + "/" + name + "/stats"), up_dir_(bench_dir() + "/" + name + "/up") {
    fs::create_directories(stats_dir_);
    fs::create_directories(up_dir_);
    row.name = "bench_collector";
    row.up_dir = up_dir_.c_str();
    row.hdr.client_id = 2;
    row.hdr.rec_version = 6;
}

bench_record::~bench_record() {
    vexastats_record_close(&handle);
}

void bench_record::begin() {
    vexastats_record_close(&handle);
    record_init_req req{
        .row = &row, .dir = stats_dir_.c_str(), .prefix = "benchstats.tmp", .discard = 1};
    handle.file = vexastats_record_init(&req);
    require(handle.file != nullptr, "begin a record");
}

bool bench_record::append(const void* data, size_t len, uint32_t flags) {
    write_req req{.row = &row, .handle = &handle, .data = data, .len = len, .flags = flags};
    require(vexastats_write_file(&req) == len, "append");
    return req.rolled_over != 0;
}

void bench_record::empty_dropbox() {
    for (const auto& file : fs::directory_iterator(up_dir_)) fs::remove(file);
}
