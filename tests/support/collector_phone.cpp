#include "support/collector_phone.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "core/collectors.h"
#include "support/dropbox.h"
#include "support/log.h"

namespace fs = std::filesystem;

namespace {

const collector_info& row_of(uint32_t client_id) {
    for (int32_t i = 0; i < g_collector_count; ++i)
        if (g_collectors[i].hdr.client_id == client_id) return g_collectors[i];
    throw std::runtime_error("no collector " + std::to_string(client_id));
}

// Everything that a row of the table says. Its run-time part is that of a row that never ran.
collector_info copy_of(const collector_info& r) {
    return {.name = r.name,
            .up_dir = r.up_dir,
            .down_dir = r.down_dir,
            .cfg_file = r.cfg_file,
            .dl_cfg_file = r.dl_cfg_file,
            .size = r.size,
            .max_upload_wait_time = r.max_upload_wait_time,
            .notify = r.notify,
            .interval = r.interval,
            .interval_max = r.interval_max,
            .interval_min = r.interval_min,
            .threshold = r.threshold,
            .threshold_max = r.threshold_max,
            .threshold_min = r.threshold_min,
            .no_supported_kernel = r.no_supported_kernel,
            .compress_ratio = r.compress_ratio,
            .hdr = r.hdr,
            .thread_func = r.thread_func,
            .cfg_read_handler = r.cfg_read_handler,
            .cfg_update_handler = r.cfg_update_handler,
            .sig_handler = r.sig_handler,
            .state = r.state,
            .consent_handler = r.consent_handler};
}

}  // namespace

collector_phone::collector_phone(uint32_t client_id) : table_row_(row_of(client_id)) {
    setenv("TZ", "UTC", 1);
    tzset();
    for (const fs::path& dir : {fs::path(table_row_.up_dir), fs::path(table_row_.down_dir), own()})
        fs::remove_all(dir);
    fs::create_directories(table_row_.down_dir);
    fs::create_directories(own().parent_path());
    make_row();
}

collector_phone::~collector_phone() {
    stop();
    close(row->stop.fd);
}

void collector_phone::make_row() {
    row.reset(new collector_info(copy_of(table_row_)));
    if (stop_flag_open(&row->stop) != 0) throw std::runtime_error("no stop flag");
    row->running = 1;
    opt_in();
    log_begin_ = log_seen_ = platform_test_log().size();
}

fs::path collector_phone::own(const std::string& name) const {
    const fs::path dir =
        fs::path("/data/vendor/vexastats") / std::to_string(table_row_.hdr.client_id);
    return name.empty() ? dir : dir / name;
}

void collector_phone::write(const fs::path& path, const std::string& text) {
    if (!fs::is_regular_file(path)) return put_files({{path.string(), text}});
    std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << text << std::flush;
    if (fs::file_size(path) > text.size()) shrink(path, text.size());
}

void collector_phone::shrink(const fs::path& path, size_t size) {
    fs::resize_file(path, size);
}

void collector_phone::remove(const fs::path& path) {
    fs::remove_all(path);
}

void collector_phone::launch() {
    ended_ = false;
    thread_ = std::thread([this] {
        result = row->thread_func(row.get());
        ended_ = true;
    });
}

void collector_phone::start() {
    platform_test_set_clock(platform_test_clock::MANUAL);
    launch();
    park();
}

void collector_phone::park() {
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    while (!ended() && !platform_test_wait_parked(waiting_threads, 10))
        ASSERT_LT(std::chrono::steady_clock::now(), limit) << log();
}

void collector_phone::pass(int64_t ms) {
    platform_test_advance_ms(ms);
    park();
}

void collector_phone::stop() {
    if (!thread_.joinable()) return;
    if (row->sig_handler) row->sig_handler(SIGTERM);
    consent_changed(1);
    optout_context context{.table = row.get(), .count = 1};
    optout_stop_rows(&context);
    thread_.join();
}

void collector_phone::join() {
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    while (!ended() && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_TRUE(ended()) << log();
    if (ended()) thread_.join();
}

void collector_phone::renew() {
    stop();
    close(row->stop.fd);
    make_row();
}

void collector_phone::opt_out() {
    fs::remove_all(row->up_dir);
    consent_changed(0);
}

void collector_phone::opt_in() {
    fs::create_directories(row->up_dir);
    consent_changed(0);
}

void collector_phone::consent_changed(int terminate) {
    optout_context context{.table = row.get(), .count = 1};
    optout_handle(&context, terminate);
}

std::vector<std::string> collector_phone::payloads() const {
    return dropbox_payloads(row->up_dir);
}

std::string collector_phone::dropbox() const {
    return dropbox_text(row->up_dir);
}

std::string collector_phone::record(const std::string& name) const {
    std::string found = name;
    for (const std::string& other : list_dir(own()))
        if (found.empty() && other.ends_with(".tmp")) found = other;
    const std::string text = found.empty() ? "" : file_text(own(found));
    return text.substr(text.find('\n') + 1);
}

std::string collector_phone::requests() const {
    std::string all;
    for (const std::string& name : list_dir(row->down_dir))
        if (name.ends_with(".req")) all += name + "\n" + file_text(row->down_dir / fs::path(name));
    return all;
}

std::string collector_phone::log() {
    return log_lines(&log_seen_);
}

void collector_phone::wait_log(const std::string& text) {
    ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text;
}

size_t collector_phone::times_logged(const std::string& text) const {
    const std::vector<platform_test_log_entry> all = platform_test_log();
    return static_cast<size_t>(
        std::count_if(all.begin() + static_cast<long>(std::min(log_begin_, all.size())), all.end(),
                      [&](const auto& entry) { return entry.text.find(text) != text.npos; }));
}
