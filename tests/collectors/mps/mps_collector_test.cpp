// The modem statistics collector where time cannot be driven: what becomes of the modem's data
// files to the byte, and three threads that raise events at once. All else is told in
// tests/transcripts/mps_*.
#include "collectors/mps/mps_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include "collectors/mps/mps_data.h"
#include "collectors/mps/mps_timers.h"
#include "mps_events/mps_events.h"
#include "support/collector_phone.h"
#include "support/gzip.h"
#include "support/kbr_service.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;

namespace {

const fs::path DATA_DIR = "/mnt/vendor/persist/hlos_rfs/shared/vexa";

struct MpsCollector : testing::Test, collector_phone {
    MpsCollector() : collector_phone(6) {
        setenv("TZ", "WEST+05:30", 1);
        tzset();
        fs::remove_all(DATA_DIR);
        fs::create_directories(DATA_DIR);
    }
};

struct MpsData : MpsCollector {
    MpsData() {
        row->enabled = 1;
        row->hdr.campaign_id = 333;
        collection.start = mps_time_now();
        EXPECT_TRUE(mps_open_record(&collection));
    }
    ~MpsData() override { vexastats_record_close(&collection.record); }
    // What the files that are there are uploaded as; a large one has an empty record before it.
    std::vector<std::string> take() {
        EXPECT_EQ(mps_rfs_data_read(&collection), 0);
        std::vector<std::string> uploaded = payloads();
        std::erase(uploaded, "");
        for (const std::string& name : list_dir(row->up_dir))
            fs::remove(row->up_dir / fs::path(name));
        return uploaded;
    }

    mps_collection collection{.row = row.get()};
};

// What `size` bytes become, begun and ended at the phone's first moment, at UTC-05:30.
std::string record_of(char kind, size_t size) {
    const std::string moment = bytes("10 0802 1205 1001 20ca02 1880d095ffbc31");
    std::string metric = "\x0a" + moment + "\x12" + moment;
    if (kind != 0) metric += std::string("\x18") + kind;
    metric += std::string("\x22") + static_cast<char>(size) + std::string(size, 'd');
    return bytes("0a05 08cd02 1006 1a") + static_cast<char>(metric.size()) + metric;
}

TEST_F(MpsData, FilesBecomeRecordsByTheirNamesAndGo) {
    constexpr char NONE = -1;
    const std::tuple<const char*, size_t, char, bool> cases[] = {
        {"hda_data_1.bin", 60, 0, false},   {"x_hda_static_data_.bin.old", 60, 1, false},
        {"hda_lll.bin", 60, 2, false},      {"hda_lll_hda_data_.bin", 60, 0, false},
        {"hda_data_1.txt", 60, NONE, true}, {"hda_dat.bin", 60, NONE, true},
        {"hda_data_.bin", 0, NONE, false},  {"hda_data_.bin", 46, NONE, false},
        {"hda_data_.bin", 47, 0, false},  // as long as its framing
    };
    for (const auto& [name, size, kind, stays] : cases) {
        write(DATA_DIR / name, std::string(size, 'd'));
        std::vector<std::string> expected;
        if (kind != NONE) expected.push_back(record_of(kind, size));
        EXPECT_EQ(take(), expected) << name;
        EXPECT_EQ(fs::remove(DATA_DIR / name), stays) << name;
    }
    fs::remove_all(row->up_dir);  // the hand-over fails and takes the stream with it
    write(DATA_DIR / "hda_lll.bin", std::string(60, 'd'));
    (void)take();
    fs::create_directories(row->up_dir);
    write(DATA_DIR / "hda_lll.bin", std::string(61, 'd'));
    EXPECT_THAT(take(), ElementsAre(record_of(2, 60), record_of(2, 61)));
}

TEST_F(MpsData, OnlyTheModemsOwnFilesOfBoundedSizeAreTakenEachOnce) {
    const fs::path secret = "/mnt/vendor/persist/secret";
    write(secret, std::string(60, 's'));
    fs::create_hard_link(secret, DATA_DIR / "hda_data_1.bin");
    for (const size_t too_many : {0, 1}) {
        const fs::path large = DATA_DIR / "hda_data_2.bin";
        write(large, "");
        fs::resize_file(large, (16u << 20) + too_many);
        EXPECT_EQ(take().size(), too_many ? 0u : 1u);
        EXPECT_EQ(platform_test_log_count("Failed in reading file " + large.string()), too_many);
        EXPECT_THAT(list_dir(DATA_DIR), ElementsAre("hda_data_1.bin"));
    }
    write(DATA_DIR / "hda_lll.bin", std::string(60, 'd'));
    fs::permissions(DATA_DIR, fs::perms::owner_read | fs::perms::owner_exec);
    for (const size_t uploads : {1, 0}) EXPECT_EQ(take().size(), uploads) << "it cannot be deleted";
    write(DATA_DIR / "hda_lll.bin", std::string(61, 'd'));
    EXPECT_EQ(take().size(), 1u) << "it has changed";
    fs::permissions(DATA_DIR, fs::perms::owner_all);
    EXPECT_THAT(take(), IsEmpty());
    EXPECT_THAT(list_dir(DATA_DIR), ElementsAre("hda_data_1.bin"));
    mps_drop_collected_data_to_dropbox(nullptr, 1, &collection, true, MPS_DATA_LLL);
    EXPECT_THAT(log(), EndsWith("passed to function mps_drop_collected_data_to_dropbox\n"));
    row->enabled = 0;
    write(DATA_DIR / "hda_lll.bin", std::string(60, 'd'));
    EXPECT_THAT(take(), IsEmpty()) << "without consent";
    mps_rfs_data_discard();
    EXPECT_THAT(list_dir(DATA_DIR), ElementsAre("hda_data_1.bin"));
}

// Nobody raises anything behind the storm that could wake the collector for what it missed.
TEST_F(MpsCollector, NothingRaisedInAStormIsLeftUnserved) {
    setenv("VEXA_TEST_WINDOW_US", "3", 1);
    const auto threads_of_process = [] { return list_dir("/.host/proc/self/task").size(); };
    std::thread([] {}).join();  // a sanitizer's own thread begins with the first one
    const size_t before = threads_of_process();
    kbr_service modem("vexa");
    platform_test_set_clock(platform_test_clock::MANUAL);
    launch();
    modem.accept();
    modem.answer([](const std::string& request) { return response_to(request); });
    wait_log("mps_main: MPS_EVENT_KBR_READY\n");
    const std::pair<uint32_t, void (*)(uint32_t)> raisers[] = {
        {MPS_EVENT_CAMPAIGN_STOP, mps_campaign_event},
        {MPS_EVENT_SEND_COMPLETE, mps_set_event},
        {MPS_EVENT_FETCH_TIMER, mps_set_event},
        {MPS_TIMER_FETCH, mps_timer_cb}};
    std::vector<std::thread> threads;
    for (const auto& [event, raise] : raisers) {
        threads.emplace_back([event = event, raise = raise] {
            for (uint32_t i = 0; i < 4000; ++i) {
                raise(event);
                if (i % 100 == 0) platform_test_clear_log();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
    while (mps_events() != 0 || mps_timers_expired() != 0)
        ASSERT_LT(std::chrono::steady_clock::now(), limit) << mps_events();
    wait_log("mps_main: Wait on signal\n");
    stop();
    modem.hang_up();
    EXPECT_EQ(threads_of_process(), before) << "its timers' thread";
}

}  // namespace
