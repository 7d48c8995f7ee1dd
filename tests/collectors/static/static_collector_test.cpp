// The static collector and its reporter against the real framework, with the IMS service in the
// test's hands and the clocks moved by hand.
#include "collectors/static/static_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "framework/time/clock.h"
#include "platform/log_read.h"
#include "support/events.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/kbr_service.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

constexpr char UP_DIR[] = "/data/vendor/vexa/up/3";
constexpr char DOWN_DIR[] = "/data/vendor/vexa/down/3";
constexpr char RECORD_DIR[] = "/data/vendor/vexastats/3";
constexpr char RECORD[] = "/data/vendor/vexastats/3/aoststats.tmp";
constexpr char DOWNLOADED[] = "/data/vendor/vexa/down/3/aoststats.cfg";
constexpr char LEVEL_FILE[] = "/data/vendor/vexa/shared/3/wvstats.tmp";

// An entry of the kernel log.
std::string kernel_entry(const std::string& tag, const std::string& message) {
    const std::string payload = "\x06" + tag + '\0' + message + '\0';
    logger_entry header{};
    header.len = static_cast<uint16_t>(payload.size());
    header.hdr_size = sizeof header;
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

struct StaticCollector : ::testing::Test {
    void SetUp() override {
        for (const char* dir : {UP_DIR, DOWN_DIR, RECORD_DIR}) fs::remove_all(dir);
        put_files({{UP_DIR + std::string("/")},
                   {DOWN_DIR + std::string("/")},
                   {"/data/vendor/vexastats/"},
                   {LEVEL_FILE, "L1"},
                   {"/proc/config.gz", gzip("")},
                   {"/vendor/firmware_mnt/verinfo/ver_info.txt", "{one,}{two}\n"}});
        ASSERT_EQ(stop_flag_open(&row.stop), 0);
        row.enabled = 1;
    }
    void TearDown() override {
        stop();
        close(row.stop.fd);
    }
    void start() {
        thread = std::thread([this] { static_monitor(&row); });
    }
    void stop() {
        stop_flag_raise(&row.stop);
        if (thread.joinable()) thread.join();
    }
    void renew() {
        stop();
        row.stop.raised = 0;
        eventfd_t ignored = 0;
        (void)eventfd_read(row.stop.fd, &ignored);
        platform_test_clear_log();
    }
    static void wait_log(const std::string& text) {
        ASSERT_TRUE(platform_test_wait_log(text, EVENT_LIMIT.count())) << text << log_text();
    }
    static std::vector<std::string> payloads() {
        std::vector<std::string> all;
        for (const std::string& name : list_dir(UP_DIR))
            all.push_back(gunzip(file_text(fs::path(UP_DIR) / name).substr(53)));
        return all;
    }
    static std::string record() {
        const std::string text = file_text(RECORD);
        return text.substr(text.find('\n') + 1);
    }

    collector_info row{.name = "static_collector",
                       .up_dir = UP_DIR,
                       .down_dir = DOWN_DIR,
                       .hdr = {.client_id = 3, .data_type = DATA_TYPE_STATIC}};
    std::thread thread;
};

// ---- Items. There is no IMS service: the clock runs by itself through all retries.

TEST_F(StaticCollector, ItemsAreWrittenInTheirOrderAndTheServiceIsTriedForTwoMinutes) {
    fs::remove(LEVEL_FILE);
    const std::string long_line(600, 'x');
    put_files({{"/proc/config.gz",
                gzip("# comment\n\nCONFIG_A=y\n" + long_line + "\nCONFIG_B=\"#\"\nlast")}});
    platform_test_set_property("ro.build.version.security_patch", "2026-11-05");
    const std::string tag = "<6>kzor,bvrx-power-on c440000.kzor";
    for (const auto& [entry_tag, message] : std::vector<std::pair<std::string, std::string>>{
             {"kzor", "other@SID0 Power-on reason: no\n"},
             {tag, "first@SID0 Power-on reason: key\n"},
             {tag, "nothing of the kind: "},
             {tag, "broken Power-on reason: without a name"},
             {tag, "second@SID0 Power-off reason:a:b\nmore"}}) {
        platform_test_script_log_failure(-EINTR);
        platform_test_script_log_entry(kernel_entry(entry_tag, message));
    }
    static_monitor(&row);

    EXPECT_THAT(payloads(), ElementsAre("kernel_config:\n - CONFIG_A=y\n - " +
                                        long_line.substr(0, 508) + " - " + long_line.substr(511) +
                                        "\n - CONFIG_B=\"#\"\n - last\npower_cycles:\n"
                                        " - pmic_name: first\n   event: power-on\n   reason: key\n"
                                        " - pmic_name: second\n   event: power-off\n   reason:a:b\n"
                                        "\nsecurity:\n android_security_patch_level: 2026-11-05\n"
                                        "\nver_info.txt:\nonetwo\n"));
    EXPECT_EQ(record(), "widevine security level:\n");
    EXPECT_EQ(vexastats_mono_time_ms(), PLATFORM_TEST_MONO_MS + (24 * 5 + 120) * 1000u);
    EXPECT_EQ(platform_test_log_count("[ERROR] aost_imsa_init_client_handle() "
                                      "kbr_client_init_instance() error=-5"),
              1u);
    for (const char* text :
         {"retry=24", "[ERROR] Failed to initiate IMS Client", "static monitor exit\n",
          "prepare_pwr_onoff_reason: invalid string: broken Power-on reason: without a name\n",
          "[ERROR] Failed to open wvstats.tmp after 120 retries\n"})
        EXPECT_EQ(platform_test_log_count(text), 1u) << text;
    EXPECT_EQ(platform_test_log_readers(), 0u);
}

TEST_F(StaticCollector, FailedItemsAreTriedThreeTimesAndLongOnesCutOff) {
    std::string config = gzip(std::string(100, 'a') + "\n" + std::string(100000, 'b'));
    config.resize(config.size() - 20);
    put_files({{"/proc/config.gz", config}});
    fs::remove("/vendor/firmware_mnt/verinfo/ver_info.txt");
    platform_test_fail_log_open(ENODEV);
    const std::string reason(300, 'r');
    for (int i = 0; i < 3; ++i)
        platform_test_script_log_entry(
            kernel_entry("kzor,bvrx-power-on", "p@SID0 Power-on reason:" + reason));
    platform_test_script_log_failure(-EIO);
    static_monitor(&row);
    const std::string event = " - pmic_name: p\n   event: power-on\n   reason:" + reason + "\n";
    EXPECT_THAT(payloads().at(0), StartsWith("kernel_config:\n - " + std::string(100, 'a') + "\n"));
    EXPECT_THAT(payloads().at(0),
                EndsWith("level: undefined\n\npower_cycles:\n" + (event + event).substr(0, 511)));
    EXPECT_EQ(platform_test_log_count("failed to get ORB Version Information\n"), 3u);
    EXPECT_EQ(platform_test_log_count("failed to read kernel buffer: Input/output error\n"), 1u);
}

TEST_F(StaticCollector, StopEndsEveryPauseAndInTheFirstNothingIsDropped) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    for (const bool has_service : {false, true}) {
        const kbr_service modem(has_service ? "imsa" : "other");
        fs::remove("/proc/config.gz");
        start();
        ASSERT_TRUE(platform_test_wait_parked(1, EVENT_LIMIT.count()));
        stop();  // the retries of the service, or a call that nobody answers
        EXPECT_THAT(payloads(), IsEmpty());
        EXPECT_EQ(platform_test_log_count("failed to get Kernel Config\n"), 1u);
        EXPECT_EQ(platform_test_log_count("static monitor exit\n"), 1u);
        renew();
    }
}

TEST_F(StaticCollector, ConsentThatGoesWhileItWaitsIsLookedAtBeforeEveryItem) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    fs::remove_all(DOWN_DIR);
    fs::remove("/vendor/firmware_mnt/verinfo/ver_info.txt");
    put_files({{"/proc/config.gz", gzip("CONFIG_A=y\n")}});
    start();
    wait_log("wait until " + std::string(DOWN_DIR) + " is ready\n");
    row.enabled = 0;
    fs::create_directories(DOWN_DIR);
    wait_log(std::string(DOWN_DIR) + " is now ready\n");
    const auto static_record = [] {
        return file_text(std::string(RECORD_DIR) + "/staticstats.tmp");
    };
    // It waits for consent without a descriptor: long enough for what it must not do.
    EXPECT_FALSE(platform_test_wait_log("failed to get ORB Version Information\n", 200));
    EXPECT_THAT(static_record(), Not(HasSubstr("CONFIG_A")));
    {
        const vexa_lock held(row.mutex);
        row.enabled = 1;
        row.cond.notify_all();
    }
    wait_log("failed to get ORB Version Information\n");
    EXPECT_THAT(static_record(), HasSubstr("CONFIG_A"));
}

// ---- The reporter

struct AostReporter : StaticCollector {
    void SetUp() override {
        StaticCollector::SetUp();
        platform_test_set_clock(platform_test_clock::MANUAL);
    }
    void TearDown() override {
        StaticCollector::TearDown();
        modem.hang_up();
    }
    // Runs up to the wait for indications, or only on the way there.
    void start_reporter(bool waits = true) {
        start();
        modem.accept();
        modem.answer([this](const std::string& request) {
            const auto id = static_cast<uint8_t>(request[3]);
            std::string fields = hex_bytes("02 0400 0000 0000");
            if (id == refused) fields = hex_bytes("02 0400 0100 0300");
            if (id == 0x36) fields += hex_bytes(active);
            if (id == 0x21) fields += hex_bytes(status);
            return response_to(request, fields);
        });
        if (!waits || refused != 0) return;
        wait_requests(4);
        settle();
    }
    void next_round() {
        modem.hang_up();
        (void)modem.take_requests();
        requests.clear();
        renew();
    }
    void wait_requests(size_t count) {
        while (requests.size() < count) {
            for (const std::string& packet : modem.take_requests())
                requests.push_back(hex(packet.substr(3)));
            std::this_thread::yield();
        }
    }
    void indicate(const std::string& id, const std::string& fields) const {
        const std::string value = hex_bytes(fields);
        modem.send(hex_bytes("02 0000 " + id + "00") + static_cast<char>(value.size()) + '\0' +
                   value);
    }
    // Until everything sent so far has been handled.
    void settle() {
        indicate("23", "01 0100 " + hex(std::string(1, ++settled)));
        wait_log("ims_registered=" + std::to_string(settled) + " ");
        park();
    }
    // Until the library's reader and the static thread wait, the latter for its alarm.
    static void park() { ASSERT_TRUE(platform_test_wait_parked(2, EVENT_LIMIT.count())); }
    void alarm() {
        platform_test_clear_log();
        platform_test_advance_ms(int64_t{interval_s} * 1000);
        wait_log("alarm(" + std::to_string(interval_s) + ")");
        park();
    }

    kbr_service modem{"imsa"};
    std::string active = "11 0100 01";
    std::string status =
        "10 0400 01000000 11 0400 02000000 12 0400 03000000 "
        "14 0400 05000000 15 0400 ffffffff";
    std::atomic<uint8_t> refused{0};
    std::vector<std::string> requests;
    int interval_s = 432000;
    char settled = 0;
};

const std::string STATUS = "- [5000000, 1, 2, 3, 0, 5, -1]\n";
const std::string LEVEL = "widevine security level:\n- 5000000\n- L1\n";

TEST_F(AostReporter, StartSendsItsBytesAndReportsLevelAndStatus) {
    start_reporter();
    EXPECT_THAT(requests, ElementsAre("36000000", "3300070010040001000000", "21000000",
                                      "22000c0010010001110100011a010001"));
    EXPECT_EQ(record(), LEVEL + "\nims service status:\n" + STATUS);
    EXPECT_FALSE(fs::exists(LEVEL_FILE));
}

TEST_F(AostReporter, LevelFileIsReadWithConsentOnlyAndWhenItIsOneOfItsOwn) {
    const std::string secret = "/data/vendor/vexastats/secret";
    put_files({{secret, "hidden"}});
    fs::remove(LEVEL_FILE);
    fs::create_hard_link(secret, LEVEL_FILE);
    start_reporter(false);
    wait_log("waiting for wvstats, retry=1\n");
    EXPECT_THAT(log_text(), Not(HasSubstr("hidden")));
    park();
    row.enabled = 0;
    fs::remove(LEVEL_FILE);
    put_files({{LEVEL_FILE, "L1"}});
    platform_test_advance_ms(1000);
    wait_log("opt-out status, skip writing file\n");
    park();
    EXPECT_THAT(log_text(), Not(HasSubstr("Found wvstats.tmp file")));
    EXPECT_FALSE(fs::exists(LEVEL_FILE));
    EXPECT_EQ(record(), "widevine security level:\n");
}

TEST_F(AostReporter, FirstActiveSubscriptionIsBoundThenTheIndicatedOne) {
    const std::pair<const char*, const char*> cases[] = {{"10 0100 01 11 0100 01", "00"},
                                                         {"10 0100 00 11 0100 01 12 0100 01", "01"},
                                                         {"12 0100 01 13 0100 01", "02"},
                                                         {"13 0100 01", "00"}};
    for (const auto& [flags, bound] : cases) {
        active = flags;
        put_files({{LEVEL_FILE, "L1"}});
        start_reporter();
        EXPECT_EQ(requests[1], std::string("33000700100400") + bound + "000000") << flags;
        indicate("35", std::string("10 0400 ") + bound + "000000");  // the one it has: not sent
        indicate("35", "10 0400 07000000");
        wait_requests(6);
        EXPECT_EQ(requests[4], "3300070010040007000000");
        EXPECT_EQ(requests[5], requests[3]);
        wait_log("sub type=7 ");
        next_round();
    }
}

TEST_F(AostReporter, IndicationsWriteChangesAndTheAlarmDropsThem) {
    start_reporter();
    const std::string first = record();
    indicate("24", "10 0400 01000000 15 0400 ffffffff");
    settle();
    EXPECT_EQ(platform_test_log_count("No status change"), 1u);
    EXPECT_EQ(record(), first);
    indicate("24", "11 0400 07000000");
    indicate("24", "12 0300 000000");
    indicate("25", "");
    settle();
    EXPECT_EQ(record(), first + "- [5000000, 1, 7, 3, 0, 5, -1]\n");
    EXPECT_EQ(platform_test_log_count("decode failed, msg_id=0x24, error=0xfffffffa"), 1u);
    EXPECT_EQ(platform_test_log_count("[ERROR] ind_msg_ptr is NULL"), 1u);
    EXPECT_EQ(platform_test_log_count("[WARNING] no case for msg_id=0x25"), 1u);

    alarm();
    EXPECT_THAT(payloads(), ::testing::Contains(first + "- [5000000, 1, 7, 3, 0, 5, -1]\n"));
    alarm();
    EXPECT_EQ(platform_test_log_count("No IMS data to drop"), 1u);
    indicate("24", "13 0400 04000000");
    settle();
    EXPECT_EQ(record(), "ims service status:\n- [869000000, 1, 7, 3, 4, 5, -1]\n");
    ASSERT_EQ(raise(SIGALRM), 0) << "somebody else's";
    wait_log("alarm(432000)");
    wait_log("aost_imsa_sig_alarm_hdlr, sig_num=14, registered=1");
}

// A record that a stop left is continued. The parameters are loaded every five days.
TEST_F(AostReporter, RestartContinuesTheRecordAndTheAlarmReloadsTheInterval) {
    put_files({{DOWNLOADED, "#\n\nclientid=4;interval=432001\n"}});
    interval_s = 432001;
    start_reporter();
    EXPECT_THAT(log_text(), HasSubstr("invalid 3 config file. ignore it. err:"));
    EXPECT_TRUE(fs::exists(DOWNLOADED));
    EXPECT_EQ(file_text("/data/vendor/vexastats/3/.aoststats.cfg"),
              "#aost_collector config file. Version: 1.2\nclientid=3;interval=432001\n");
    next_round();
    put_files({{LEVEL_FILE, std::string(20, 'x')}, {DOWNLOADED, "clientid=3;interval=60"}});
    platform_test_clear_log();
    start_reporter();
    const std::string second = "widevine security level:\n- 5000000\n- " + std::string(15, 'x') +
                               "\n\nims service status:\n" + STATUS;
    EXPECT_EQ(record(), LEVEL + "\nims service status:\n" + STATUS + second);
    EXPECT_FALSE(fs::exists(DOWNLOADED));
    interval_s = 60;
    alarm();
    put_files({{DOWNLOADED, "clientid=3;interval=61"}});
    platform_test_set_boot_ms(PLATFORM_TEST_BOOT_MS + 432000000);
    platform_test_clear_log();
    platform_test_advance_ms(60000);
    wait_log("alarm(61)");
}

TEST_F(AostReporter, ServiceThatRefusesIsReportedAsFarAsItCame) {
    for (const uint8_t id : {0x36, 0x33, 0x21, 0x22}) {
        refused = id;
        put_files({{LEVEL_FILE, "L1"}});
        start_reporter();
        wait_log("static monitor exit\n");
        EXPECT_THAT(log_text(), ContainsRegex("\\[ERROR\\] kbr_client_send_msg.*=-2"));
        next_round();
    }
    EXPECT_THAT(record(), EndsWith(STATUS));
}

TEST_F(AostReporter, IndicationBeforeTheStaticRecordIsOutIsNotWritten) {
    fs::remove("/vendor/firmware_mnt/verinfo/ver_info.txt");  // a second round, five seconds later
    start();
    modem.accept();
    modem.answer([](const std::string& request) { return response_to(request); });
    wait_log("alarm(432000)");
    indicate("24", "10 0400 09000000");
    settle();
    EXPECT_EQ(platform_test_log_count("ind messages are not registered, skip writing file"), 1u);
    EXPECT_FALSE(fs::exists(RECORD));
    stop();
    EXPECT_THAT(payloads(), IsEmpty());
}

// Indications that write, a refused bind that ends the reporter, signals and the stop at once.
TEST_F(AostReporter, EverythingAtOnceEndsOnce) {
    for (int round = 0; round < 20; ++round) {
        put_files({{LEVEL_FILE, "L1"}});
        start_reporter(round % 2 == 0);
        std::thread indications([&] {
            for (int i = 0; i < 40; ++i) {
                indicate("24", "10 0400 " + hex(std::string(1, static_cast<char>(i))) + "000000");
                if (i == 20 + round % 20) refused = 0x33;
                indicate("35", "10 0400 0" + std::to_string(i % 3) + "000000");
            }
        });
        std::thread signals([] {
            for (int i = 0; i < 20; ++i) raise(SIGALRM);
        });
        for (int i = 0; i < round * 100; ++i) std::this_thread::yield();
        stop();
        indications.join();
        signals.join();
        EXPECT_LE(platform_test_log_count("aost_imsa_deinit(), registered=1"), 1u) << log_text();
        EXPECT_EQ(platform_test_log_count("static monitor exit\n"), 1u);
        next_round();
        refused = 0;
    }
}

}  // namespace
