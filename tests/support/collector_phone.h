// One collector in a fresh phone, for the tests of all collectors: the row of the daemon's own
// table, its thread on the scripted platform, and the opt-out monitor's part, played by the test.
//
//   struct GpuCollector : testing::Test, collector_phone {
//       GpuCollector() : collector_phone(1) {}
//   };
//   TEST_F(GpuCollector, ...) {
//       write("/sys/class/kgsl/kgsl-3d0/gpuclk", "257000000\n");
//       start();        // its thread runs, and waits for something to happen or for time to pass
//       pass(60000);    // a minute later it waits again
//       EXPECT_EQ(log(), "D vexastatsd: ...\n");
//       EXPECT_EQ(dropbox(), "gpustats.1700000000000 seq 1: 50c30000...\n");
//   }                   // stopped, if it has not ended
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/row/collector_info.h"
#include "framework/row/optout.h"
#include "platform_test.h"
#include "support/events.h"
#include "support/files.h"

class collector_phone {
  public:
    // The collector with that client id, with the owner's consent, and its directories as they are
    // before the daemon's first start: up and down empty, its own not there. The time zone is UTC.
    explicit collector_phone(uint32_t client_id);
    ~collector_phone();
    collector_phone(const collector_phone&) = delete;
    collector_phone& operator=(const collector_phone&) = delete;

    // A copy of the table's row. A test may change it before the start.
    std::unique_ptr<collector_info> row;
    // How many threads wait when the collector has nothing to do: its own and its libraries'.
    size_t waiting_threads = 1;
    // What the thread function returned.
    std::atomic<int> result{-1};

    // ---- The phone's files. One that is there is written in place, as the kernel does: who reads
    // meanwhile sees the old value or the new one, and it is one event unless it becomes shorter.
    static void write(const std::filesystem::path& path, const std::string& text);
    static void shrink(const std::filesystem::path& path, size_t size);
    static void remove(const std::filesystem::path& path);  // a directory, too; may be missing

    // ---- The thread
    void launch();  // runs it, and waits for nothing: a wait for consent is not one that time ends
    void start();   // runs it, with clocks that are moved by hand, until it waits
    void park();    // until it waits, or has ended
    void pass(int64_t ms);
    void stop();  // as a signal to the daemon does it: the row's hook, then the opt-out monitor
    bool ended() const { return ended_; }
    void join();   // until it has ended by itself
    void renew();  // stop(), and a row as the next start of the daemon has it
    void opt_out();
    void opt_in();

    // ---- What can be seen of it
    std::string dropbox() const;  // support/dropbox.h
    std::vector<std::string> payloads() const;
    // What stands in a record behind its first line; without a name, in the only one.
    std::string record(const std::string& name = {}) const;
    std::string cfg() const { return file_text(row->cfg_file); }
    std::string requests() const;  // for downloads: the name of each, and its text

    // The log since the last look: "E vexastatsd: text". Texts end a line, whether they say so or
    // not. It waits for nothing.
    std::string log();
    static void wait_log(const std::string& text);  // until that text was logged, since the start
    // How many entries have that text in them, since the row was made.
    size_t times_logged(const std::string& text) const;

    // "/data/vendor/vexastats/1", or a file in it.
    std::filesystem::path own(const std::string& name = {}) const;

  private:
    void make_row();
    void consent_changed(int terminate);

    const collector_info& table_row_;
    std::thread thread_;
    std::atomic<bool> ended_{true};
    size_t log_begin_ = 0;
    size_t log_seen_ = 0;
};
