// The collector's thread with a modem on its socket and a clock that is moved by hand: what it asks
// of the modem and when, and what becomes of the modem's data files.
#include "collectors/mps/mps_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>

#include "collectors/mps/mps_data.h"
#include "collectors/mps/mps_timers.h"
#include "mps_events/mps_campaign_board.h"
#include "mps_events/mps_events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/kbr_service.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/6";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/6";
const std::string DATA_DIR = "/mnt/vendor/persist/hlos_rfs/shared/vexa/";

std::string g_logic;  // of the campaign that there is

// In place of the campaign manager.
void write_board(mps_campaign_board* board) {
    board->campaign_id = 333;
    board->phone.default_sub = 1;
    board->logic = spec_of(g_logic.size());
    std::copy(g_logic.begin(), g_logic.end(), board->logic.bytes.get());
}

// Fetch interval as a varint, LL delay 20 s, an LLL spec of one byte.
std::string logic(const char* fetch_s) {
    return hex_bytes("0a05 10" + std::string(fetch_s) + "2814 1203 420107");
}

class MpsCollector : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* dir : {UP_DIR, DOWN_DIR, "/data/vendor/vexastats/6", DATA_DIR.c_str()}) {
            fs::remove_all(dir);
            fs::create_directories(dir);
        }
        platform_test_set_clock(platform_test_clock::MANUAL);
        mps_clear_event(UINT32_MAX);
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
        g_logic = logic("d804");
        mps_board_written_by(write_board);
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
            if (request[3] == refused) return response_to(request, hex_bytes("02 0400 0100 0300"));
            if (request[3] != silent_to) return response_to(request);
            asked = true;
            asked.notify_all();
            return hex_bytes("01 ffff 0000 0000");  // nobody waits for this one
        });
        settle("mps_main: MPS_EVENT_KBR_READY\n");
    }
    static void wait_log(const std::string& text) {
        ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text << log_text();
    }
    // Waits until this was logged and then everything that was raised was served.
    static void settle(const char* text = nullptr) {
        if (text) wait_log(text);
        platform_test_clear_log();
        mps_set_event(MPS_EVENT_MODEM_RESTART);
        wait_log("mps_main: MPS_EVENT_MODEM_RESTART\n");
        wait_log("mps_main: Wait on signal\n");
    }
    // The requests that an event leads to, or a timer's expiry in so many seconds: 1 revision,
    // 2 prepare, 3 part, 4 start, 5 stop, 7 data, 9 LLL stop, : LLL start.
    std::string raise(uint32_t event) {
        mps_campaign_event(event);
        settle();
        return requests();
    }
    // As the opt-out monitor does it.
    void consent(bool is_given) {
        platform_test_clear_log();
        const vexa_lock held(row.mutex);
        row.enabled = is_given;
        mps_consent_changed(row);
    }
    // Raises an event without consent, until the thread waits again.
    static void raise_opted_out(uint32_t event) {
        platform_test_clear_log();
        mps_campaign_event(event);
        wait_log("mps_clear_event: Clearing event " + std::to_string(event));
        wait_log("mps_main: Wait on signal\n");
    }
    std::string pass_s(int seconds) {
        platform_test_advance_ms(int64_t{1000} * seconds);
        settle("mps_main: MPS_EVENT_TIMER\n");
        return requests();
    }
    std::string requests() {
        std::string ids;
        for (const std::string& packet : modem.take_requests())
            ids += static_cast<char>('0' + packet[3]);
        return ids;
    }

    collector_info row{.name = "mps", .up_dir = UP_DIR, .down_dir = DOWN_DIR};
    kbr_service modem{"vexa"};
    std::atomic<char> silent_to{0}, refused{0};
    std::atomic<bool> asked{false};  // what it is silent to
    std::thread thread;
};

TEST_F(MpsCollector, StartWaitsForTheServiceAndForAFlush) {
    start();
    raise(MPS_EVENT_CAMPAIGN_START);
    EXPECT_EQ(mps_events(), uint32_t{MPS_EVENT_CAMPAIGN_START}) << "the modem has not answered yet";
    answer();
    EXPECT_EQ(requests(), "1234");
    mps_campaign_event(MPS_EVENT_CAMPAIGN_STOP);
    EXPECT_EQ(raise(MPS_EVENT_CAMPAIGN_START), "5");
    EXPECT_EQ(raise(MPS_EVENT_SEND_COMPLETE), "234") << "no LLL stop: nothing was collected";
    EXPECT_EQ(raise(MPS_EVENT_SEND_COMPLETE), "9");
    EXPECT_EQ(row.hdr.campaign_id, 333u) << "no flush was pending any more";
}

TEST_F(MpsCollector, TimersAskForDataAndResumeLllUntilAStopInACall) {
    start();
    answer();
    g_logic = logic("ab02");  // 299 s: under the floor
    raise(MPS_EVENT_CAMPAIGN_START);
    refused = 9;
    EXPECT_EQ(raise(MPS_EVENT_SEND_COMPLETE), "9");
    platform_test_advance_ms(20000);
    settle();
    EXPECT_EQ(requests(), "") << "a refused LLL stop is no pause";
    refused = 0;
    EXPECT_EQ(raise(MPS_EVENT_SEND_COMPLETE), "9");
    EXPECT_EQ(pass_s(20), ":");
    EXPECT_EQ(pass_s(260), "7");
    g_logic = logic("d804");
    raise(MPS_EVENT_CAMPAIGN_START);
    platform_test_advance_ms(599999);
    settle();
    EXPECT_EQ(requests(), "") << "600 s now, from the start on";
    platform_test_advance_ms(1);
    settle("mps_main: MPS_EVENT_TIMER\n");
    EXPECT_EQ(requests(), "7");

    silent_to = 7;
    mps_set_event(MPS_EVENT_BUFFER_FULL);
    asked.wait(false);  // the collector is busy until both have expired
    mps_timer_cb(MPS_TIMER_FETCH);
    mps_timer_cb(MPS_TIMER_LL_DELAY);
    EXPECT_EQ(pass_s(10), "7");
    EXPECT_EQ(mps_timers_expired(), 3u) << "neither is served then";

    platform_test_clear_log();
    asked = false;
    mps_set_event(MPS_EVENT_BUFFER_FULL | MPS_EVENT_FETCH_TIMER);
    asked.wait(false);
    stop_flag_raise(&row.stop);
    platform_test_advance_ms(9999);
    EXPECT_THAT(log_text(), Not(HasSubstr("err = -3"))) << "a call is not cut short";
    platform_test_advance_ms(1);
    thread.join();
    EXPECT_THAT(log_text(), Not(HasSubstr("MPS_EVENT_FETCH_TIMER"))) << "none behind the stop";
}

constexpr char NONE = -1;

// What a file of `size` bytes becomes, begun and ended at the phone's first moment, at UTC-05:30.
std::string record_of(char kind, size_t size) {
    if (kind == NONE) return "";
    const std::string moment = hex_bytes("10 0802 1205 1001 20ca02 1880d095ffbc31");
    std::string metric = "\x0a" + moment + "\x12" + moment;
    if (kind != 0) metric += std::string("\x18") + kind;
    metric += std::string("\x22") + static_cast<char>(size) + std::string(size, 'd');
    return hex_bytes("0a05 08cd02 1006 1a") + static_cast<char>(metric.size()) + metric;
}

TEST_F(MpsCollector, DataFilesBecomeRecordsByTheirNamesAndGo) {
    const std::tuple<const char*, size_t, char, bool> cases[] = {
        {"hda_data_1.bin", 60, 0, false},   {"x_hda_static_data_.bin.old", 60, 1, false},
        {"hda_lll.bin", 60, 2, false},      {"hda_lll_hda_data_.bin", 60, 0, false},
        {"hda_data_1.txt", 60, NONE, true}, {"hda_data_.bin", 0, NONE, false},
        {"hda_data_.bin", 47, 0, false},  // as long as its framing
        {"hda_data_.bin", 46, NONE, false},
    };
    setenv("TZ", "XXX+05:30", 1);
    tzset();
    row.hdr.client_id = 6;
    row.hdr.campaign_id = 333;
    mps_collection collection{.row = &row, .start = mps_time_now()};
    ASSERT_TRUE(mps_open_record(&collection));
    const auto take = [&](const std::string& path, size_t size) {
        write_text_file(path, std::string(size, 'd'));
        (void)mps_rfs_data_read(&collection);
        std::string payload;
        for (const std::string& name : list_dir(UP_DIR)) {
            payload = gunzip(file_text(UP_DIR + ("/" + name)).substr(53));
            fs::remove(UP_DIR + ("/" + name));
        }
        return payload;
    };
    for (const auto& [name, size, kind, stays] : cases) {
        EXPECT_EQ(take(DATA_DIR + name, size), record_of(kind, size)) << name;
        EXPECT_EQ(fs::remove(DATA_DIR + name), stays) << name;
    }
    fs::remove_all(UP_DIR);  // the hand-over fails and takes the stream with it
    take(DATA_DIR + "hda_lll.bin", 60);
    fs::create_directories(UP_DIR);
    EXPECT_THAT(take(DATA_DIR + "hda_lll.bin", 60), HasSubstr(record_of(2, 60)));
    // A file that cannot be deleted goes once, and again when it has changed.
    const std::string stuck = std::string(DATA_DIR) + "hda_lll.bin";
    const std::string error = "failed to remove " + stuck + ". err:13\n";
    const auto take_again = [&] {
        EXPECT_EQ(mps_rfs_data_read(&collection), 0);
        const size_t uploads = list_dir(UP_DIR).size();
        for (const std::string& name : list_dir(UP_DIR)) fs::remove(UP_DIR + ("/" + name));
        return uploads;
    };
    write_text_file(stuck, std::string(60, 'd'));
    fs::permissions(DATA_DIR, fs::perms::owner_read | fs::perms::owner_exec);
    EXPECT_EQ(take_again(), 1u);
    EXPECT_EQ(take_again(), 0u);
    EXPECT_EQ(platform_test_log_count(error), 1u);
    write_text_file(stuck, std::string(61, 'd'));
    EXPECT_EQ(take_again(), 1u);
    EXPECT_EQ(platform_test_log_count(error), 2u);
    fs::permissions(DATA_DIR, fs::perms::owner_all);
    EXPECT_EQ(take_again(), 0u);
    EXPECT_FALSE(fs::exists(stuck));
    vexastats_record_close(&collection.record);
}

TEST_F(MpsCollector, OnlyTheModemsOwnFilesOfBoundedSizeAreTaken) {
    const fs::path dir(DATA_DIR), secret = "/mnt/vendor/persist/secret";
    write_text_file(secret, std::string(60, 's'));
    mps_collection collection{.row = &row};
    fs::create_symlink(secret, dir / "hda_data_1.bin");
    fs::create_hard_link(secret, dir / "hda_data_2.bin");
    fs::create_directory(dir / "hda_data_3.bin");
    write_text_file(dir / "hda_data_4.bin", "");
    fs::resize_file(dir / "hda_data_4.bin", (16u << 20) + 1);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(mps_rfs_data_read(&collection), 0);
    EXPECT_THAT(list_dir(UP_DIR), IsEmpty());
    for (const char* name : {"hda_data_1.bin", "hda_data_2.bin", "hda_data_3.bin"}) {
        EXPECT_TRUE(fs::remove(dir / name)) << name;
        EXPECT_EQ(platform_test_log_count("Coult not  open the file " + DATA_DIR + name), 1u);
    }
    EXPECT_EQ(platform_test_log_count("Failed in reading file " + DATA_DIR + "hda_data_4.bin"), 1u);
    EXPECT_THAT(list_dir(dir), IsEmpty()) << "too large a file goes";

    write_text_file(dir / "hda_data_1.bin", std::string(60, 'd'));
    fs::rename(dir.parent_path(), "/mnt/vendor/persist/elsewhere");
    fs::create_directory_symlink("/mnt/vendor/persist/elsewhere", dir.parent_path());
    EXPECT_EQ(mps_rfs_data_read(&collection), -1) << "a link in place of the directory";
    fs::remove(dir.parent_path());
    fs::rename("/mnt/vendor/persist/elsewhere", dir.parent_path());
    vexastats_record_close(&collection.record);
}

// ---- Consent

TEST_F(MpsCollector, LossOfConsentEndsTheCollectionAndNothingOfItIsUploaded) {
    start();
    answer();
    EXPECT_EQ(raise(MPS_EVENT_CAMPAIGN_START), "1234");
    consent(false);
    wait_log("mps_main: Wait on signal\n");
    EXPECT_EQ(requests(), "5");
    for (const uint32_t event : {MPS_EVENT_SEND_COMPLETE, MPS_EVENT_BUFFER_FULL}) {
        write_text_file(DATA_DIR + "hda_data_1.bin", std::string(60, 'd'));
        raise_opted_out(event);
        EXPECT_EQ(list_dir(DATA_DIR).size(), event == MPS_EVENT_BUFFER_FULL ? 1u : 0u);
    }
    EXPECT_EQ(row.hdr.campaign_id, 0u);
    EXPECT_EQ(requests(), "") << "only stops are served";
    consent(true);
    settle();
    EXPECT_EQ(requests(), "234") << "the campaign goes on";
    EXPECT_THAT(list_dir(DATA_DIR), IsEmpty());
    EXPECT_THAT(list_dir(UP_DIR), IsEmpty());

    // Gone and back before the thread looks: what the flush brings is still nobody's.
    {
        const vexa_lock held(row.mutex);
        for (const bool is_given : {false, true}) {
            row.enabled = is_given;
            mps_consent_changed(row);
        }
    }
    settle();
    EXPECT_EQ(requests(), "5");
    write_text_file(DATA_DIR + "hda_data_1.bin", std::string(60, 'd'));
    EXPECT_EQ(raise(MPS_EVENT_SEND_COMPLETE), "234");
    EXPECT_THAT(list_dir(UP_DIR), IsEmpty());
    write_text_file(DATA_DIR + "hda_data_1.bin", std::string(60, 'd'));
    raise(MPS_EVENT_SEND_COMPLETE);
    EXPECT_EQ(list_dir(UP_DIR).size(), 1u) << "the new collection's are uploaded";
}

TEST_F(MpsCollector, StopIsSentWithoutConsentAndTheEndBringsNoPass) {
    start();
    answer();
    EXPECT_EQ(raise(MPS_EVENT_CAMPAIGN_START), "1234");
    consent(false);
    wait_log("mps_main: Wait on signal\n");
    raise_opted_out(MPS_EVENT_CAMPAIGN_STOP);
    EXPECT_EQ(requests(), "55");
    raise_opted_out(MPS_EVENT_SEND_COMPLETE);
    consent(true);
    settle();
    EXPECT_EQ(requests(), "") << "the campaign was stopped";
    consent(false);
    wait_log("mps_main: Wait on signal\n");
    mps_campaign_event(MPS_EVENT_MODEM_RESTART);
    platform_test_clear_log();
    {
        const vexa_lock held(row.mutex);
        row.terminate = 1;
        mps_consent_changed(row);
    }
    thread.join();
    EXPECT_THAT(log_text(), Not(HasSubstr("Got event")));
}

TEST_F(MpsCollector, NothingRaisedInAStormIsLeftUnserved) {
    start();
    answer();
    const auto storm = [this](int kind) {
        const uint32_t events[] = {MPS_EVENT_CAMPAIGN_STOP, MPS_EVENT_CAMPAIGN_START};
        for (uint32_t i = 0; i < 34000; ++i) {
            if (kind == 0) modem.send(hex_bytes("02 0000 0600 0700 01 0400 07000000"));
            if (kind == 1) mps_timer_cb(1 + i % 2);
            if (kind == 2) mps_campaign_event(events[i % 2]);
            if (i % 100 == 0) platform_test_clear_log();
        }
    };
    std::thread raisers[] = {std::thread(storm, 0), std::thread(storm, 1), std::thread(storm, 2)};
    for (std::thread& raiser : raisers) raiser.join();
    // The library keeps a few thousand indications: one behind so many may have to be said again.
    const auto end = std::chrono::steady_clock::now() + EVENT_LIMIT;
    do {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << log_text();
        modem.send(hex_bytes("02 0000 0800 0e00 01 0400 01000000 02 0400 02000000"));
    } while (!platform_test_wait_log("mps_main: MPS_EVENT_SEND_COMPLETE\n", 100));
    settle();
    EXPECT_EQ(mps_events(), 0u);
}

}  // namespace
