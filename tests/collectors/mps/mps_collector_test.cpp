// The collector's thread with a modem on its socket and a clock that is moved by hand: what it asks
// of the modem and when, and what becomes of the modem's data files.
#include "collectors/mps/mps_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <filesystem>

#include "campaign/campaign_mgr.h"
#include "collectors/mps/mps_data.h"
#include "collectors/mps/mps_timers.h"
#include "mps_events/mps_events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/kbr_service.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {
std::string g_logic;  // of the campaign that there is
phone_state g_phone;
}  // namespace

// In place of the campaign manager's.
void campaign_mgr_get_campaign(uint32_t module, owned_bytes* logic, uint32_t* campaign_id) {
    EXPECT_EQ(module, 6u);
    *campaign_id = 333;
    *logic = {};
    if (g_logic.empty()) return;
    *logic = spec_of(g_logic.size());
    std::copy(g_logic.begin(), g_logic.end(), logic->bytes.get());
}
bool campaign_mgr_get_ph_info(phone_state* out) {
    *out = g_phone;
    return true;
}

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/6";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/6";
constexpr char STATS_DIR[] = "/data/vendor/vexastats/6";
const std::string DATA_DIR = "/mnt/vendor/persist/hlos_rfs/shared/vexa/";

// Fetch interval 0x258 = 600 s, LL delay 20 s, an LLL spec of one byte.
const std::string LOGIC = hex_bytes("0a05 10d804 2814 1203 420107");

enum request : char {
    REVISION = 1,
    PREPARE,
    PART,
    START,
    STOP,
    FETCH = 7,
    LLL_STOP = 9,
    LLL_START
};

class MpsCollector : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* dir : {UP_DIR, DOWN_DIR, STATS_DIR, DATA_DIR.c_str()}) {
            fs::remove_all(dir);
            fs::create_directories(dir);
        }
        setenv("TZ", "XXX+05:30", 1);
        tzset();
        platform_test_set_clock(platform_test_clock::MANUAL);
        mps_clear_event(UINT32_MAX);
        mps_clear_timer_expired(UINT32_MAX);
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
        g_logic = LOGIC;
        g_phone = {.default_sub = 1};
    }
    void TearDown() override {
        stop_flag_raise(&row.stop);
        if (thread.joinable()) thread.join();
        close(row.stop.fd);
    }

    void start() {
        thread = std::thread([this] { mps_main(&row); });
        modem.accept();
    }
    void answer() {
        modem.answer([this](const std::string& request) {
            if (request[3] != silent_to) return response_to(request);
            asked = true;
            asked.notify_all();
            return hex_bytes("01 ffff 0000 0000");  // nobody waits for this one
        });
    }
    void start_and_answer() {
        start();
        answer();
        settle("mps_main: MPS_EVENT_KBR_READY\n");
    }
    // Waits until this was logged and then everything that was raised was served.
    static void settle(const std::string& text) {
        ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text << log_text();
        settle();
    }
    static void settle() {
        platform_test_clear_log();
        mps_set_event(MPS_EVENT_MODEM_RESTART);
        ASSERT_TRUE(platform_test_wait_log("mps_main: MPS_EVENT_MODEM_RESTART\n", 20000));
        ASSERT_TRUE(platform_test_wait_log("mps_main: Wait on signal\n", 20000)) << log_text();
    }
    void raise(uint32_t event) {
        mps_campaign_event(event);
        settle();
    }
    // Lets the time pass and waits for the request that a timer then leads to.
    void pass_s(int seconds) {
        platform_test_advance_ms(int64_t{1000} * seconds);
        EXPECT_TRUE(platform_test_wait_log("mps_main: MPS_EVENT_TIMER\n", EVENT_LIMIT.count()));
        settle();
    }
    // The ids of the requests since the last call.
    std::string requests() {
        std::string ids;
        for (const std::string& packet : modem.take_requests()) ids += packet[3];
        return ids;
    }
    std::string payload() {
        std::string found;
        for (const std::string& name : list_dir(UP_DIR))
            found += gunzip(file_text(UP_DIR + ("/" + name)).substr(53));
        return found;
    }

    collector_info row{.name = "mps",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .hdr = {.client_id = 6, .data_type = DATA_TYPE_MPS}};
    kbr_service modem{"vexa"};
    std::atomic<char> silent_to{0};
    std::atomic<bool> asked{false};  // what it is silent to
    std::thread thread;
};

TEST_F(MpsCollector, StartWaitsForTheServiceAndForAFlush) {
    start();
    raise(MPS_EVENT_CAMPAIGN_START);
    EXPECT_EQ(mps_events(), uint32_t{MPS_EVENT_CAMPAIGN_START}) << "the modem has not answered yet";
    answer();
    settle("mps_main: MPS_EVENT_KBR_READY\n");
    const std::string start_ids{REVISION, PREPARE, PART, START};
    EXPECT_EQ(requests(), start_ids);
    EXPECT_EQ(row.hdr.campaign_id, 333u);

    mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
    raise(MPS_EVENT_CAMPAIGN_START);
    EXPECT_EQ(requests(), std::string{STOP});
    raise(MPS_EVENT_SEND_COMPLETE);
    EXPECT_EQ(requests(), start_ids.substr(1)) << "no LLL stop: nothing was collected";
    raise(MPS_EVENT_SEND_COMPLETE);
    EXPECT_EQ(requests(), std::string{LLL_STOP});
    EXPECT_EQ(row.hdr.campaign_id, 333u) << "no flush was pending any more";

    g_logic = "";
    platform_test_clear_log();
    mps_campaign_event(MPS_EVENT_CAMPAIGN_START);
    settle("CL data not injected 0x0 KBR Init State TRUE Default Sub id = 1");
    EXPECT_EQ(requests(), "");
}

TEST_F(MpsCollector, TimersAskForDataAndResumeLll) {
    start_and_answer();
    g_logic = hex_bytes("0a05 10ac02 2814 1203 420107");  // 300 s: no more than the floor
    raise(MPS_EVENT_CAMPAIGN_START);
    g_logic = LOGIC;
    raise(MPS_EVENT_SEND_COMPLETE);
    requests();
    pass_s(20);
    EXPECT_EQ(requests(), std::string{LLL_START});
    pass_s(280);
    EXPECT_EQ(requests(), std::string{FETCH});
    raise(MPS_EVENT_CAMPAIGN_START);
    requests();
    platform_test_advance_ms(599999);
    settle();
    EXPECT_EQ(requests(), "") << "600 s now, from the start on";
    pass_s(1);
    EXPECT_EQ(requests(), std::string{FETCH});
    raise(MPS_EVENT_CAMPAIGN_STOP);
    requests();
    platform_test_advance_ms(3600000);
    settle();
    EXPECT_EQ(requests(), "") << "stopped";

    silent_to = FETCH;
    mps_set_event(MPS_EVENT_BUFFER_FULL);
    asked.wait(false);  // the collector is busy until both have expired
    mps_timer_cb(MPS_TIMER_FETCH);
    mps_timer_cb(MPS_TIMER_LL_DELAY);
    platform_test_advance_ms(10000);
    settle("mps_main: MPS_EVENT_TIMER\n");
    EXPECT_EQ(requests(), std::string{FETCH});
    EXPECT_EQ(mps_timers_expired(), 3u) << "neither is served then";
}

TEST_F(MpsCollector, RequestToASilentModemHoldsAStopForTenSeconds) {
    start_and_answer();
    silent_to = FETCH;
    platform_test_clear_log();
    mps_set_event(MPS_EVENT_BUFFER_FULL | MPS_EVENT_FETCH_TIMER);
    asked.wait(false);
    stop_flag_raise(&row.stop);
    platform_test_advance_ms(9999);
    EXPECT_THAT(log_text(), Not(HasSubstr("Failed to send DATA_REQ")));
    platform_test_advance_ms(1);
    thread.join();
    EXPECT_THAT(log_text(), HasSubstr("mps_kbr_fetch_results: Failed to send DATA_REQ err = -3"));
    EXPECT_THAT(log_text(), Not(HasSubstr("MPS_EVENT_FETCH_TIMER"))) << "no call behind the stop";
}

// What a file of `size` bytes becomes, begun and ended at the phone's first moment, at UTC-05:30.
std::string record_of(char kind, size_t size) {
    const std::string moment = hex_bytes("10 0802 1205 1001 20ca02 1880d095ffbc31");
    std::string metric = "\x0a" + moment + "\x12" + moment;
    if (kind != 0) metric += std::string("\x18") + kind;
    metric += std::string("\x22") + static_cast<char>(size) + std::string(size, 'd');
    return hex_bytes("0a05 08cd02 1006 1a") + static_cast<char>(metric.size()) + metric;
}

TEST_F(MpsCollector, DataFilesBecomeRecordsByTheirNamesAndGo) {
    constexpr char NONE = -1;
    const struct {
        const char* name;
        size_t size;
        char kind;  // or NONE
        bool stays;
        const char* log;
    } cases[] = {
        {"hda_data_1.bin", 60, 0, false, "Encoding passed in  function"},
        {"x_hda_static_data_.bin.old", 60, 1, false, "Campaign Id = 333"},
        {"hda_lll.bin", 60, 2, false, "mps_rfs_data_read Opening file /mnt/"},
        {"hda_lll_hda_data_.bin", 60, 0, false, ""},
        {"hda_data_1.txt", 60, NONE, true, "Not a recongnizable file hda_data_1.txt"},
        {"hda_dat_1.bin", 60, NONE, true, "Not a recongnizable file hda_dat_1.bin"},
        {"hda_data_empty.bin", 0, NONE, false, "is empty"},
        {"hda_data_least.bin", 47, 0, false, ""},  // 47 bytes of framing
        {"hda_data_less.bin", 46, NONE, false,
         "mps_encode_modem_metric_data(): Submessage Encode Failed"},
        {"hda_data_closed.bin", 60, NONE, true, "Coult not  open the file /mnt/"},
    };
    mps_collection collection{.row = &row};
    row.hdr.campaign_id = 333;
    collection.start = mps_time_now();
    ASSERT_TRUE(mps_open_record(&collection));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        platform_test_clear_log();
        const std::string path = DATA_DIR + c.name;
        write_text_file(path, std::string(c.size, 'd'));
        if (path.ends_with("closed.bin")) fs::permissions(path, fs::perms::none);
        EXPECT_EQ(mps_rfs_data_read(&collection), 0);
        EXPECT_EQ(payload(), c.kind == NONE ? "" : record_of(c.kind, c.size));
        EXPECT_EQ(fs::exists(path), c.stays);
        EXPECT_THAT(log_text(), HasSubstr(c.log));
        fs::remove(path);
        for (const std::string& name : list_dir(UP_DIR)) fs::remove(UP_DIR + ("/" + name));
    }
    mps_drop_collected_data_to_dropbox(reinterpret_cast<const uint8_t*>("raw data"), 8, &collection,
                                       false, MPS_DATA_METRIC);
    EXPECT_EQ(payload(), "");
    const std::string raw(20, 'r');
    mps_drop_collected_data_to_dropbox(reinterpret_cast<const uint8_t*>(raw.data()), 20,
                                       &collection, false, MPS_DATA_METRIC);
    EXPECT_EQ(payload(), hex_bytes("0a05 08cd02 1006 1214") + raw);

    fs::remove_all(UP_DIR);  // the hand-over fails and takes the stream with it
    const auto drop = [&] {
        write_text_file(DATA_DIR + "hda_lll.bin", std::string(60, 'd'));
        (void)mps_rfs_data_read(&collection);
    };
    drop();
    EXPECT_THAT(log_text(), HasSubstr("failed to write file. cnt:0\n"));
    fs::create_directories(UP_DIR);
    drop();
    EXPECT_THAT(payload(), HasSubstr(record_of(2, 60))) << "it begins a record again";
    vexastats_record_close(&collection.record);
}

TEST_F(MpsCollector, NothingRaisedInAStormIsLeftUnserved) {
    constexpr int RAISES = 34000;  // of each raiser
    start_and_answer();
    const auto storm = [](auto raise_one) {
        return std::thread([raise_one] {
            for (int i = 0; i < RAISES; ++i) raise_one(i);
        });
    };
    std::thread raisers[] = {
        storm([this](int) { modem.send(hex_bytes("02 0000 06 00 0700 01 0400 07000000")); }),
        storm([](int i) { mps_timer_cb(i % 2 ? MPS_TIMER_FETCH : MPS_TIMER_LL_DELAY); }),
        storm([](int i) {
            mps_campaign_event(i % 2 ? MPS_EVENT_CAMPAIGN_START : MPS_EVENT_CAMPAIGN_STOP);
            if (i % 100 == 0) platform_test_clear_log();
        })};
    for (std::thread& raiser : raisers) raiser.join();
    modem.send(hex_bytes("02 0000 08 00 0e00 01 0400 01000000 02 0400 02000000"));
    settle("mps_main: MPS_EVENT_SEND_COMPLETE\n");
    EXPECT_EQ(mps_events(), 0u);
    const std::string ids = requests();
    for (const char id : {START, STOP, FETCH}) {
        EXPECT_LE(std::count(ids.begin(), ids.end(), id), RAISES) << "served without a raise";
    }
    EXPECT_NE(ids.find(FETCH), ids.npos);
}

}  // namespace
