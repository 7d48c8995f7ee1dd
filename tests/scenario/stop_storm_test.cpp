// Starts the daemon over and over and stops it at a random moment of its life, while directories
// come and go and the windows between a flag and the wait behind it are widened.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "base/unique_handle.h"
#include "modem/pdc.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "support/files.h"

namespace fs = std::filesystem;
using steady = std::chrono::steady_clock;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int STORM_ROUNDS = 50;  // the instrumented daemon needs its time to start
#else
constexpr int STORM_ROUNDS = 200;
#endif

// Makes and removes, by name and by rename, what the daemon waits for, until told to end.
void churn_directories(unsigned seed, const std::atomic<bool>& end) {
    std::mt19937 rnd(seed);
    const char* dirs[] = {
        "/data/vendor/vexa",        "/data/vendor/vexa/up",     "/data/vendor/vexa/up/1",
        "/data/vendor/vexa/up/2",   "/data/vendor/vexa/up/5",   "/data/vendor/vexa/down",
        "/data/vendor/vexa/down/2", "/data/vendor/vexa/up/501", "/data/vendor/vexa/down/501",
        "/data/vendor/vexa/up/4",   "/data/vendor/vexa/down/4", "/data/vendor/vexa/up/6",
        "/data/vendor/vexa/down/6", "/data/vendor/vexa/down/51"};
    std::error_code ignored;
    while (!end) {
        const fs::path dir = dirs[rnd() % std::size(dirs)];
        const fs::path aside = "/data/vendor/aside" + std::to_string(rnd() % 3);
        switch (rnd() % 4) {
            case 0:
                fs::remove_all(aside, ignored);
                fs::rename(dir, aside, ignored);
                break;
            case 1:
                fs::rename(aside, dir, ignored);
                break;
            default:
                fs::create_directories(dir, ignored);
        }
        usleep(rnd() % 500);
    }
}

// As the download agent does, if the directory is there.
void put_band_list() {
    const std::string dir = std::string(DOWN_DIR) + "/51/";
    std::ofstream(dir + "mccbandlist.bin") << pdc_band_list(0x4d424c31, 2, "vexa", 2000);
    std::ofstream(dir + "51-1.0-mccbandlist.bin-200") << "";
}

struct tally {
    std::vector<double> stop_ms;
    int before_main = 0;  // the signal was faster than the daemon's first line
};

void print_distribution(const tally& result) {
    std::vector<double> ms = result.stop_ms;
    ASSERT_FALSE(ms.empty());
    std::sort(ms.begin(), ms.end());
    const auto at = [&](double part) {
        return ms[static_cast<size_t>(part * static_cast<double>(ms.size() - 1))];
    };
    printf(
        "%zu stops in order, %d before the first line; ms from signal to exit: "
        "min %.2f, median %.2f, 90 %% %.2f, 99 %% %.2f, max %.2f\n",
        ms.size(), result.before_main, ms.front(), at(0.5), at(0.9), at(0.99), ms.back());
}

// One of these, or nothing at all.
void deliver_one_of(std::mt19937& rnd, int client, const char* name, const std::string& config,
                    std::initializer_list<const char*> values) {
    if (rnd() % 2) deliver(client, name, config + values.begin()[rnd() % values.size()]);
}

// What the daemon finds, and the modem beside it.
void set_the_scene(std::mt19937& rnd, std::optional<modem_thread>* modem_side, unique_fd* dump) {
    phone_reset();
    for (const int id : {1, 2, 4, 5, 6, 51, 501}) {
        if (rnd() % 4) opt_in(id);
        if (rnd() % 2) fs::create_directories(std::string(DOWN_DIR) + "/" + std::to_string(id));
    }
    // With a campaign they soon wait for entries or packets; one of the length 0 is over at once.
    deliver_one_of(rnd, 501, "alogstats.cfg", "clientid=501;size=65536;campaign_id=1;",
                   {"campaign_duration_secs=600;num_alog_masks=0;\n",
                    "campaign_duration_secs=0;num_alog_masks=0;\n"});
    deliver_one_of(rnd, 4, "diagstats.cfg", "clientid=4;size=65536;campaign_id=1;",
                   {"campaign_duration_secs=600;num_diag_masks=1;diag_mask=0xb0c0;\n",
                    "campaign_duration_secs=0;num_diag_masks=1;diag_mask=0xb0c0;\n"});
    deliver_one_of(rnd, 5, "microdumpstats.cfg",
                   "clientid=5;size=65536;maxuploadwaittime=", {"0\n", "600000\n"});
    if (rnd() % 2) dump->reset(open("/dev/ramdump_microdump_modem", O_RDWR | O_CLOEXEC));
    if (*dump) (void)!write(dump->get(), "half a dump\n", 12);
    if (rnd() % 8 == 0) fs::remove_all("/data/vendor/vexa");
    std::string clock;
    if (rnd() % 8 == 0) clock = "real=1970-01-01T00:00:10Z ";
    if (rnd() % 4) {  // it streams as fast as the daemon takes packets
        modem_side->emplace();
        (*modem_side)->command("diag rate 0");
        if (rnd() % 2) (*modem_side)->command(rnd() % 2 ? "pdc silent" : "pdc stall on");
        if (rnd() % 3 == 0) {  // a call holds the stop for ten seconds: a quarter of one
            (*modem_side)->command("vexa silent");
            clock += "speed=40";
        }
    }
    if (!clock.empty()) phone_set_clock(clock);
}

void one_round(std::mt19937& rnd, tally* result) {
    std::optional<modem_thread> modem_side;
    unique_fd dump;  // half of one, or a device without a writer
    set_the_scene(rnd, &modem_side, &dump);
    const bool churning = rnd() % 2;

    std::atomic<bool> end{false};
    std::thread churn;
    if (churning) churn = std::thread(churn_directories, rnd(), std::cref(end));
    daemon_process daemon({"VEXA_TEST_WINDOW_US=" + std::to_string(rnd() % 3 * 200)});
    usleep(rnd() % 2 ? rnd() % 4000 : rnd() % 40000);
    if (rnd() % 2) {
        put_band_list();
        usleep(rnd() % 4000);
    }

    constexpr int SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};
    const int signo = SIGNALS[rnd() % 3];
    const auto begin = steady::now();
    daemon.signal(signo);
    if (rnd() % 3 == 0) daemon.signal(SIGNALS[rnd() % 3]);
    const std::optional<int> status = daemon.wait(SCENARIO_LIMIT);
    const std::chrono::duration<double, std::milli> taken = steady::now() - begin;
    end = true;
    if (churn.joinable()) churn.join();

    const std::string log = phone_log();
    ASSERT_TRUE(status) << "it hangs:\n" << log;
    if (*status > 128 && log.empty()) {
        result->before_main++;
        return;
    }
    ASSERT_EQ(*status, 0) << log;
    ASSERT_TRUE(log.ends_with("property_set vendor.orb.vexa.enabled 0\nvexastatsd stopped\n"))
        << log;
    ASSERT_EQ(file_text("/dev/properties/vendor.orb.vexa.enabled"), "0");
    result->stop_ms.push_back(taken.count());
}

TEST(StopStorm, EveryStopEndsInOrder) {
    std::mt19937 rnd(20161231);
    tally result;
    for (int i = 0; i < storm_rounds(STORM_ROUNDS); i++) {
        SCOPED_TRACE(testing::Message() << "round " << i);
        one_round(rnd, &result);
        if (HasFatalFailure()) return;
    }
    print_distribution(result);
}

}  // namespace
