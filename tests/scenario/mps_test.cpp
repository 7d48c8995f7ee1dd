// The modem statistics collector in the whole daemon: from a campaign to uploads, with a modem that
// behaves and one that does not.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <random>

#include "base/unique_handle.h"
#include "campaign_text.h"
#include "mps_record.h"
#include "phone_control.h"
#include "scenario/daemon_process.h"
#include "scenario/modem_thread.h"
#include "scenario/uploads.h"
#include "support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char CAMPAIGN[] = R"(entry {
  campaignId: 77 moduleId: 6 expiry { ExpType: 2 ExpValue: 4102444800 }
  enablementAndLogic { logic { mps { specs { collectionSpec: "collect" lllSpec: "lll" } } } } })";
constexpr char STARTED[] = "collection started: static 0 collection 7 context 0 lll 3";
constexpr char READY[] = "mps_main: MPS_EVENT_KBR_READY";
constexpr char FLUSH_LOST[] = "mps_kbr_stop_flush_bsi: Failed to send STOPFlush err = -5";

// Sockets of the modem's services and of its diagnostics whose queues are full, and their
// listeners.
std::vector<unique_fd> stalled_services() {
    std::vector<unique_fd> sockets;
    for (const char* name : {"kbr/vexa", "kbr/imsa", "kbr/pdc", "diag"}) {
        sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
        const std::string path = std::string("/dev/socket/") + name;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        fs::create_directories("/dev/socket/kbr");
        fs::remove(path);
        const auto* to = reinterpret_cast<sockaddr*>(&address);
        sockets.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(sockets.back().get(), to, sizeof address), 0);
        EXPECT_EQ(listen(sockets.back().get(), 1), 0);
        do {
            sockets.emplace_back(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        } while (connect(sockets.back().get(), to, sizeof address) == 0);
    }
    return sockets;
}

class MpsScenario : public ::testing::Test {
  protected:
    void SetUp() override {
        phone_reset();
        fs::create_directories(std::string(DOWN_DIR) + "/6");
        opt_in(6);
        deliver(101, "cdf.dat", campaign_file_bytes(campaign_from_text(CAMPAIGN)));
    }
    void start_daemon(const std::string& until) {
        fs::remove("/dev/log/main");
        daemon.emplace();
        ASSERT_TRUE(eventually_logged("campaign_mgr_main:Going into poll"));
        ASSERT_TRUE(eventually_logged(until));
        phone_tell_subscription("/", 1, 262, 7);
    }
    // Waits for the modem to say this, and forgets what it said before.
    bool modem_says(const std::string& text) {
        return eventually([&] {
            const size_t at = modem->output().find(text, heard);
            if (at != std::string::npos) heard = at + text.size();
            return at != std::string::npos;
        });
    }
    // The next upload that holds data.
    mps_record next_record() {
        const auto take = [&] {
            for (const taken_upload& upload : take_uploads(6)) {
                const mps_record record = mps_record_decode(upload.file.payload);
                if (!record.metrics.empty()) taken.push_back(record);
            }
            return next < taken.size();
        };
        EXPECT_TRUE(eventually(take, milliseconds(60000)));
        return taken.at(next++);
    }

    std::optional<modem_thread> modem{std::in_place};
    std::optional<daemon_process> daemon;
    std::vector<mps_record> taken;
    size_t next = 0, heard = 0;
};

TEST_F(MpsScenario, CampaignLeadsToUploadsThroughStopFlushAndRestart) {
    start_daemon(READY);
    ASSERT_TRUE(modem_says(STARTED)) << phone_log();
    modem->command("vexa buffer-full 1");
    const mps_record first = next_record();
    EXPECT_EQ(first.campaign_id, 77u);
    EXPECT_EQ(first.metrics.at(0).data.substr(0, 15), "hda_data_1.bin\n");
    EXPECT_EQ(first.metrics[0].start.collection_state, 2u);
    EXPECT_LE(first.metrics[0].start.realtime_ms, first.metrics[0].end.realtime_ms);
    ASSERT_TRUE(modem_says("LLL stop"));
    phone_tell_roaming("/", true);
    ASSERT_TRUE(modem_says("stop and flush: field 16 1"));
    for (int i = 0; i < 2; ++i) EXPECT_EQ(next_record().campaign_id, 77u);
    phone_tell_roaming("/", false);
    ASSERT_TRUE(modem_says(STARTED)) << phone_log();
    EXPECT_TRUE(daemon->stop());
    start_daemon(READY);
    ASSERT_TRUE(modem_says(STARTED)) << phone_log();
    EXPECT_TRUE(daemon->stop());
}

TEST_F(MpsScenario, LossOfConsentReachesTheModemAndItsReturnStartsAnew) {
    const fs::path data_dir = "/mnt/vendor/persist/hlos_rfs/shared/vexa";
    start_daemon(READY);
    ASSERT_TRUE(modem_says(STARTED)) << phone_log();
    opt_out(6);
    ASSERT_TRUE(modem_says("stop and flush: field 16 1")) << phone_log();
    EXPECT_TRUE(eventually_logged("opt-out status, removed " + data_dir.string()));
    EXPECT_TRUE(eventually([&] { return fs::is_empty(data_dir); }));
    opt_in(6);
    ASSERT_TRUE(modem_says(STARTED)) << phone_log();
    EXPECT_TRUE(take_uploads(6).empty());
    modem->command("vexa buffer-full 1");
    EXPECT_EQ(next_record().campaign_id, 77u);
    opt_out(6);
    ASSERT_TRUE(modem_says("stop and flush: field 16 1")) << phone_log();
    EXPECT_TRUE(daemon->stop());
}

// The largest file that is taken, of bytes that do not compress, needs memory once and not for
// long.
TEST_F(MpsScenario, MemoryForLargeFilesIsBoundedAndComesBack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer keeps what is freed";
#endif
    start_daemon(READY);
    modem->command("vexa auto off");
    const auto memory_kb = [&](const std::string& key) {
        std::ifstream status("/.host/proc/" + std::to_string(daemon->pid()) + "/status");
        std::string word;
        while (status >> word && word != key) continue;
        long kb = 0;
        status >> kb;
        return kb;
    };
    const long before_kb = memory_kb("VmRSS:");
    std::mt19937_64 random;
    for (const size_t mb : {16, 10, 10}) {
        std::string bytes(mb << 20, '\0');
        for (size_t at = 0; at < bytes.size(); at += 8) {
            const uint64_t word = random();
            memcpy(&bytes[at], &word, sizeof word);
        }
        write_text_file("/mnt/vendor/persist/hlos_rfs/shared/vexa/hda_data_1.bin", bytes);
        modem->command("vexa send-complete");
        EXPECT_TRUE(next_record().metrics.at(0).data == bytes);
    }
    EXPECT_TRUE(eventually([&] { return memory_kb("VmRSS:") < before_kb + 2000; }));
    printf("peak %ld kB, %ld kB before\n", memory_kb("VmHWM:"), before_kb);
    EXPECT_LT(memory_kb("VmHWM:"), before_kb + 20000) << "one copy of the largest file";
    EXPECT_TRUE(daemon->stop());
}

TEST_F(MpsScenario, ModemThatIsAbsentOrGoesHoldsNothingUp) {
    modem.reset();
    start_daemon("kbr_handler: failed to init kbr. err:-5");
    ASSERT_TRUE(eventually_logged(FLUSH_LOST));
    EXPECT_EQ(phone_log().find("CL data not injected"), std::string::npos);
    EXPECT_TRUE(daemon->stop(milliseconds(1000)));

    modem.emplace();
    start_daemon(READY);
    ASSERT_TRUE(modem_says(STARTED));
    modem.reset();
    phone_tell_roaming("/", true);
    ASSERT_TRUE(eventually_logged(FLUSH_LOST));
    EXPECT_TRUE(daemon->stop(milliseconds(1000)));
}

// With every client of the modem at work, and a modem that is not there, never accepts, or is mute
// at some stage: from the start, or once a collection runs and something asks for more.
TEST_F(MpsScenario, StopWaitsForNoModem) {
    const struct {
        const char* what;
        std::vector<const char*> commands;
        const char* modem_says;
        const char* logged;
        const char* event = nullptr;  // a command, or a roaming phone: ""
        const char* unanswered = "";  // by the modem, which says so
    } cases[] = {
        {"absent", {}, "", "kbr_handler: failed to init kbr. err:-5"},
        {"never accepts", {}, "", "kbr_pdc_init"},
        {"mute", {"vexa silent", "imsa silent", "pdc silent"}, "imsa: connected", ""},
        {"mute at the start's first request",
         {"vexa delay 2 600000"},
         "vexa: message 5 refused",
         READY},
        {"mute at a part", {"vexa delay 3 600000"}, "vexa: prepare", READY},
        {"mute at the start's last request", {"vexa delay 4 600000"}, "vexa: part 1", READY},
        {"without indications", {"pdc stall on", "diag count 0"}, "imsa: connected", READY},
        {"mute at the flush", {"vexa auto off"}, STARTED, READY, "", "vexa: message 5 left"},
        {"mute at the data",
         {"vexa auto off"},
         STARTED,
         READY,
         "vexa buffer-full 1",
         "vexa: message 7 left"},
        {"mute at the LLL's end",
         {"vexa auto off"},
         STARTED,
         READY,
         "vexa send-complete",
         "vexa: message 9 left"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        daemon.reset();
        modem.reset();
        SetUp();
        heard = 0;
        for (const int id : {3, 4}) opt_in(id);
        for (const int id : {3, 4, 51})
            fs::create_directories(std::string(DOWN_DIR) + "/" + std::to_string(id));
        deliver(4, "diagstats.cfg",
                "clientid=4;size=65536;campaign_id=1;campaign_duration_secs=600;"
                "num_diag_masks=1;diag_mask=0xb0c0;\n");
        std::vector<unique_fd> sockets;
        if (c.what == std::string("never accepts")) sockets = stalled_services();
        if (!c.commands.empty()) modem.emplace();
        for (const char* command : c.commands) modem->command(command);
        start_daemon(*c.modem_says || sockets.empty() ? c.logged : "aost_imsa_init_client_handle");
        deliver(51, "mccbandlist.bin", std::string(100, 'x'));
        deliver(51, "51-1.0-mccbandlist.bin-200", "");
        if (*c.modem_says) {
            ASSERT_TRUE(modem_says(c.modem_says)) << modem->output();
        }
        if (c.event) {
            modem->command("vexa silent");
            if (*c.event) modem->command(c.event);
            if (!*c.event) phone_tell_roaming("/", true);
            ASSERT_TRUE(modem_says(c.unanswered)) << modem->output();
        }
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(daemon->stop());
        const std::chrono::duration<double, std::milli> taken_ms =
            std::chrono::steady_clock::now() - begin;
        printf("%s: %.1f ms\n", c.what, taken_ms.count());
#ifdef NDEBUG
        EXPECT_LT(taken_ms.count(), 150) << c.what;
#endif
    }
}

}  // namespace
