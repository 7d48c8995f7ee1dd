// The static collector and its reporter, with the IMS service in the test's hands: long items,
// bytes of messages, and everything at once. What it says, when, and in which order is in
// tests/transcripts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <thread>

#include "collectors/static/imsa_service.h"
#include "collectors/static/static_items.h"
#include "framework/record/record.h"
#include "platform/log_read.h"
#include "support/collector_phone.h"
#include "support/dialogue.h"
#include "support/gzip.h"
#include "support/kbr_service.h"
#include "support/size_limit.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {
std::atomic<size_t> g_refused{0};  // a block of that size is not to be had
}  // namespace
extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
    return size == g_refused ? nullptr : __real_malloc(size);
}
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __wrap_calloc(size_t count, size_t size) {
    return count * size == g_refused ? nullptr : __real_calloc(count, size);
}

namespace {

constexpr char LEVEL_FILE[] = "/data/vendor/vexa/shared/3/wvstats.tmp";

// An entry of the kernel log, whose header claims a message longer by `claimed`.
std::string kernel_entry(const std::string& tag, const std::string& message, size_t claimed = 0) {
    const std::string payload = "\x06" + tag + '\0' + message + '\0';
    logger_entry header{};
    header.len = static_cast<uint16_t>(payload.size() + claimed);
    header.hdr_size = sizeof header;
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

struct StaticCollector : testing::Test, collector_phone {
    StaticCollector() : collector_phone(3) {
        put_sources();
        put_files({{LEVEL_FILE, "L1"}});
    }
    static void put_sources() {
        put_files({{"/proc/config.gz", gzip("CONFIG_A=y\n#\nCONFIG_B=m\n")},
                   {"/vendor/firmware_mnt/verinfo/ver_info.txt", "{one,}{two}\n"}});
    }
    std::string reported() const { return record("aoststats.tmp"); }
};

// ---- Items. There is no IMS service: the clock runs by itself through all retries.

TEST_F(StaticCollector, ItemsOfAnyLengthAreWrittenInTheirOrder) {
    const std::string line(600, 'x');
    put_files(
        {{"/proc/config.gz", gzip("# comment\n\nCONFIG_A=y\n" + line + "\nCONFIG_B=\"#\"\nlast")},
         {"/vendor/firmware_mnt/verinfo/ver_info.txt", line + "\nend"}});
    const std::string tag = "<6>kzor,bvrx-power-on c440000.kzor";
    for (const std::string& entry :
         {kernel_entry("kzor", "no@SID0 Power-on reason: no\n"),
          kernel_entry(tag, "p@SID0 Power-on reason: key\n"), std::string("short"),
          kernel_entry(tag, "q@SID0 Power-off reason:a:b\nmore", 5000)}) {
        platform_test_script_log_failure(-EINTR);
        platform_test_script_log_entry(entry);
    }
    platform_test_script_log_failure(-EIO);
    launch();
    join();
    EXPECT_THAT(payloads(), ElementsAre("kernel_config:\n - CONFIG_A=y\n - " + line.substr(0, 508) +
                                        " - " + line.substr(511) +
                                        "\n - CONFIG_B=\"#\"\n - last\npower_cycles:\n"
                                        " - pmic_name: p\n   event: power-on\n   reason: key\n"
                                        " - pmic_name: q\n   event: power-off\n   reason:a:b\n"
                                        "\nsecurity:\n android_security_patch_level: undefined\n"
                                        "\nver_info.txt:\n" +
                                        line + "\nend"));
    EXPECT_EQ(reported(), "widevine security level:\n- 5120000\n- L1\n");
    EXPECT_EQ(platform_test_log_count("failed to read kernel buffer: Input/output error\n"), 1u);
    EXPECT_EQ(platform_test_log_readers(), 0u);
}

TEST_F(StaticCollector, DamagedAndFailedItemsAreKeptAsFarAsTheyCameAndLongEventsCutOff) {
    std::string config = gzip(std::string(100, 'a') + "\n" + std::string(100000, 'b'));
    put_files({{"/proc/config.gz", config.substr(0, config.size() - 20)}});
    platform_test_fail_log_open(ENODEV);
    const std::string reason(300, 'r');
    for (int i = 0; i < 3; ++i)
        platform_test_script_log_entry(
            kernel_entry("kzor,bvrx-power-on", "p@SID0 Power-on reason:" + reason));
    launch();
    join();
    const std::string event = " - pmic_name: p\n   event: power-on\n   reason:" + reason + "\n";
    EXPECT_THAT(payloads().at(0), StartsWith("kernel_config:\n - " + std::string(100, 'a') + "\n"));
    EXPECT_THAT(payloads().at(0),
                EndsWith("onetwo\n\npower_cycles:\n" + (event + event).substr(0, 511)));
}

TEST_F(StaticCollector, StopEndsEveryPauseAndInTheFirstNothingIsDropped) {
    for (const bool has_service : {false, true}) {
        remove("/proc/config.gz");
        const kbr_service modem(has_service ? "imsa" : "other");
        start();  // into the retries of the service, or a call that nobody answers
        stop();
        EXPECT_EQ(dropbox(), "");
        EXPECT_THAT(log(), EndsWith("I vexastatsd: static monitor exit\n"));
        renew();
    }
}

// ---- Each item alone

const std::map<std::string, int (*)(write_req*)> ITEMS = {{"config", prepare_kernel_config},
                                                          {"power", prepare_pwr_onoff_reason},
                                                          {"patch", prepare_sec_patch_level},
                                                          {"versions", prepare_ver_info},
                                                          {"imsa", prepare_aost_imsa_register}};
const std::map<std::string, void (*)(write_req*)> LOSSES = {
    {"request", [](write_req*) {}},  // the pointer itself
    {"row", [](write_req* req) { req->row = nullptr; }},
    {"handle", [](write_req* req) { req->handle = nullptr; }},
    {"data", [](write_req* req) { req->data = nullptr; }},
    {"file", [](write_req* req) { req->handle->file = {}; }},
    {"length", [](write_req* req) { req->len = 0; }},
    {"memory", [](write_req* req) { g_refused = req->len; }},
    {"source", [](write_req*) {
         collector_phone::remove("/proc/config.gz");
         collector_phone::remove("/vendor/firmware_mnt");
         platform_test_fail_log_open(ENODEV);
     }}};

// "config", "config without row", "config room 20": what it returns, logs and writes.
TEST_F(StaticCollector, ItemWithoutWhatItNeeds) {
    platform_test_set_clock(platform_test_clock::MANUAL);
    const auto ask = [this](const std::string& question) {
        const std::vector<std::string> words = words_of(question).at(0);
        platform_test_reset_log_script();
        platform_test_script_log_entry(
            kernel_entry("kzor,bvrx-power-on", "p@SID0 Power-on reason:r"));
        put_sources();
        remove(own());
        (void)log();
        const std::string dir = own();
        record_init_req begin{.row = row.get(), .dir = dir.c_str(), .prefix = "a.tmp"};
        record_handle handle;
        handle.file = vexastats_record_init(&begin);
        char text[STATIC_TEXT_SIZE];
        write_req req{.row = row.get(), .handle = &handle, .data = text, .len = sizeof text};
        rlim_t room = RLIM_INFINITY;
        if (words.size() > 2 && words[1] == "without") LOSSES.at(words[2])(&req);
        if (words.size() > 2 && words[1] == "room")
            room = fs::file_size(own("a.tmp")) + std::stoul(words[2]);
        const size_limit limited(room);
        const int code = ITEMS.at(words[0])(words.back() == "request" ? nullptr : &req);
        g_refused = 0;
        return std::to_string(code) + "\n" + log() + record();
    };
    expect_dialogue("static/items", ask);
}

// ---- The reporter

struct AostReporter : StaticCollector {
    ~AostReporter() override {
        stop();
        modem.hang_up();
    }
    // Runs up to the wait for indications: the library's reader waits, too.
    void start_reporter() {
        platform_test_set_clock(platform_test_clock::MANUAL);
        waiting_threads = 2;
        launch();
        modem.accept();
        modem.answer([this](const std::string& request) {
            const auto id = static_cast<uint8_t>(request[3]);
            const std::string fields =
                bytes(id == refused ? "02 0400 0100 0300" : "02 0400 0000 0000");
            return response_to(request, fields);
        });
    }
    void next_round() {
        stop();
        modem.hang_up();
        renew();
        (void)modem.take_requests();
        put_files({{LEVEL_FILE, "L1"}});
    }
    void wait_requests(size_t count) {
        const auto limit = std::chrono::steady_clock::now() + EVENT_LIMIT;
        for (size_t seen = 0; seen < count; seen += modem.take_requests().size()) {
            ASSERT_LT(std::chrono::steady_clock::now(), limit) << log();
            std::this_thread::yield();
        }
    }
    void indicate(const std::string& id, const std::string& fields) const {
        const std::string value = bytes(fields);
        modem.send(bytes("02 0000 " + id + "00") + static_cast<char>(value.size()) + '\0' + value);
    }

    kbr_service modem{"imsa"};
    std::atomic<uint8_t> refused{0};
};

TEST_F(AostReporter, IndicationOfAnotherShapeChangesNothing) {
    start_reporter();
    wait_requests(4);
    park();
    const std::string first = reported();
    indicate("24", "12 0300 000000");
    indicate("24", "10 0400 00000000 15 0400 00000000");
    wait_log("No status change");
    g_refused = sizeof(imsa_status_indication);
    indicate("24", "10 0400 01000000");
    wait_log("malloc failed");
    g_refused = 0;
    indicate("25", "");
    wait_log("[WARNING] no case for msg_id=0x25");
    EXPECT_EQ(reported(), first);
    const std::string said = log(), null = "E vexastatsd: [ERROR] ind_msg_ptr is NULL\n";
    EXPECT_THAT(said, HasSubstr("decode failed, msg_id=0x24, error=0xfffffffa\n" + null));
    EXPECT_THAT(said, HasSubstr("E vexastatsd: malloc failed\n" + null));
}

TEST_F(AostReporter, TerminatedRowIsFoundByTheAlarmAndByAChange) {
    for (const bool by_alarm : {true, false}) {
        start_reporter();
        wait_requests(4);
        raise(SIGALRM);
        wait_log("aost_imsa_sig_alarm_hdlr, sig_num=14, registered=1");
        park();
        row->terminate = 1;
        if (by_alarm) raise(SIGALRM);
        if (!by_alarm) indicate("24", "10 0400 09000000");
        wait_log("aost_imsa_deinit(), registered=1");
        EXPECT_THAT(log(), HasSubstr("D vexastatsd: exit thread\n"
                                     "I vexastatsd: aost_imsa_deinit(), registered=1\n"));
        EXPECT_EQ(reported(), "");
        platform_test_clear_log();
        next_round();
    }
}

// Indications that write, a refused bind that ends the reporter, signals and the stop at once.
TEST_F(AostReporter, EverythingAtOnceEndsOnce) {
    for (int round = 0; round < 20; ++round) {
        start_reporter();
        if (round % 2 == 0) wait_requests(4);
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
        EXPECT_LE(platform_test_log_count("aost_imsa_deinit(), registered=1"), 1u) << log();
        EXPECT_EQ(platform_test_log_count("static monitor exit\n"), 1u);
        platform_test_clear_log();
        next_round();
        refused = 0;
    }
}

}  // namespace
