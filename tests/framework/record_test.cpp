// Records and their hand-over: what stands in the files at every step.
#include "framework/record/record.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <random>

#include "base/unique_handle.h"
#include "framework/record/hand_over.h"
#include "support/gzip.h"
#include "support/record_phone.h"

namespace fs = std::filesystem;

namespace {

constexpr char DROPPED[] =
    "I vexastatsd: dropped /data/vendor/vexastats/7/teststats.1700000000000 into dropbox\n";

struct RecordTest : testing::Test, record_phone {};

TEST_F(RecordTest, HeaderHasEveryFieldBigEndianAndTheSecondSequenceNumber) {
    row.hdr.campaign_id = 0x0102030405060708;
    ASSERT_TRUE(begin());
    row.hdr.timezone_min = -210;
    ASSERT_EQ(append("data", WRITE_DROP), 4u);
    const std::string upload = file_text(up("teststats.1700000000000"));
    const auto payload_len = static_cast<char>(upload.size() - 53);
    EXPECT_EQ(hex(upload.substr(0, 53)),
              hex(bytes("00000007 00000035 00000007 01 00000003 0000018bcfe56800 000000") +
                  payload_len + bytes("01 01 0000000000001388 ff2e 0102030405060708 00000001")));
    EXPECT_EQ(row.hdr.header_attr1, 1);
    EXPECT_EQ(log(), DROPPED);
}

// Two records of one millisecond get different names, in their headers, too.
TEST_F(RecordTest, EachUploadHasTheNextOddNumberAndANameOfItsOwn) {
    ASSERT_TRUE(begin());
    EXPECT_EQ(append("first", WRITE_DROP | WRITE_BEGIN_NEW), 5u);
    EXPECT_EQ(append("second", WRITE_DROP | WRITE_BEGIN_NEW), 6u);
    platform_test_advance_ms(10);
    EXPECT_EQ(drop(WRITE_DROP | WRITE_BEGIN_NEW), 0u);
    EXPECT_EQ(append("third", WRITE_DROP), 5u);
    EXPECT_EQ(dropbox(),
              "teststats.1700000000000 seq 1: first\nteststats.1700000000001 seq 3: second\n"
              "teststats.1700000000002 seq 5: \nteststats.1700000000010 seq 7: third\n");
    EXPECT_EQ(list_dir(OWN), std::vector<std::string>{"teststats.seq"});
    EXPECT_EQ(file_text(own("teststats.seq")), "8\n");
    EXPECT_EQ(append("later"), 0u) << "there is no record until the next begin";
}

TEST_F(RecordTest, NothingIsWrittenWithoutAStreamOrWithoutDataAndDrop) {
    EXPECT_EQ(append("data"), 0u);
    ASSERT_TRUE(begin());
    EXPECT_EQ(drop(0), 0u);
    EXPECT_EQ(drop(WRITE_BEGIN_NEW), 0u);
    EXPECT_EQ(record(), NEW_LINE);
    EXPECT_EQ(log(), "");
}

TEST_F(RecordTest, DirectoryIsMadeForItsOwnerAlone) {
    fs::remove_all(OWN);
    umask(0);
    EXPECT_TRUE(begin());
    umask(022);
    EXPECT_EQ(fs::status(OWN).permissions(), fs::perms::owner_all);
}

TEST_F(RecordTest, OldRecordIsResumedHandedOverOrOverwritten) {
    const std::string other = "Version=4 Realtime=1 Uptime=77 Timezone=60\nold";
    const std::string invalid = "E vexastatsd: invalid timestamp format\n";
    const std::string dropped =
        "I vexastatsd: dropped /data/vendor/vexastats/7/teststats.1600000000000 into dropbox\n";
    const struct {
        const char* name;
        std::string content;
        bool resume, discard;
        std::string uploaded;  // payload that must reach the dropbox; empty: none
        std::string record;    // after the begin
        std::string log;
    } cases[] = {
        {"handed over", OLD_LINE + "old", false, false, "old", NEW_LINE, dropped},
        {"only a first line", OLD_LINE, false, false, "", NEW_LINE, ""},
        {"resumed", OLD_LINE + "old", true, false, "", OLD_LINE + "old", ""},
        {"discarded", OLD_LINE + "old", false, true, "", NEW_LINE, ""},
        {"resume and discard", OLD_LINE + "old", true, true, "", NEW_LINE, ""},
        {"other version", other, false, false, "", NEW_LINE, invalid},
        {"other version resumed", other, true, false, "", NEW_LINE, invalid},
        {"three values", "Version=3 Realtime=1 Uptime=77 Timezone\nold", false, false, "", NEW_LINE,
         invalid},
        {"empty", "", false, false, "", NEW_LINE, "E vexastatsd: failed to read timestamp\n"},
        {"no newline", OLD_LINE.substr(0, 54), true, false, "", OLD_LINE.substr(0, 54), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        write_record(c.content);
        ASSERT_TRUE(begin(c.resume, c.discard));
        EXPECT_EQ(record(), c.record);
        EXPECT_EQ(dropbox(),
                  c.uploaded.empty() ? "" : "teststats.1600000000000 seq 1: " + c.uploaded + "\n");
        EXPECT_EQ(row.hdr.uptime_ms, c.record == NEW_LINE ? 5000u : 77u);
        EXPECT_EQ(log(), c.log);
    }
}

// The clock is plausible from 1483228800000 ms on, a record's time from one millisecond later. The
// line in place of "Realtime=86400000" is five characters longer, and covers as many of the data.
TEST_F(RecordTest, LateClockRewritesTheFirstLineOverTheFirstDataBytes) {
    constexpr uint64_t PLAUSIBLE_MS = 1483228800000;
    const struct {
        uint64_t begun_ms, now_ms;
        int64_t boot_ms;  // how far that clock has moved
        std::string record;
    } cases[] = {
        {86400000, PLAUSIBLE_MS, 60000,
         "Version=3 Realtime=1483228740000 Uptime=5000 Timezone=0\n56789abc"},
        {86400000, PLAUSIBLE_MS - 1, 60000,
         "Version=3 Realtime=86400000 Uptime=5000 Timezone=0\n0123456789abc"},
        {PLAUSIBLE_MS, PLAUSIBLE_MS + 90000, 60000,
         "Version=3 Realtime=1483228830000 Uptime=5000 Timezone=0\n0123456789abc"},
        {PLAUSIBLE_MS + 1, PLAUSIBLE_MS + 90000, 60000,
         "Version=3 Realtime=1483228800001 Uptime=5000 Timezone=0\n0123456789abc"},
        {86400000, PLAUSIBLE_MS, 0,
         "Version=3 Realtime=1483228800000 Uptime=5000 Timezone=0\n56789abc"},
        {86400000, PLAUSIBLE_MS, -1,  // a resumed record of another boot
         "Version=3 Realtime=86400000 Uptime=5000 Timezone=0\n0123456789abc"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.record);
        reset();
        platform_test_set_real_ms(static_cast<int64_t>(c.begun_ms));
        ASSERT_TRUE(begin());
        ASSERT_EQ(append("0123456789"), 10u);
        platform_test_set_boot_ms(5000 + c.boot_ms);
        platform_test_set_real_ms(static_cast<int64_t>(c.now_ms));
        ASSERT_EQ(append("abc"), 3u);
        EXPECT_EQ(record(), c.record);
        EXPECT_EQ(record().starts_with("Version=3 Realtime=" + std::to_string(row.hdr.realtime_ms)),
                  true);
    }
}

TEST_F(RecordTest, FailedRenameLeavesTheFinishedFileForTheNextBegin) {
    // The last ones fill the pieces in which the payload is decompressed to the last byte.
    for (const size_t size : {4, 2 * 16384 - 1, 16384, 3 * 16384}) {
        SCOPED_TRACE(size);
        reset();
        const std::string data(size, 'd');
        ASSERT_TRUE(begin());
        fs::remove_all(UP);
        EXPECT_EQ(append(data, WRITE_DROP | WRITE_BEGIN_NEW), 0u);
        EXPECT_EQ(handle.file, nullptr);
        EXPECT_EQ(log(),
                  "E vexastatsd: failed to move file. err:2\nE vexastatsd: failed to move "
                  "/data/vendor/vexastats/7/teststats.1700000000000 to drbox\n");
        EXPECT_FALSE(fs::exists(own("teststats.tmp")));
        fs::create_directories(UP);
        EXPECT_TRUE(begin()) << "the collector goes on at its next pass";
        EXPECT_EQ(dropbox_payloads(UP), std::vector{data});
        EXPECT_EQ(log(), DROPPED);
    }
}

TEST_F(RecordTest, NameWithoutADotHasNoSequenceAndIsNotHandedOver) {
    ASSERT_TRUE(begin());
    strcpy(row.rec_fname, own("nodot").c_str());
    write_text_file(row.rec_fname, OLD_LINE + "x");
    EXPECT_EQ(move_to_dropbox(&row, &handle, false), -EINVAL);
    EXPECT_EQ(log(), "E vexastatsd: invalid rec_fname /data/vendor/vexastats/7/nodot\n");
    EXPECT_EQ(list_dir(OWN), (std::vector<std::string>{"nodot", "teststats.tmp"}));
    const unique_file out(tmpfile());
    ASSERT_EQ(prepend_header(out.get(), &row), 0);
    rewind(out.get());
    char header[53];
    ASSERT_EQ(fread(header, 1, sizeof header, out.get()), sizeof header);
    EXPECT_EQ(hex({header + 49, 4}), "deadbeef");
}

TEST_F(RecordTest, RecordSizeCountsBehindTheFirstLine) {
    ASSERT_TRUE(begin());
    EXPECT_EQ(vexastats_record_size(&row), 0u);
    append("12345");
    EXPECT_EQ(vexastats_record_size(&row), 5u);
    EXPECT_EQ(log(), "");
    write_record("");
    EXPECT_EQ(vexastats_record_size(&row), 0u);
    fs::remove(own("teststats.tmp"));
    EXPECT_EQ(vexastats_record_size(&row), 0u);
    EXPECT_EQ(vexastats_record_size(nullptr), 0u);
    EXPECT_EQ(log(),
              "E vexastatsd: vexastats_record_size: invalid size of "
              "/data/vendor/vexastats/7/teststats.tmp\n"
              "E vexastatsd: vexastats_record_size: failed to open "
              "/data/vendor/vexastats/7/teststats.tmp. err:2\n"
              "E vexastatsd: vexastats_record_size: invalid collector info\n");
}

// ---- Left-overs of an interrupted hand-over

struct LeftOverTest : RecordTest {
    // A finished file as the hand-over leaves it just before its rename; nothing else is there.
    void SetUp() override {
        ASSERT_TRUE(begin());
        ASSERT_EQ(append("finished", WRITE_DROP), 8u);
        finished = file_text(up("teststats.1700000000000"));
        fs::remove(up("teststats.1700000000000"));
        platform_test_advance_ms(60000);
    }

    // What the next begin makes of this left-over and this record. The left-over goes in any case.
    std::string after_begin(const std::string& left_over, const std::string& record) {
        for (const std::string& name : list_dir(UP)) fs::remove(up(name));
        write_text_file(own("teststats.1700000000000"), left_over);
        write_record(record);
        EXPECT_TRUE(begin());
        EXPECT_FALSE(fs::exists(own("teststats.1700000000000")));
        std::string payloads;
        for (const std::string& payload : dropbox_payloads(UP)) payloads += payload + ";";
        return payloads;
    }

    std::string finished;
};

TEST_F(LeftOverTest, WholeFileIsDeliveredAndItsRecordNotASecondTime) {
    EXPECT_EQ(after_begin(finished, NEW_LINE + "finished"), "finished;");
    EXPECT_EQ(file_text(up("teststats.1700000000000")), finished);
    EXPECT_EQ(after_begin(finished, OLD_LINE + "other"), "other;finished;");
    EXPECT_EQ(after_begin(finished, NEW_LINE + "finished and more"), "finished and more;")
        << "the record grew";
}

TEST_F(LeftOverTest, FileThatIsNotWholeAndTheRowsIsRemovedAndItsRecordDelivered) {
    for (size_t len = 0; len < finished.size(); len++)
        ASSERT_EQ(after_begin(finished.substr(0, len), NEW_LINE + "finished"), "finished;") << len;
    std::string foreign = finished, damaged = finished;
    foreign[11] = 8;
    damaged[65] ^= 1;
    for (const std::string& bad : {foreign, damaged, finished + "x"})
        EXPECT_EQ(after_begin(bad, ""), "");
}

TEST_F(LeftOverTest, RecordIsGoneBeforeItsFinishedFileCanBeDelivered) {
    write_text_file(own("teststats.1700000000000"), finished);
    write_record(NEW_LINE + "finished");
    fs::remove_all(UP);
    ASSERT_TRUE(begin(true));
    ASSERT_EQ(append("next"), 4u) << "would go with a record that is deleted later";
    EXPECT_TRUE(fs::exists(own("teststats.1700000000000")));
    fs::create_directories(UP);
    ASSERT_TRUE(begin());
    EXPECT_EQ(dropbox_payloads(UP), (std::vector<std::string>{"finished", "next"}));
}

TEST_F(LeftOverTest, TakenNameMovesTheTimeInTheHeaderOn) {
    write_text_file(own("teststats.1700000000000"), finished);
    write_text_file(up("teststats.1700000000000"), "another");
    ASSERT_TRUE(begin());
    EXPECT_EQ(file_text(up("teststats.1700000000000")), "another");
    finished[24] = 1;
    EXPECT_EQ(hex(file_text(up("teststats.1700000000001"))), hex(finished));
}

// ---- What stands in the way of a record

TEST_F(RecordTest, RecordWhoseHandOverFailsIsResumed) {
    write_record(OLD_LINE + "old");
    const std::string too_long(PATH_MAX, 'x');
    row.up_dir = too_long.c_str();  // no name in the dropbox fits
    ASSERT_TRUE(begin());
    EXPECT_EQ(record(), OLD_LINE + "old");
    EXPECT_EQ(row.hdr.realtime_ms, 1600000000000u);
    ASSERT_EQ(append(" and new"), 8u);
    row.up_dir = UP;
    drop();
    EXPECT_EQ(dropbox(), "teststats.1600000000000 seq 1: old and new\n");
}

TEST_F(RecordTest, NumberThatCannotBeReplacedIsWrittenInPlaceAndCostsNoRecord) {
    fs::create_directory(own("teststats.seq.new"));
    const struct {
        const char* before;  // null: no file
        const char* upload;
        const char* after;
    } cases[] = {{"100000000\n", "seq 100000001", "100000002\n"},
                 {"7\n", "seq 8", "9\n"},
                 {nullptr, "seq 1", "2\n"},
                 {"4294967295\n", "seq 0", "1\n"}};
    for (const auto& c : cases) {
        fs::remove(own("teststats.seq"));
        if (c.before) write_text_file(own("teststats.seq"), c.before);
        for (const std::string& name : list_dir(UP)) fs::remove(up(name));
        EXPECT_TRUE(begin());
        EXPECT_EQ(append("x", WRITE_DROP), 1u);
        EXPECT_EQ(dropbox(), "teststats.1700000000000 " + std::string(c.upload) + ": x\n");
        EXPECT_EQ(file_text(own("teststats.seq")), c.after);
    }
    fs::remove(own("teststats.seq"));
    fs::create_directory(own("teststats.seq"));
    EXPECT_TRUE(begin());
    EXPECT_EQ(append("x", WRITE_DROP), 1u) << "the number comes twice, the data comes";
}

TEST_F(RecordTest, FifoUnderAnyNameBlocksNothing) {
    for (const char* name : {"teststats.tmp", "teststats.seq", "teststats.seq.new",
                             "teststats.1700000000000", "teststats.1600000000000"}) {
        SCOPED_TRACE(name);
        reset();
        ASSERT_EQ(mkfifo(own(name).c_str(), 0600), 0);
        const bool is_record = own("teststats.tmp") == own(name);
        EXPECT_EQ(begin(), !is_record);
        if (is_record) continue;
        EXPECT_EQ(append("data", WRITE_DROP), 4u);
        EXPECT_EQ(list_dir(UP).size(), 1u);
        strcpy(row.rec_fname, own(name).c_str());
        EXPECT_EQ(vexastats_record_size(&row), 0u);
    }
}

// ---- Where a record is full

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

TEST_F(RecordTest, RecordIsFullWhereTheWholeRecordMeasuresTooLarge) {
    const struct {
        const char* name;
        generator next;
        int32_t size;
        int appends;
    } cases[] = {
        {"counters", counters, 20000, 900},
        {"noise", [](std::mt19937& r) { return random_text(r, 1 + r() % 3000, 256); }, 20000, 300},
        {"letters", [](std::mt19937& r) { return random_text(r, 1 + r() % 2000, 26, 'a'); }, 3000,
         500},
        {"bits", [](std::mt19937& r) { return random_text(r, r() % 4000, 2, '0'); }, 3000, 900},
        {"the first line again",
         [](std::mt19937& r) { return NEW_LINE + random_text(r, r() % 900, 10, '0'); }, 20000, 400},
        {"changing alphabets", changing_alphabets, 65536, 400},
        {"64 letters a block", alphabet_per_block<64>, 20000, 900},
        {"128 letters a block", alphabet_per_block<128>, 20000, 900},
        {"two distances", two_distances, 20000, 400},
        {"zeros and noise",
         [](std::mt19937& r) {
             return std::string(r() % 5000, '\0') + random_text(r, r() % 600, 256);
         },
         3000, 600},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        reset();
        std::mt19937 rnd(static_cast<unsigned>(c.size));
        row.size = c.size;
        ASSERT_TRUE(begin());
        measured_record slow(c.size, NEW_LINE);
        int uploads = 0;
        for (int i = 0; i < c.appends; i++) {
            const std::string data = c.next(rnd);
            const std::string expected = slow.append(data);
            ASSERT_EQ(append(data), data.size());
            ASSERT_EQ(rolled_over, !expected.empty()) << "append " << i;
            if (!rolled_over) continue;
            ++uploads;
            const fs::path path = up(list_dir(UP)[0]);
            ASSERT_EQ(file_text(path).substr(53), expected);
            fs::remove(path);
        }
        EXPECT_GT(uploads, 0);
    }
}

}  // namespace
