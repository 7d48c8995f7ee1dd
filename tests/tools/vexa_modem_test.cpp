// vexa-modem as a program, with the daemon's own client as its counterpart.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>

#include "collectors/mps/mps_kbr.h"
#include "modem/modem.h"
#include "mps_events/mps_events.h"
#include "support/files.h"
#include "support/kbr_service.h"
#include "support/process.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;

namespace {

constexpr char COMMANDS[] = "/data/commands";
constexpr char EVENTS[] = "/data/events";
constexpr char DATA_DIR[] = "/mnt/vendor/persist/hlos_rfs/shared/vexa";

std::atomic<uint32_t> raised_events{0};

bool printed(const std::string& line) {
    return wait_for_change({"/data"},
                           [&] { return file_text(EVENTS).find(line) != std::string::npos; });
}

TEST(VexaModem, CollectionRunsFromItsPartsToItsDataFiles) {
    ASSERT_EQ(mkfifo(COMMANDS, 0600), 0);
    const unique_fd commands(open(COMMANDS, O_RDWR | O_CLOEXEC));
    child_process modem({"sh", "-c", "exec " + program("vexa-modem").string() + " / < " + COMMANDS},
                        EVENTS);
    show_threads(modem.pid());
    ASSERT_TRUE(printed("modem: ready\n"));

    MpsCampaign record;
    record.collection_spec = spec_of(1700);
    record.static_spec = spec_of(10);
    record.ctxt_spec = spec_of(800);
    record.lll_spec = spec_of(801);
    const stop_flag stop;
    ASSERT_EQ(mps_kbr_init(stop), modem_result::OK);
    mps_kbr_register_cb([](uint32_t event) {
        raised_events |= event;
        raised_events.notify_all();
    });
    EXPECT_NE(mps_kbr_stop_flush_bsi(), modem_result::OK) << "nothing is collected yet";
    ASSERT_EQ(mps_kbr_init_mpss_bsi(&record, 1, stop), modem_result::OK) << file_text(EVENTS);
    EXPECT_TRUE(printed("vexa: collection started: static 10 collection 1700 context 800 lll 801"));

    dprintf(commands.get(),
            "vexa save /data/specs\nvexa refuse 7 2 5\nvexa buffer-full 3\nvexa nonsense\n");
    EXPECT_TRUE(printed("error: vexa nonsense: no such command; try help\n"));
    const uint8_t* spec = record.collection_spec.bytes.get();
    EXPECT_EQ(file_text("/data/specs/collection"), std::string(spec, spec + 1700));
    for (const modem_result result :
         {modem_result::REFUSED, modem_result::REFUSED, modem_result::OK})
        EXPECT_EQ(mps_kbr_fetch_results(), result);
    EXPECT_TRUE(mps_kbr_send_lll_stop_req());
    EXPECT_EQ(mps_kbr_stop_flush_bsi(), modem_result::OK);
    EXPECT_THAT(list_dir(DATA_DIR), ElementsAre("hda_data_1.bin", "hda_data_3.bin", "hda_lll_2.bin",
                                                "hda_static_data_4.bin"));
    constexpr uint32_t BOTH = MPS_EVENT_BUFFER_FULL | MPS_EVENT_SEND_COMPLETE;
    for (uint32_t seen = 0; (seen = raised_events) != BOTH;) raised_events.wait(seen);
    mps_kbr_client_release();
    modem.signal(SIGTERM);
    EXPECT_EQ(modem.wait(), 0);
    EXPECT_FALSE(fs::exists("/dev/socket/kbr/vexa"));
}

TEST(ModemLoop, SocketsLieInADirectoryOfAnyLength) {
    const std::string phone = "/data/" + std::string(200, 'd');
    modem loop(phone, [](const std::string&) {});
    loop.listen("/dev/socket/kbr/vexa", [](unique_fd) {});
    EXPECT_TRUE(fs::is_socket(phone + "/dev/socket/kbr/vexa"));
    loop.quit();
    loop.run();
}

}  // namespace
