// Records and their hand-over: what stands in the files at every step.
#include "framework/record/record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <filesystem>
#include <functional>
#include <random>

#include "base/unique_handle.h"
#include "framework/record/hand_over.h"
#include "framework/time/clock.h"
#include "platform_test.h"
#include "support/files.h"
#include "support/gzip.h"
#include "support/log.h"

namespace fs = std::filesystem;
using ::testing::HasSubstr;

namespace {

constexpr char STATS_DIR[] = "/data/vendor/vexastats/7";
constexpr char UP_DIR[] = "/data/vendor/vexa/up/7";
constexpr uint64_t START_MS = 1700000000000;

class RecordTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(STATS_DIR);
        fs::remove_all(UP_DIR);
        fs::create_directories(STATS_DIR);
        fs::create_directories(UP_DIR);
        platform_test_reset();
        platform_test_set_real_ms(START_MS);
        platform_test_set_boot_ms(5000);
    }
    void TearDown() override { vexastats_record_close(&handle); }

    bool begin(bool resume = false, bool discard = false) {
        vexastats_record_close(&handle);
        record_init_req req{.row = &row,
                            .dir = STATS_DIR,
                            .prefix = "teststats.tmp",
                            .resume = resume,
                            .discard = discard};
        handle.file = vexastats_record_init(&req);
        return handle.file != nullptr;
    }

    size_t append(std::string_view data, uint32_t flags = 0, bool* rolled_over = nullptr) {
        write_req req{.row = &row,
                      .handle = &handle,
                      .data = data.data(),
                      .len = data.size(),
                      .flags = flags,
                      .rolled_over = 0};
        const size_t count = vexastats_write_file(&req);
        if (rolled_over) *rolled_over = req.rolled_over != 0;
        return count;
    }

    size_t drop(uint32_t flags = WRITE_DROP) {
        write_req req{.row = &row,
                      .handle = &handle,
                      .data = nullptr,
                      .len = 0,
                      .flags = flags,
                      .rolled_over = 0};
        return vexastats_write_file(&req);
    }

    static std::string record_path() { return std::string(STATS_DIR) + "/teststats.tmp"; }
    static std::string payload(const std::string& upload) { return gunzip(upload.substr(53)); }

    collector_info row{
        .name = "test_collector",
        .up_dir = UP_DIR,
        .hdr = {.client_id = 7, .rec_version = 3},
    };
    record_handle handle;
};

TEST_F(RecordTest, HeaderHasEveryFieldBigEndianAndTheSecondSequenceNumber) {
    row.hdr.campaign_id = 0x0102030405060708;
    ASSERT_TRUE(begin());
    row.hdr.timezone_min = -210;
    ASSERT_EQ(append("data"), 4u);
    drop();

    const std::string upload = file_text(std::string(UP_DIR) + "/teststats.1700000000000");
    ASSERT_GT(upload.size(), 53u);
    const auto payload_len = static_cast<char>(upload.size() - 53);
    const std::string expected =
        bytes("00000007 00000035 00000007 01 00000003 0000018bcfe56800 000000") + payload_len +
        bytes("01 01 0000000000001388 ff2e 0102030405060708 00000001");
    EXPECT_EQ(hex(upload.substr(0, 53)), hex(expected));
    EXPECT_EQ(payload(upload), "data");
    EXPECT_EQ(file_text(std::string(STATS_DIR) + "/teststats.seq"), "2\n");
    EXPECT_FALSE(fs::exists(record_path()));
}

TEST_F(RecordTest, SequenceNumbersOfConsecutiveFilesAreTwoApart) {
    ASSERT_TRUE(begin());
    for (uint32_t expected : {1u, 3u, 5u}) {
        platform_test_advance_ms(10);
        const uint64_t start_ms = row.hdr.realtime_ms;
        ASSERT_EQ(append("x", WRITE_DROP | WRITE_BEGIN_NEW), 1u);
        const std::string upload =
            file_text(std::string(UP_DIR) + "/teststats." + std::to_string(start_ms));
        EXPECT_EQ(hex(upload.substr(49, 4)), hex(bytes("000000") + static_cast<char>(expected)));
    }
}

TEST_F(RecordTest, RecordOfOnlyItsFirstLineGivesAnEmptyGzipStream) {
    ASSERT_TRUE(begin());
    EXPECT_EQ(drop(), 0u);
    const std::string upload = file_text(std::string(UP_DIR) + "/teststats.1700000000000");
    EXPECT_EQ(payload(upload), "");
    EXPECT_EQ(handle.file, nullptr);
    EXPECT_EQ(append("later"), 0u) << "there is no record until the next begin";
}

TEST_F(RecordTest, TwoRecordsOfOneMillisecondGetDifferentNames) {
    ASSERT_TRUE(begin());
    ASSERT_EQ(append("first", WRITE_DROP | WRITE_BEGIN_NEW), 5u);
    ASSERT_EQ(append("second", WRITE_DROP), 6u);
    EXPECT_EQ(payload(file_text(std::string(UP_DIR) + "/teststats.1700000000000")), "first");
    EXPECT_EQ(payload(file_text(std::string(UP_DIR) + "/teststats.1700000000001")), "second");
}

TEST_F(RecordTest, NothingIsWrittenWithoutAStreamOrWithoutDataAndDrop) {
    EXPECT_EQ(append("data"), 0u);
    ASSERT_TRUE(begin());
    const std::string before = file_text(record_path());
    EXPECT_EQ(drop(0), 0u);
    EXPECT_EQ(file_text(record_path()), before);
    EXPECT_EQ(before, "Version=3 Realtime=1700000000000 Uptime=5000 Timezone=0\n");
}

// What an earlier run left, and what becomes of it.
struct old_record_case {
    const char* name;
    std::string content;
    bool resume, discard;
    std::string uploaded;  // payload that must reach the dropbox; empty: none
    std::string record;    // the record after the begin
};

const std::string OLD_LINE = "Version=3 Realtime=1600000000000 Uptime=77 Timezone=60\n";
const std::string NEW_LINE = "Version=3 Realtime=1700000000000 Uptime=5000 Timezone=0\n";

TEST_F(RecordTest, OldRecordIsResumedHandedOverOrOverwritten) {
    const old_record_case cases[] = {
        {"handed over", OLD_LINE + "old", false, false, "old", NEW_LINE},
        {"only a first line", OLD_LINE, false, false, "", NEW_LINE},
        {"resumed", OLD_LINE + "old", true, false, "", OLD_LINE + "old"},
        {"discarded", OLD_LINE + "old", false, true, "", NEW_LINE},
        {"resume and discard", OLD_LINE + "old", true, true, "", NEW_LINE},
        {"other version", "Version=4 Realtime=1 Uptime=77 Timezone=60\nold", false, false, "",
         NEW_LINE},
        {"other version resumed", "Version=4 Realtime=1 Uptime=77 Timezone=60\nold", true, false,
         "", NEW_LINE},
        {"three values", "Version=3 Realtime=1 Uptime=77 Timezone\nold", false, false, "",
         NEW_LINE},
        {"empty", "", false, false, "", NEW_LINE},
        {"no newline", "Version=3 Realtime=1600000000000 Uptime=77 Timezone=60", true, false, "",
         "Version=3 Realtime=1600000000000 Uptime=77 Timezone=60"},
    };
    for (const old_record_case& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        write_text_file(record_path(), c.content);
        ASSERT_TRUE(begin(c.resume, c.discard));
        EXPECT_EQ(file_text(record_path()), c.record);
        const std::string upload = std::string(UP_DIR) + "/teststats.1600000000000";
        ASSERT_EQ(fs::exists(upload), !c.uploaded.empty());
        if (!c.uploaded.empty()) {
            EXPECT_EQ(payload(file_text(upload)), c.uploaded);
        }
        EXPECT_EQ(row.hdr.uptime_ms, c.record == NEW_LINE ? 5000u : 77u);
    }
}

TEST_F(RecordTest, LateClockRewritesTheFirstLineOverTheFirstDataBytes) {
    platform_test_set_real_ms(86400000);  // 1970
    ASSERT_TRUE(begin());
    ASSERT_EQ(append("0123456789"), 10u);
    platform_test_advance_ms(60000);
    EXPECT_EQ(row.hdr.realtime_ms, 86400000u) << "the clock is not plausible yet";
    platform_test_set_real_ms(START_MS);
    ASSERT_EQ(append("abc"), 3u);

    EXPECT_EQ(row.hdr.realtime_ms, START_MS - 60000);
    // "86400000" became "1699999940000": five characters more, over the first five bytes.
    EXPECT_EQ(file_text(record_path()),
              "Version=3 Realtime=1699999940000 Uptime=5000 Timezone=0\n56789abc");
}

TEST_F(RecordTest, FailedRenameLeavesTheFinishedFileForTheNextBegin) {
    // The last ones fill the pieces in which the payload is decompressed to the last byte.
    for (const size_t size : {4, 2 * 16384 - 1, 16384, 3 * 16384}) {
        SCOPED_TRACE(size);
        SetUp();
        const std::string data(size, 'd');
        ASSERT_TRUE(begin());
        fs::remove_all(UP_DIR);
        EXPECT_EQ(append(data, WRITE_DROP | WRITE_BEGIN_NEW), 0u);
        EXPECT_EQ(handle.file, nullptr);
        EXPECT_THAT(log_text(), HasSubstr("failed to move file. err:2\n"));
        EXPECT_THAT(log_text(), HasSubstr("to drbox\n"));
        EXPECT_FALSE(fs::exists(record_path()));
        fs::create_directories(UP_DIR);
        EXPECT_TRUE(begin()) << "the collector goes on at its next pass";
        EXPECT_EQ(payload(file_text(std::string(UP_DIR) + "/teststats.1700000000000")), data);
    }
}

TEST_F(RecordTest, RecordNameWithoutADotFailsBeforeAnyHeader) {
    ASSERT_TRUE(begin());
    strcpy(row.rec_fname, "/data/vendor/vexastats/7/nodot");
    write_text_file(row.rec_fname, OLD_LINE + "x");
    EXPECT_EQ(move_to_dropbox(&row, &handle, false), -EINVAL);
    EXPECT_THAT(log_text(), HasSubstr("invalid rec_fname /data/vendor/vexastats/7/nodot\n"));
    EXPECT_EQ(list_dir(STATS_DIR), (std::vector<std::string>{"nodot", "teststats.tmp"}));
}

TEST_F(RecordTest, HeaderOfANamelessRecordHasNoSequenceNumber) {
    strcpy(row.rec_fname, "nodot");
    const unique_file out(tmpfile());
    ASSERT_EQ(prepend_header(out.get(), &row), 0);
    rewind(out.get());
    char header[53];
    ASSERT_EQ(fread(header, 1, sizeof header, out.get()), sizeof header);
    EXPECT_EQ(hex({header + 49, 4}), "deadbeef");
    EXPECT_EQ(row.hdr.header_attr1, 1);
}

TEST_F(RecordTest, RecordSizeCountsBehindTheFirstLine) {
    ASSERT_TRUE(begin());
    EXPECT_EQ(vexastats_record_size(&row), 0u);
    append("12345");
    EXPECT_EQ(vexastats_record_size(&row), 5u);
    write_text_file(record_path(), "");
    EXPECT_EQ(vexastats_record_size(&row), 0u);
    EXPECT_THAT(log_text(), HasSubstr("vexastats_record_size: invalid size of "));
}

// ---- Left-overs of an interrupted hand-over
// --------------------------------------------------------

class LeftOverTest : public RecordTest {
  protected:
    // A finished file as the hand-over leaves it just before its rename.
    std::string make_finished() {
        EXPECT_TRUE(begin());
        append("finished data");
        drop();
        std::string upload = file_text(std::string(UP_DIR) + "/teststats.1700000000000");
        fs::remove(std::string(UP_DIR) + "/teststats.1700000000000");
        platform_test_advance_ms(60000);
        return upload;
    }
    static std::string left_over() { return std::string(STATS_DIR) + "/teststats.1700000000000"; }
};

TEST_F(LeftOverTest, WholeFileIsDeliveredAndItsRecordNotASecondTime) {
    const std::string upload = make_finished();
    write_text_file(left_over(), upload);
    write_text_file(record_path(), NEW_LINE + "finished data");
    ASSERT_TRUE(begin());
    EXPECT_EQ(list_dir(UP_DIR), std::vector<std::string>{"teststats.1700000000000"});
    EXPECT_EQ(file_text(std::string(UP_DIR) + "/teststats.1700000000000"), upload);
    EXPECT_FALSE(fs::exists(left_over()));
}

TEST_F(LeftOverTest, OtherRecordBesideAWholeFileIsDeliveredToo) {
    write_text_file(left_over(), make_finished());
    write_text_file(record_path(), OLD_LINE + "other");
    ASSERT_TRUE(begin());
    EXPECT_EQ(list_dir(UP_DIR),
              (std::vector<std::string>{"teststats.1600000000000", "teststats.1700000000000"}));
}

TEST_F(LeftOverTest, FileCutAnywhereIsRemovedAndItsRecordDelivered) {
    const std::string upload = make_finished();
    for (size_t len = 0; len < upload.size(); len++) {
        SCOPED_TRACE(len);
        fs::remove_all(UP_DIR);
        fs::create_directories(UP_DIR);
        write_text_file(left_over(), upload.substr(0, len));
        write_text_file(record_path(), NEW_LINE + "finished data");
        ASSERT_TRUE(begin());
        ASSERT_FALSE(fs::exists(left_over()));
        ASSERT_EQ(list_dir(UP_DIR).size(), 1u);
        ASSERT_EQ(payload(file_text(std::string(UP_DIR) + "/" + list_dir(UP_DIR)[0])),
                  "finished data");
    }
}

TEST_F(LeftOverTest, ForeignLongerOrDamagedFileIsRemoved) {
    const std::string upload = make_finished();
    std::string foreign = upload, damaged = upload;
    foreign[11] = 8;
    damaged[65] ^= 1;
    for (const std::string& bad : {foreign, damaged, upload + "x"}) {
        write_text_file(left_over(), bad);
        ASSERT_TRUE(begin());
        EXPECT_FALSE(fs::exists(left_over()));
        EXPECT_TRUE(list_dir(UP_DIR).empty());
    }
}

TEST_F(LeftOverTest, RecordThatGrewBesideItsFinishedFileIsDeliveredOnceAndWhole) {
    write_text_file(left_over(), make_finished());
    write_text_file(record_path(), NEW_LINE + "finished data and more");
    ASSERT_TRUE(begin());
    EXPECT_FALSE(fs::exists(left_over()));
    ASSERT_EQ(list_dir(UP_DIR).size(), 1u);
    EXPECT_EQ(payload(file_text(std::string(UP_DIR) + "/" + list_dir(UP_DIR)[0])),
              "finished data and more");
}

TEST_F(LeftOverTest, RecordIsGoneBeforeItsFinishedFileCanBeDelivered) {
    write_text_file(left_over(), make_finished());
    write_text_file(record_path(), NEW_LINE + "finished data");
    fs::remove_all(UP_DIR);
    ASSERT_TRUE(begin(true));
    ASSERT_EQ(append("next"), 4u) << "would go with a record that is deleted later";
    EXPECT_TRUE(fs::exists(left_over()));
    fs::create_directories(UP_DIR);
    ASSERT_TRUE(begin());
    std::string payloads;
    for (const std::string& name : list_dir(UP_DIR)) {
        payloads += payload(file_text(std::string(UP_DIR) + "/" + name)) + ";";
    }
    EXPECT_EQ(payloads, "finished data;next;");
}

TEST_F(LeftOverTest, TakenNameMovesTheTimeInTheHeaderOn) {
    const std::string upload = make_finished();
    write_text_file(left_over(), upload);
    write_text_file(std::string(UP_DIR) + "/teststats.1700000000000", "another");
    ASSERT_TRUE(begin());
    EXPECT_EQ(file_text(std::string(UP_DIR) + "/teststats.1700000000000"), "another");
    std::string moved = upload;
    moved[24] = 1;
    EXPECT_EQ(hex(file_text(std::string(UP_DIR) + "/teststats.1700000000001")), hex(moved));
}

// ---- What stands in the way of a record

TEST_F(RecordTest, RecordWhoseHandOverFailsIsResumed) {
    write_text_file(record_path(), OLD_LINE + "old");
    const std::string too_long(PATH_MAX, 'x');
    row.up_dir = too_long.c_str();  // no name in the dropbox fits
    ASSERT_TRUE(begin());
    EXPECT_EQ(file_text(record_path()), OLD_LINE + "old");
    EXPECT_EQ(row.hdr.realtime_ms, 1600000000000u);
    ASSERT_EQ(append(" and new"), 8u);
    row.up_dir = UP_DIR;
    drop();
    EXPECT_EQ(payload(file_text(std::string(UP_DIR) + "/teststats.1600000000000")), "old and new");
}

TEST_F(RecordTest, NumberThatCannotBeReplacedIsWrittenInPlaceAndCostsNoRecord) {
    const std::string sequence = std::string(STATS_DIR) + "/teststats.seq";
    const auto drop_and_number = [&] {
        platform_test_advance_ms(10);
        EXPECT_TRUE(begin());
        EXPECT_EQ(append("x", WRITE_DROP), 1u);
        const std::string path = std::string(UP_DIR) + "/" + list_dir(UP_DIR).back();
        return static_cast<int>(file_text(path)[52]);
    };
    fs::create_directory(sequence + ".new");
    write_text_file(sequence, "100000000\n");
    drop_and_number();
    EXPECT_EQ(file_text(sequence), "100000002\n");
    write_text_file(sequence, "7\n");
    EXPECT_EQ(drop_and_number(), 8);
    EXPECT_EQ(file_text(sequence), "9\n");
    fs::remove(sequence);
    EXPECT_EQ(drop_and_number(), 1);
    EXPECT_EQ(file_text(sequence), "2\n");
    fs::remove(sequence);
    fs::create_directory(sequence);
    EXPECT_EQ(drop_and_number(), 1) << "the number comes twice, the data comes";
}

TEST_F(RecordTest, FifoUnderAnyNameBlocksNothing) {
    const char* names[] = {"teststats.tmp", "teststats.seq", "teststats.seq.new",
                           "teststats.1700000000000", "teststats.1600000000000"};
    for (const char* name : names) {
        SCOPED_TRACE(name);
        SetUp();
        ASSERT_EQ(mkfifo((std::string(STATS_DIR) + "/" + name).c_str(), 0600), 0);
        const bool is_record = record_path().ends_with(name);
        EXPECT_EQ(begin(), !is_record);
        if (is_record) continue;
        EXPECT_EQ(append("data", WRITE_DROP), 4u);
        ASSERT_EQ(list_dir(UP_DIR).size(), 1u);
        strcpy(row.rec_fname, (std::string(STATS_DIR) + "/" + name).c_str());
        EXPECT_EQ(vexastats_record_size(&row), 0u);
    }
}

// ---- Where a record is full
// ------------------------------------------------------------------------

// The slow way: estimate, and when that is too large compress the whole record afresh.
class measured_record {
  public:
    measured_record(int32_t size, std::string line) : size_(size), line_(std::move(line)) {}

    // Returns the payload of the record that the bytes pushed out; empty when they fit.
    std::string append(std::string_view data) {
        std::string payload;
        const size_t pos = line_.size() + data_.size();
        const size_t estimate = data.size() * ratio_ / 1000;
        if (53 + (data.size() + pos) * ratio_ / 1000 > static_cast<size_t>(size_) &&
            53 + gzip(line_ + data_).size() + estimate > static_cast<size_t>(size_)) {
            payload = gzip(data_);
            ratio_ = payload.size() * 1100 / pos;
            data_.clear();
        }
        data_ += data;
        return payload;
    }

  private:
    int32_t size_;
    std::string line_;
    std::string data_;
    size_t ratio_ = 200;
};

using generator = std::function<std::string(std::mt19937&)>;

std::string random_text(std::mt19937& rnd, size_t len, int alphabet, int first = 0) {
    std::string text(len, '\0');
    for (char& c : text) c = static_cast<char>(first + static_cast<int>(rnd() % alphabet));
    return text;
}

std::string counters(std::mt19937& rnd) {
    static uint32_t counter[64];
    std::string text;
    for (uint32_t& c : counter) {
        c += rnd() % 900;
        text.append(reinterpret_cast<char*>(&c), sizeof c);
    }
    return text + "com.example.app" + std::to_string(rnd() % 40) + std::string(rnd() % 700, '\0');
}

std::string changing_alphabets(std::mt19937& rnd) {
    static int n = 0;
    return random_text(rnd, 900, 16, ++n / 20 % 2 ? 0 : 64);
}

// Made against answers that leave the first line out: the alphabet changes exactly with the
// compressor's blocks, so a line's length more or less mixes two of them.
template <int ALPHABET>
std::string alphabet_per_block(std::mt19937& rnd) {
    static size_t at = 0;
    std::string text(100 + rnd() % 400, '\0');
    for (char& c : text) {
        const int first = at++ / 16383 % 2 ? 0 : ALPHABET;
        c = static_cast<char>(first + static_cast<int>(rnd() % ALPHABET));
    }
    return text;
}

// Made against estimates of what an append can cost: short repeats from two distances, then others.
std::string two_distances(std::mt19937& rnd) {
    static std::string all = random_text(rnd, 9000, 256);
    const size_t begin = all.size();
    while (all.size() < begin + 600) {
        const size_t distance = rnd() % 5000 ? (rnd() % 2 ? 300 : 8500) : 1000 + rnd() % 7000;
        for (size_t i = 0; i < 3; i++) all += all[all.size() - distance];
    }
    return all.substr(begin);
}

struct full_case {
    const char* name;
    generator next;
    int appends;
};

TEST_F(RecordTest, RecordIsFullWhereTheWholeRecordMeasuresTooLarge) {
    const full_case cases[] = {
        {"counters", counters, 2500},
        {"noise", [](std::mt19937& r) { return random_text(r, 1 + r() % 3000, 256); }, 300},
        {"letters", [](std::mt19937& r) { return random_text(r, 1 + r() % 2000, 26, 'a'); }, 500},
        {"bits", [](std::mt19937& r) { return random_text(r, r() % 4000, 2, '0'); }, 900},
        {"the first line again",
         [](std::mt19937& r) { return NEW_LINE + random_text(r, r() % 900, 10, '0'); }, 600},
        {"changing alphabets", changing_alphabets, 600},
        {"64 letters a block", alphabet_per_block<64>, 900},
        {"128 letters a block", alphabet_per_block<128>, 900},
        {"two distances", two_distances, 600},
        {"zeros and noise",
         [](std::mt19937& r) {
             return std::string(r() % 5000, '\0') + random_text(r, r() % 600, 256);
         },
         900},
    };
    for (const full_case& c : cases) {
        for (const int32_t size : {3000, 20000, 65536}) {
            SCOPED_TRACE(testing::Message() << c.name << ", size " << size);
            SetUp();
            std::mt19937 rnd(static_cast<unsigned>(size));
            row.size = size;
            row.compress_ratio = 200;
            ASSERT_TRUE(begin());
            measured_record slow(size, NEW_LINE);
            for (int i = 0; i < c.appends; i++) {
                const std::string data = c.next(rnd);
                const std::string expected = slow.append(data);
                bool rolled_over = false;
                ASSERT_EQ(append(data, 0, &rolled_over), data.size());
                ASSERT_EQ(rolled_over, !expected.empty()) << "append " << i;
                if (!rolled_over) continue;
                const std::string path = std::string(UP_DIR) + "/" + list_dir(UP_DIR)[0];
                ASSERT_EQ(file_text(path).substr(53), expected);
                fs::remove(path);
            }
        }
    }
}

}  // namespace
