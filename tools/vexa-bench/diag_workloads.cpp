#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench_phone.h"
#include "collectors/diag/diag_buffers.h"
#include "collectors/diag/diag_session.h"
#include "endless_file.h"
#include "framework/time/clock.h"
#include "phone/enter.h"
#include "workloads.h"

namespace {

using steady = std::chrono::steady_clock;

constexpr uint64_t AN_HOUR_S = 3600;

std::string packets_of(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::string packets{std::istreambuf_iterator<char>(stream), {}};
    if (packets.empty()) throw std::runtime_error("no packets in " + path);
    return packets;
}

// Enters a phone, for the log and the clock, in which the files of BENCH_IN and BENCH_OUT are seen.
std::string enter_phone() {
    const std::string in = bench_env("BENCH_IN");
    phone_options options;
    options.writable = {in, bench_env("BENCH_OUT")};
    phone_enter(options);
    return packets_of(in);
}

// The packets, once, as the library's thread hands them over. Returns the longest that one took.
std::chrono::duration<double, std::milli> produce(std::string* packets, bool timed) {
    std::chrono::duration<double, std::milli> longest{};
    for (size_t at = 0; at + 2 <= packets->size();) {
        uint16_t len = 0;
        memcpy(&len, packets->data() + at, sizeof len);
        if (len > packets->size() - at - 2) break;
        const auto begin = timed ? steady::now() : steady::time_point{};
        process_dci_log_stream(reinterpret_cast<unsigned char*>(packets->data() + at + 2), len);
        if (timed) {
            longest =
                std::max<std::chrono::duration<double, std::milli>>(longest, steady::now() - begin);
        }
        at += 2 + size_t{len};
    }
    return longest;
}

// N passes of the packets into the record, which a thread writes as the collector's does.
void run(timed_campaign* campaign, std::string* packets, long n, bool timed) {
    if (stop_flag_open(&campaign->row->stop) != 0 || diag_dci_init_buffers() != 0)
        throw std::runtime_error("no buffers");
    int result = 0;
    std::thread consumer([&] { result = process_incoming_pkt(campaign, AN_HOUR_S); });
    std::chrono::duration<double, std::milli> longest{};
    for (long i = 0; i < n; ++i) longest = std::max(longest, produce(packets, timed));
    stop_flag_raise(&campaign->row->stop);
    consumer.join();
    diag_dci_release_buffers();
    if (result != 0) throw std::runtime_error("the record could not be written");
    if (timed) printf("longest time that a packet took: %.1f ms\n", longest.count());
}

}  // namespace

int bench_diag(long n) {
    std::string packets = enter_phone();
    endless_file file(bench_env("BENCH_OUT") + "/diagstats.tmp");
    // A record that is never full: compressing it is the other workload.
    collector_info row{.name = "diag_collector",
                       .size = INT32_MAX,
                       .compress_ratio = 0,
                       .hdr = {.client_id = 4, .realtime_ms = PLAUSIBLE_REAL_TIME_MS + 1}};
    timed_campaign campaign{.row = &row};
    campaign.record.file = file.stream();
    run(&campaign, &packets, n, false);
    return 0;
}

int bench_diagz(long n) {
    std::string packets = enter_phone();
    const std::string dir = bench_env("BENCH_OUT");
    const std::string up_dir = dir + "/up";
    (void)mkdir(up_dir.c_str(), 0700);
    collector_info row{.name = "diag_collector", .up_dir = up_dir.c_str(), .hdr = {.client_id = 4}};
    timed_campaign campaign{.row = &row};
    record_init_req req{
        .row = &row, .dir = dir.c_str(), .prefix = "diagstats.tmp", .resume = 0, .discard = 1};
    campaign.record.file = vexastats_record_init(&req);
    if (!campaign.record.file) throw std::runtime_error("no record in " + dir);
    run(&campaign, &packets, n, true);
    write_req last{.row = &row, .handle = &campaign.record, .flags = WRITE_DROP};
    (void)vexastats_write_file(&last);
    return 0;
}
